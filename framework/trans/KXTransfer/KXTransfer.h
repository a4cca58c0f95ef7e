#pragma once

// Base of every transfer class. One object carries one task on one thread of its own: run()
// loads any stored state, checks the task, dispatches to the derived class's uploadTask() or
// downloadTask(), and the task ends in exactly one of compelteHandler(), cancelHandler() or
// errorHandler(). Each records the outcome in the task store and database, calls the client's
// error callback (on this thread) and asks the thread to stop.
//
// Ownership: created by the factory or the manager, filed by the manager under a handle, deleted
// only by the finishing thread after threadFinished() (never by itself). Owns its task record.

#include "IKXTransferCallbacks.h"
#include "KXLoggerWrapper.h"
#include "KXTFBaseThread.h"
#include "KXTmpFileLock.h"
#include "KXTransferDefine.h"

#include <atomic>
#include <functional>

class CKXParseProcessor;
class CKXTransferTask;
class QFile;

class CKXTransfer : public CKXTFBaseThread
{
    Q_OBJECT
public:
    CKXTransfer(const SubTaskInfo& task, TransferErrorCallback errorCallback,
                TransferProgressCallback progressCallback);
    ~CKXTransfer() override;

    void threadEnd() override;

    virtual void setCallback(TransferErrorCallback errorCallback, TransferProgressCallback progressCallback);
    virtual void setHandle(long long handle);
    // Requests interruption and blocks the caller until run() has returned.
    virtual void cancelTask();
    // cancelTask(), then drops what is stored of the task (dropStoredState()); again when the
    // thread ends, for a transfer whose cancelTask() does not wait.
    virtual void del();
    virtual CKXTransferTask* transferTask();

    virtual bool localFileIsExist(const QString& path);
    virtual bool remoteFileIsExist(const SubTaskInfo& task);
    virtual bool canUpload(const SubTaskInfo& task, QString& message, long long& code, long long& httpCode);
    virtual bool canDownload(const SubTaskInfo& task, QString& message, long long& code, long long& httpCode);
    virtual qint64 metadata(const SubTaskInfo& task, std::function<void(const ResponseData&)> callback);
    virtual qint64 authUpload(const SubTaskInfo& task, std::function<void(const ResponseData&)> callback);
    virtual bool begin();
    virtual bool verifyTask(const SubTaskInfo& task, QString& message, long long& code, long long& httpCode);
    virtual void verifyTask();
    virtual void downloadTask();
    virtual void uploadTask();
    virtual bool renameTmpFile(ErrorCode& code, QString& message);
    virtual QString duplicateNameHandler(const QString& path);
    virtual void compelteHandler();
    virtual void cancelHandler();
    virtual void errorHandler(ErrorCode code, const QString& message, int httpCode);
    virtual void progressHandler(long long bytesDone, long long total);
    virtual void debugInfo();
    virtual void saveDB();

    long long handle() const { return m_handle; }

signals:
    void threadFinished(long long handle, CKXTransfer* transfer);

protected:
    void run() override;

    // Waits for a server answer through a pending request that the callback completes (see
    // CKXTFBaseThread::waitFor). `call` starts the request with the given completion callback and
    // returns its id, which is kept as the request in flight for abortRequest(). A request started
    // after a cancel is aborted at once, so that a cancelled task never goes on to its next step.
    void request(const std::function<qint64(ServerApi::ResponseCallback)>& call,
                 const std::function<void(const ResponseData&)>& onResponse);
    // Aborts the request in flight, if any; its completion then comes with ErrorCancelled.
    void abortRequest();
    // The cancel of the transfers that do not wait: requests interruption and aborts the request in
    // flight, so the task ends through its own handler soon after, on its own thread.
    void stopWithoutWaiting();
    // Removes the task's row; derived classes drop their own stored state too. Called from del()
    // on the client's thread and, after a del(), from threadEnd() on the transfer's thread.
    virtual void dropStoredState();

    // Reports a transfer event to the server's log and waits for the answer, which is ignored.
    void serverLogging(const QString& event, const SubTaskInfo& task);

    // The temporary file this task downloads into, beside its target and unique to the task.
    QString tmpFilePath() const;
    // Creates the temporary file when missing and holds it locked until renameTmpFile() or the
    // transfer's end. False with the system's error number when it cannot be had, or another
    // download (of this task, in another process) holds it.
    bool holdTmpFile(const QString& tmp, int& error);

    // How a whole-file download ends once its request has answered; see finishDownload().
    struct DownloadEnding
    {
        // The download that ran: every line logged here is recorded as its own.
        KXLogSite site;
        // The temporary file as this transfer wrote it, closed and deleted here; null where
        // ServerApi wrote the file itself.
        QFile* file = nullptr;
        // A failure the server answered ends the task with its HTTP status as the code (its error
        // code when there is no status); otherwise with its error code.
        bool statusAsCode = false;
        // Logged with the task id, the error code and message when the server failed the
        // download; empty logs nothing.
        QString failedText;
        // Logged with the task id once the download is complete: before the rename, or only
        // after a rename that succeeded.
        QString doneText;
        bool doneAfterRename = false;
    };
    // Ends a download in exactly one handler: a write error the flush reveals, then the server's
    // failure, go to errorHandler(); otherwise renameTmpFile() publishes the file and
    // compelteHandler() runs.
    void finishDownload(const DownloadEnding& ending, const CKXParseProcessor& parser);

    TransferErrorCallback m_errorCallback = nullptr;
    TransferProgressCallback m_progressCallback = nullptr;
    CKXTransferTask* m_task = nullptr;
    long long m_handle = 0;
    // The request in flight, 0 between requests; written on this thread, aborted from any.
    std::atomic<qint64> m_requestId{0};
    // The temporary file of a whole-file download in progress, set on this thread. A failed or
    // cancelled whole-file download restarts from byte 0, so errorHandler() removes it.
    QString m_partialFile;
    // Set by del(). A transfer whose cancelTask() does not wait may still end in a handler that
    // saves the task again; threadEnd() then removes that row once more.
    std::atomic<bool> m_deleted{false};
    CKXTmpFileLock m_tmpLock;
};

Q_DECLARE_METATYPE(CKXTransfer*)
