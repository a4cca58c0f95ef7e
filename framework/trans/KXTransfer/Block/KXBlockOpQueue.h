#pragma once

// The dispatcher of one chunked transfer: a thread that takes blocks from the waiting queue and
// starts one block thread per block, never more than maxCount at once. When a block thread reports,
// blockFinish() files the block by its state; when nothing is waiting or running any more it stops
// itself and ends the event loop of the chunked transfer's thread.
//
// An upload's blocks are hashed ahead of their threads by a CKXBlockHasher, which the op queue
// starts with its loop: the one the chunked transfer started early for these blocks, or else one
// it creates with itself.
//
// Created, started and deleted by the chunked transfer; lives on (has its slots run on) the chunked
// transfer's thread. Owns the live block threads and the hasher; neither the block manager nor the
// handler.
// m_lock guards m_transfers and is never held while calling out: a block thread is kept alive by its
// shared pointer while someone outside the lock uses it.

#include "KXTFBaseThread.h"

#include <QMap>
#include <QMutex>
#include <QString>

#include <atomic>
#include <memory>

class CKXBlockHandler;
class CKXBlockHasher;
class CKXBlockMgr;
class CKXBlockTask;
class CKXBlockTransfer;

class CKXBlockOpQueue : public CKXTFBaseThread
{
    Q_OBJECT
public:
    // `early`: a hasher started from the file's size before the blocks were cut, or null.
    CKXBlockOpQueue(CKXBlockMgr* mgr, CKXBlockHandler* handler, int maxCount,
                    std::unique_ptr<CKXBlockHasher> early = nullptr);
    ~CKXBlockOpQueue() override;

    // Stops the dispatch loop; also before the thread has started, unlike a bare interruption request.
    void cancel() override;
    bool isCancelled() override;

    // Cancels every running block thread; each then reports and is filed as paused.
    void cancelTask();

public slots:
    void blockFinish(CKXBlockTransfer* transfer, CKXBlockTask* task, int errorCode);

protected:
    void run() override;

private:
    using TransferPtr = std::shared_ptr<CKXBlockTransfer>;

    // Whether a waiting block may start now.
    bool canStartNext() const;
    void startTransfer(CKXBlockMgr* mgr, CKXBlockTask* task, CKXBlockHandler* handler);
    void fileByState(CKXBlockTask* task);
    void checkStatus();

    CKXBlockMgr* m_mgr;
    CKXBlockHandler* m_handler;
    mutable QMutex m_lock;
    QMap<QString, TransferPtr> m_transfers;
    int m_maxCount;
    std::atomic<bool> m_cancelled{false};
    std::unique_ptr<CKXBlockHasher> m_hasher; // set once by the constructor
};
