#pragma once

// Moves one large file in blocks of 4 MiB: has the file cut into blocks (or reloads them on a
// resumed task), lets the op queue run several block threads at once, waits in this thread's event
// loop until every block is done or has failed, and then finishes the file as a whole: an upload
// is committed from its block hashes, a download is renamed from its temporary file into place.
// Plain and share-link tasks go the same way.
//
// Created by the transfer factory, run and deleted like every transfer. For the length of a run it
// owns, and deletes with itself, the block list, the block manager, the block handler and the op
// queue; these are made on the transfer's thread, as is the early hasher it hands to the op queue.
// cancelTask() comes from a client thread (or from a callback on this one) and does not wait for
// this thread: it stops the op queue, aborts the running blocks' requests and this thread's own;
// the blocks are filed as paused and the run ends with cancelHandler(). A del() drops the stored
// blocks and the temporary file at once and again when the thread ends, after the last block has
// stopped writing.

#include "KXTransfer.h"

#include <QList>

#include <atomic>
#include <memory>

class CKXBlockHandler;
class CKXBlockHasher;
class CKXBlockMgr;
class CKXBlockOpQueue;
class CKXBlockTask;
class CKXCommitHashParse;

class CKXChunkedTransfer : public CKXTransfer
{
    Q_OBJECT
public:
    CKXChunkedTransfer(const SubTaskInfo& task, TransferErrorCallback errorCallback,
                       TransferProgressCallback progressCallback);
    ~CKXChunkedTransfer() override;

    void verifyTask() override;
    bool begin() override;
    void cancelTask() override;
    // After a cancel, a failure is the cancel's doing (an aborted authorisation or commit): the
    // task ends as cancelled, paused and resumable.
    void errorHandler(ErrorCode code, const QString& message, int httpCode) override;
    // Uploads into a share link are authorised by the link, not by the account.
    bool canUpload(const SubTaskInfo& task, QString& message, long long& code, long long& httpCode) override;
    bool deliveryCanUpload(const SubTaskInfo& task, QString& message, long long& code, long long& httpCode);

    void checkAllTasks();
    void handleErrorTask();
    void allBlocksComplete();
    void uploadTaskComplete();
    void deliveryUploadTaskComplete();
    void downloadTaskComplete();

private:
    // A download writes into its temporary file only while holding it; false: reported.
    bool holdTmpFileOrFail();
    // Blocks of an earlier run whose bytes on disk changed since are moved again, not trusted.
    void resetChangedBlocks();
    // A new upload hashes its first blocks while the server authorises it and the blocks are cut
    // and stored, so that the cores do not wait for that.
    void hashAheadOfBlocks(const SubTaskInfo& task);
    void runBlocks();
    // The loop ends when the engine has nothing left, or when a cancel has no block running any more.
    bool blockLoopDone() const;
    void finishBlocks();
    // The common end of both commits: the answer's verdict on the file.
    void commitAnswered(const CKXCommitHashParse& parser);
    // The file is in place: the task is stored complete, then its block rows go.
    void storeFileDone();
    void endIfCancelled();
    // The task's row, its stored blocks and a download's temporary file.
    void dropStoredState() override;

    QList<CKXBlockTask*> m_blocks;
    CKXBlockMgr* m_mgr = nullptr;
    CKXBlockHandler* m_handler = nullptr;
    std::atomic<CKXBlockOpQueue*> m_opQueue{nullptr};
    // Made by hashAheadOfBlocks(), handed to the op queue; on this transfer's thread only.
    std::unique_ptr<CKXBlockHasher> m_earlyHasher;
    std::atomic<bool> m_cancelRequested{false};
};
