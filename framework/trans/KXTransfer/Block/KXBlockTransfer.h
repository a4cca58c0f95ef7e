#pragma once

// Moves one block of a chunked transfer on a thread of its own: upload (hash, offer the hash, send
// the bytes unless the server holds them) or download (fetch the block's byte range into the shared
// temporary file), for plain and share-link tasks alike. The outcome is left in the block and
// reported once per run with complete(); byte counts go out as increments with progress().
//
// Created by the op queue on its thread and moved to the chunked transfer's thread, where the op
// queue deletes it after end() once the block has been filed. Neither the block nor the block
// manager is owned. cancelTask() may be called from any thread while the block thread waits for a
// server answer.

#include "KXTFBaseThread.h"
#include "KXTransferDefine.h"

#include <QByteArray>
#include <QString>

#include <atomic>
#include <functional>

class CKXBlockHasher;
class CKXBlockMgr;
class QFile;
class CKXBlockTask;
class KXBaseParse;

class CKXBlockTransfer : public CKXTFBaseThread
{
    Q_OBJECT
public:
    CKXBlockTransfer(CKXBlockMgr* mgr, CKXBlockTask* task);

    // Cancellation is kept in a flag of our own: QThread ignores an interruption request made
    // before the thread runs, and a block can be cancelled just as it starts.
    void cancel() override;
    bool isCancelled() override;

    // Reports the block as paused (unless it already failed or finished) and aborts the request in
    // flight. The block thread then returns without reporting again.
    void cancelTask();

    // The op queue's hasher, which may be making this block's hash ahead of it; not owned. Set
    // before start().
    void setHasher(CKXBlockHasher* hasher) { m_hasher = hasher; }

    // Reads `length` bytes at `loc` (fewer at the end of the file). 0 on success, else 20106 for a
    // missing file or the file's error code with its text in `errMsg`.
    int getBlockData(const QString& path, long long loc, long long length, QByteArray& data, QString& errMsg);

    // For a download: whether the free disk space holds this block. Uploads always pass.
    bool verifyTask(QString& msg, long long& code, long long& httpCode);
    bool canDownload(QString& msg, long long& code, long long& httpCode);

signals:
    void complete(CKXBlockTransfer* self, CKXBlockTask* task, int errorCode);
    void progress(CKXBlockTransfer* self, CKXBlockTask* task, long long delta, long long total);

protected:
    void run() override;

private:
    void uploadTask();
    void deliveryUploadTask();
    void downloadTask();
    void deliveryDownloadTask();

    // The upload path of both kinds: `query` asks the server for the block hash (and yields its
    // upload id), `send` sends the bytes under that upload id.
    using QueryCall = std::function<qint64(ServerApi::ResponseCallback)>;
    using SendCall = std::function<qint64(const QString& uploadId, ServerApi::ResponseCallback,
                                          ServerApi::UploadProgressCallback)>;
    void uploadBlock(const QueryCall& query, const SendCall& send);
    bool ensureHash();
    // The server holds the block already: nothing is sent.
    void quickTransfer();
    // Sends the block, read from the file while it goes out, and checks the hash the server computed.
    void sendBlock(const QString& uploadId, const SendCall& send);
    // The block's request: its bytes are streamed from its range of the local file.
    KXServerApiChunkedUploadModel blockModel(const QString& uploadId) const;
    // Opens the local file at the block's offset, with getBlockData()'s codes and logs on failure.
    int openBlock(QFile& file, QString& errMsg);
    // The same for any path and offset: getBlockData()'s way of opening, codes and logs included.
    int openForReading(QFile& file, const QString& path, long long loc, QString& errMsg);
    // The download path of both kinds: `fetch` starts the ranged request.
    using FetchCall = std::function<qint64(const QString& range, ServerApi::DataCallback,
                                           ServerApi::ResponseCallback, ServerApi::DownloadProgressCallback)>;
    void downloadBlock(const FetchCall& fetch);
    bool openAt(QFile& file, long long loc);
    // A failed write or flush of the downloaded bytes: the file's error code and text.
    struct FileFailure
    {
        int code = 0;
        QString text;
    };
    void downloadAnswered(const FileFailure& failure, const KXBaseParse& parser);

    // Starts a request through `call`, keeps its id for cancelTask(), and waits for the answer.
    void requestAndWait(const std::function<qint64(ServerApi::ResponseCallback)>& call, KXBaseParse& parser);
    void failFromParser(const KXBaseParse& parser);
    // True when the block was cancelled: the canceller has reported it, so the path just ends,
    // leaving the block paused rather than working or failed by the aborted request.
    bool stopForCancel();

    void compelteHandler();
    void errorHandler(ErrorCode code, QString msg, int statusCode);
    void cancelHandler();
    void progressHandler(long long now, long long total);
    void saveDB();
    // complete() goes out once per run, whichever of the handlers gets there first.
    void reportOnce(int errorCode);

    CKXBlockTask* m_task;
    CKXBlockMgr* m_mgr;
    CKXBlockHasher* m_hasher = nullptr;
    std::atomic<qint64> m_request{0};
    std::atomic<bool> m_reported{false};
    std::atomic<bool> m_cancelled{false};
};
