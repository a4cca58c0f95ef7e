#include "KXJobState.h"

#include <QDeadlineTimer>
#include <QThread>

void CKXJobState::onProgress(const SubTaskInfo& task, qint64 bytes)
{
    QMutexLocker locker(&m_mutex);
    m_bytes = qMax(m_bytes, bytes);
    m_size = task.size;
    m_changed.wakeAll();
}

void CKXJobState::onFinished(const SubTaskInfo& task, ErrorCode code)
{
    // The final callback runs on the transfer's own thread (a QThread); its finished() tells
    // when run() has returned and the outcome is saved.
    watchThread(QThread::currentThread());
    QMutexLocker locker(&m_mutex);
    m_final = task;
    m_code = code;
    m_size = task.size;
    m_finished = true;
    m_changed.wakeAll();
}

void CKXJobState::watchThread(QThread* thread)
{
    // No context object: a direct call on the finishing thread, after run() has returned.
    std::shared_ptr<CKXJobState> self = shared_from_this();
    QObject::connect(thread, &QThread::finished, [self]() { self->markThreadDone(); });
}

void CKXJobState::markThreadDone()
{
    QMutexLocker locker(&m_mutex);
    m_threadDone = true;
    m_changed.wakeAll();
}

qint64 CKXJobState::progressBytes() const
{
    QMutexLocker locker(&m_mutex);
    return m_bytes;
}

qint64 CKXJobState::knownSize() const
{
    QMutexLocker locker(&m_mutex);
    return m_size;
}

bool CKXJobState::waitFinished(int ms)
{
    QMutexLocker locker(&m_mutex);
    QDeadlineTimer deadline(ms);
    while (!m_finished && !deadline.hasExpired()) {
        m_changed.wait(&m_mutex, deadline);
    }
    return m_finished;
}

bool CKXJobState::waitThreadDone(int ms)
{
    QMutexLocker locker(&m_mutex);
    QDeadlineTimer deadline(ms);
    while (!m_threadDone && !deadline.hasExpired()) {
        m_changed.wait(&m_mutex, deadline);
    }
    return m_threadDone;
}

SubTaskInfo CKXJobState::finalTask() const
{
    QMutexLocker locker(&m_mutex);
    return m_final;
}

ErrorCode CKXJobState::finalCode() const
{
    QMutexLocker locker(&m_mutex);
    return m_code;
}
