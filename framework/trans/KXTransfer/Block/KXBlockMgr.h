#pragma once

// The five stages of one chunked transfer's blocks: waiting, running, complete, error and paused,
// each queue behind its own mutex, and the moves between them.
//
// Created and deleted by the chunked transfer (one per transfer); the op-queue thread, the chunked
// transfer's thread and the block threads all use it. m_locks[s] guards m_queues[s]. A move locks
// its source, then its target; stages are locked only in the order of the Stage enumeration (an
// earlier stage before a later one), so moves cannot deadlock. The manager never deletes a block.
// m_changeLock guards m_changes and is taken only after every stage lock has been released: a
// waiter in waitForChange() sleeps until some queue changed, with nothing spinning meanwhile.

#include "KXBlockTaskQueue.h"

#include <QList>
#include <QMutex>
#include <QWaitCondition>

#include <atomic>

class CKXBlockTask;

class CKXBlockMgr
{
public:
    enum Stage
    {
        Waiting = 0,
        Running,
        Complete,
        Error,
        Pause,
        StageCount
    };

    CKXBlockMgr() = default;
    CKXBlockMgr(const CKXBlockMgr&) = delete;
    CKXBlockMgr& operator=(const CKXBlockMgr&) = delete;

    bool isExistWaitingTask() const;

    // Each adds to the target, then removes from the source: a block moving between two queues is
    // briefly in both, never in neither. A block missing from the source is still added.
    bool moveWaitingToRunning(CKXBlockTask* task);
    bool moveRunningToComplete(CKXBlockTask* task);
    bool moveRunningToError(CKXBlockTask* task);
    bool moveRunningToPause(CKXBlockTask* task);
    bool moveWaitingToPause(CKXBlockTask* task);
    // Empties the error queue into the waiting queue; never holds both locks.
    bool moveAllErrorToWaiting();

    bool addWaitingQueueWithMutex(CKXBlockTask* task);
    bool addCompleteQueueWithMutex(CKXBlockTask* task);
    bool addErrorQueueWithMutex(CKXBlockTask* task);
    bool addRunningQueueWithMutex(CKXBlockTask* task);
    bool addPasuseQueueWithMutex(CKXBlockTask* task);

    // Reads of one queue, each under that queue's lock.
    int count(Stage stage) const;
    bool isEmpty(Stage stage) const;
    QList<CKXBlockTask*> tasks(Stage stage) const;
    // The first block of the stage, or null when it is empty.
    CKXBlockTask* firstTask(Stage stage) const;

    // The running count as of the last change, readable without any lock: the dispatcher's fast
    // path. Decisions are taken again under the locks.
    int runningCountHint() const { return m_runningHint.load(std::memory_order_relaxed); }

    // How many times the queues changed so far. A dispatcher reads it before looking at the queues
    // and passes it to waitForChange(), so that a change made between its look and its wait is
    // never slept through.
    quint64 changeCount() const;
    // Sleeps until the queues changed after `seen` or wakeWaiters() was called.
    void waitForChange(quint64 seen);
    // Wakes every waiter without a change to the queues: a cancel that must be noticed.
    void wakeWaiters();

private:
    bool move(CKXBlockTask* task, Stage from, Stage to);
    bool add(Stage stage, CKXBlockTask* task);
    // Called with the running lock held after the running queue changed.
    void noteRunningCount();
    void noteChange();

    mutable QMutex m_locks[StageCount];
    CKXBlockTaskQueue m_queues[StageCount];
    std::atomic<int> m_runningHint{0};
    mutable QMutex m_changeLock;
    QWaitCondition m_changed;
    quint64 m_changes = 0;
};
