#include "KXBlockMgr.h"

#include <QMutexLocker>

bool CKXBlockMgr::isExistWaitingTask() const
{
    return !isEmpty(Waiting);
}

bool CKXBlockMgr::move(CKXBlockTask* task, Stage from, Stage to)
{
    bool added = false;
    {
        QMutexLocker source(&m_locks[from]);
        {
            QMutexLocker target(&m_locks[to]);
            added = m_queues[to].addTask(task);
            if (to == Running) {
                noteRunningCount();
            }
        }
        if (added) {
            m_queues[from].removeTask(task);
            if (from == Running) {
                noteRunningCount();
            }
        }
    }
    noteChange();
    return added;
}

bool CKXBlockMgr::moveWaitingToRunning(CKXBlockTask* task)
{
    return move(task, Waiting, Running);
}

bool CKXBlockMgr::moveRunningToComplete(CKXBlockTask* task)
{
    return move(task, Running, Complete);
}

bool CKXBlockMgr::moveRunningToError(CKXBlockTask* task)
{
    return move(task, Running, Error);
}

bool CKXBlockMgr::moveRunningToPause(CKXBlockTask* task)
{
    return move(task, Running, Pause);
}

bool CKXBlockMgr::moveWaitingToPause(CKXBlockTask* task)
{
    return move(task, Waiting, Pause);
}

bool CKXBlockMgr::moveAllErrorToWaiting()
{
    QList<CKXBlockTask*> failed;
    {
        QMutexLocker error(&m_locks[Error]);
        failed = m_queues[Error].getTask(-1);
        m_queues[Error].clear();
    }
    bool added = false;
    {
        QMutexLocker waiting(&m_locks[Waiting]);
        added = m_queues[Waiting].addTasks(failed);
    }
    noteChange();
    return added;
}

bool CKXBlockMgr::add(Stage stage, CKXBlockTask* task)
{
    bool added = false;
    {
        QMutexLocker locker(&m_locks[stage]);
        added = m_queues[stage].addTask(task);
        if (stage == Running) {
            noteRunningCount();
        }
    }
    noteChange();
    return added;
}

bool CKXBlockMgr::addWaitingQueueWithMutex(CKXBlockTask* task)
{
    return add(Waiting, task);
}

bool CKXBlockMgr::addCompleteQueueWithMutex(CKXBlockTask* task)
{
    return add(Complete, task);
}

bool CKXBlockMgr::addErrorQueueWithMutex(CKXBlockTask* task)
{
    return add(Error, task);
}

bool CKXBlockMgr::addRunningQueueWithMutex(CKXBlockTask* task)
{
    return add(Running, task);
}

bool CKXBlockMgr::addPasuseQueueWithMutex(CKXBlockTask* task)
{
    return add(Pause, task);
}

int CKXBlockMgr::count(Stage stage) const
{
    QMutexLocker locker(&m_locks[stage]);
    return m_queues[stage].getCount();
}

bool CKXBlockMgr::isEmpty(Stage stage) const
{
    QMutexLocker locker(&m_locks[stage]);
    return m_queues[stage].IsEmpty();
}

QList<CKXBlockTask*> CKXBlockMgr::tasks(Stage stage) const
{
    QMutexLocker locker(&m_locks[stage]);
    return m_queues[stage].getTask(-1);
}

CKXBlockTask* CKXBlockMgr::firstTask(Stage stage) const
{
    QMutexLocker locker(&m_locks[stage]);
    return m_queues[stage].IsEmpty() ? nullptr : m_queues[stage].getOneTask();
}

void CKXBlockMgr::noteRunningCount()
{
    m_runningHint.store(m_queues[Running].getCount(), std::memory_order_relaxed);
}

quint64 CKXBlockMgr::changeCount() const
{
    QMutexLocker locker(&m_changeLock);
    return m_changes;
}

void CKXBlockMgr::waitForChange(quint64 seen)
{
    QMutexLocker locker(&m_changeLock);
    while (m_changes == seen) {
        m_changed.wait(&m_changeLock);
    }
}

void CKXBlockMgr::wakeWaiters()
{
    noteChange();
}

void CKXBlockMgr::noteChange()
{
    QMutexLocker locker(&m_changeLock);
    ++m_changes;
    m_changed.wakeAll();
}
