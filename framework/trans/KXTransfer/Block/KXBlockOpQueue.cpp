#include "KXBlockOpQueue.h"

#include "KXBlockHandler.h"
#include "KXBlockHasher.h"
#include "KXBlockMgr.h"
#include "KXBlockTask.h"
#include "KXBlockTransfer.h"
#include "KXLoggerWrapper.h"

#include <QMetaType>
#include <QThread>

namespace {

// Ends and deletes a block thread that has left the map; whoever drops the last pointer deletes it.
void finishAndDelete(CKXBlockTransfer* transfer)
{
    if (transfer->isRunning()) {
        transfer->cancel();
        transfer->end();
    }
    delete transfer;
}

} // namespace

CKXBlockOpQueue::CKXBlockOpQueue(CKXBlockMgr* mgr, CKXBlockHandler* handler, int maxCount,
                                 std::unique_ptr<CKXBlockHasher> early)
    : m_mgr(mgr), m_handler(handler), m_maxCount(maxCount)
{
    // Block reports cross threads as queued calls carrying the block pointer.
    qRegisterMetaType<CKXBlockTask*>("CKXBlockTask*");
    // The waiting queue holds every block of this run now, in the order they will start.
    const QList<CKXBlockTask*> blocks = mgr->tasks(CKXBlockMgr::Waiting);
    if (blocks.isEmpty() || !blocks.first()->isUpload()) {
        return;
    }
    if (early && early->adopt(blocks)) {
        m_hasher = std::move(early);
    } else {
        m_hasher.reset(new CKXBlockHasher(blocks, blocks.first()->info().localFile.path, maxCount));
    }
}

CKXBlockOpQueue::~CKXBlockOpQueue()
{
    QMap<QString, TransferPtr> live;
    {
        QMutexLocker locker(&m_lock);
        live.swap(m_transfers);
    }
    // The pointers go out of scope here; each block thread is ended before it is deleted, and
    // before the hasher they may be waiting on.
}

void CKXBlockOpQueue::cancel()
{
    m_cancelled.store(true);
    CKXTFBaseThread::cancel();
    if (m_hasher) {
        m_hasher->stop();
    }
    m_mgr->wakeWaiters();
}

bool CKXBlockOpQueue::isCancelled()
{
    return m_cancelled.load() || CKXTFBaseThread::isCancelled();
}

void CKXBlockOpQueue::run()
{
    if (isCancelled()) {
        return;
    }
    if (m_hasher) {
        m_hasher->start(QThread::idealThreadCount());
    }
    while (!isCancelled()) {
        // Read before the look at the queues: a block that ends between the look and the wait
        // has already moved the count on, and the wait returns at once.
        const quint64 seen = m_mgr->changeCount();
        if (!canStartNext()) {
            // Nothing to start until a block ends or more wait: sleep, leaving the cores to the
            // block threads' hashing and sending.
            m_mgr->waitForChange(seen);
            continue;
        }
        CKXBlockTask* task = m_mgr->firstTask(CKXBlockMgr::Waiting);
        if (!task) {
            continue;
        }
        TLOG_FATAL(QStringLiteral("获取到等待的传输块 %1 %2").arg(task->idx()).arg(task->taskId()));
        startTransfer(m_mgr, task, m_handler);
        if (m_hasher) {
            m_hasher->noteStarted();
        }
    }
}

bool CKXBlockOpQueue::canStartNext() const
{
    if (!m_mgr->isExistWaitingTask()) {
        return false;
    }
    if (m_mgr->runningCountHint() >= m_maxCount) {
        return false;
    }
    const int waiting = m_mgr->count(CKXBlockMgr::Waiting);
    const int running = m_mgr->count(CKXBlockMgr::Running);
    return waiting >= 1 && running < m_maxCount;
}

void CKXBlockOpQueue::startTransfer(CKXBlockMgr* mgr, CKXBlockTask* task, CKXBlockHandler* handler)
{
    TransferPtr transfer(new CKXBlockTransfer(mgr, task), finishAndDelete);
    transfer->setHasher(m_hasher.get());
    // Its reports are handled, and it is deleted, on the chunked transfer's thread.
    transfer->moveToThread(thread());
    mgr->moveWaitingToRunning(task);
    {
        QMutexLocker locker(&m_lock);
        m_transfers.insert(task->taskId(), transfer);
    }
    // Filing comes before the handler hears of the block, so that a listener of the handler sees
    // the queues as they are after this block. Always queued: filing waits for the block thread,
    // which must never happen inside a report made on the thread that files.
    connect(transfer.get(), &CKXBlockTransfer::complete, this, &CKXBlockOpQueue::blockFinish,
            Qt::QueuedConnection);
    connect(transfer.get(), &CKXBlockTransfer::complete, handler, &CKXBlockHandler::blockComplete,
            Qt::QueuedConnection);
    connect(transfer.get(), &CKXBlockTransfer::progress, handler, &CKXBlockHandler::blockTransferring);
    transfer->start(QThread::InheritPriority);
}

void CKXBlockOpQueue::blockFinish(CKXBlockTransfer*, CKXBlockTask* task, int)
{
    TransferPtr transfer;
    {
        QMutexLocker locker(&m_lock);
        transfer = m_transfers.take(task->taskId());
    }
    if (transfer) {
        TLOG_FATAL(
            QStringLiteral("blockFinish sub task id:%1 block id%2").arg(task->subTaskId(), task->taskId()));
        // Waiting for the thread first means the block is filed by its final state.
        transfer->cancel();
        transfer->end();
        transfer.reset();
    }
    fileByState(task);
    checkStatus();
}

void CKXBlockOpQueue::fileByState(CKXBlockTask* task)
{
    switch (task->state()) {
    case BlockTaskStateCompleted:
        m_mgr->moveRunningToComplete(task);
        break;
    case BlockTaskStateError:
        m_mgr->moveRunningToError(task);
        break;
    case BlockTaskStatePaused:
        m_mgr->moveRunningToPause(task);
        break;
    default:
        break;
    }
}

void CKXBlockOpQueue::checkStatus()
{
    if (!m_mgr->isEmpty(CKXBlockMgr::Waiting) || !m_mgr->isEmpty(CKXBlockMgr::Running)) {
        return;
    }
    TLOG_FATAL(QStringLiteral("等待和运行队列中没有任务了"));
    if (!m_mgr->isEmpty(CKXBlockMgr::Error)) {
        TLOG_FATAL(QStringLiteral("有出错任务"));
    }
    TLOG_FATAL(QStringLiteral("所有块任务全部完成"));
    cancel();
    QThread::currentThread()->exit(0);
}

void CKXBlockOpQueue::cancelTask()
{
    QList<TransferPtr> live;
    {
        QMutexLocker locker(&m_lock);
        TLOG_FATAL(QStringLiteral("cancel block queue"));
        live = m_transfers.values();
    }
    for (const TransferPtr& transfer : live) {
        if (transfer->isRunning()) {
            transfer->cancelTask();
        }
    }
}
