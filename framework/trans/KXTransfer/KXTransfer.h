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
#include "KXTFBaseThread.h"
#include "KXTmpFileLock.h"
#include "KXTransferDefine.h"

#include <atomic>
#include <functional>

class CKXTransferTask;

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
