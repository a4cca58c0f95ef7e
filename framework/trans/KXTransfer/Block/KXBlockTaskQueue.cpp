#include "KXBlockTaskQueue.h"

#include "KXBlockTask.h"

bool CKXBlockTaskQueue::addTask(CKXBlockTask* task)
{
    m_list.append(task);
    m_index.insert(task->taskId(), task);
    return true;
}

bool CKXBlockTaskQueue::addTasks(const QList<CKXBlockTask*>& tasks)
{
    for (CKXBlockTask* task : tasks) {
        addTask(task);
    }
    return true;
}

CKXBlockTask* CKXBlockTaskQueue::getOneTask() const
{
    return m_list.first();
}

QList<CKXBlockTask*> CKXBlockTaskQueue::getTask(int n) const
{
    if (n > 0 && m_list.size() >= n) {
        return m_list.mid(0, n);
    }
    return m_list;
}

void CKXBlockTaskQueue::removeTask(CKXBlockTask* task)
{
    m_list.removeOne(task);
    m_index.remove(task->taskId());
}

CKXBlockTask* CKXBlockTaskQueue::getTask(const QString& id) const
{
    return m_index.value(id, nullptr);
}

bool CKXBlockTaskQueue::isExistTask(const QString& id) const
{
    return m_index.contains(id);
}

bool CKXBlockTaskQueue::IsEmpty() const
{
    return m_list.isEmpty();
}

QString CKXBlockTaskQueue::getSameTask(CKXBlockTask* task) const
{
    for (CKXBlockTask* queued : m_list) {
        if (queued->isSameTask(task)) {
            return queued->taskId();
        }
    }
    return QString();
}

int CKXBlockTaskQueue::getCount() const
{
    return m_list.size();
}

void CKXBlockTaskQueue::clear()
{
    m_list.clear();
    m_index.clear();
}
