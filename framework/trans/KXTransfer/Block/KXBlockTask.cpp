#include "KXBlockTask.h"

#include "KXBlockJsonConvert.h"

#include <QMutexLocker>

void BlockTaskInfo::clear()
{
    sent = 0;
    total = 0;
    errorCode = 0;
    length = 0;
    loc = 0;
    idx = 0;
    errorMsg.clear();
    hash.clear();
    subTaskId.clear();
    taskId.clear();
    isUpload = false;
    quickTrans = false;
    state = BlockTaskStateNone;
    subTaskInfo.clear();
}

CKXBlockTask::CKXBlockTask(const BlockTaskInfo& info) : m_info(info) {}

CKXBlockTask::~CKXBlockTask()
{
    QMutexLocker lock(&m_mutex);
    m_info.clear();
}

void CKXBlockTask::clear()
{
    QMutexLocker lock(&m_mutex);
    m_info.clear();
}

QString CKXBlockTask::ToJson() const
{
    return CKXBlockJsonConvert::BlockInfo2JsonString(getBlockTaskInfo());
}

bool CKXBlockTask::FromJson(const QString& json)
{
    BlockTaskInfo parsed;
    if (!CKXBlockJsonConvert::JsonString2BlockInfo(json, parsed)) {
        return false;
    }
    setBlockTaskInfo(parsed);
    return true;
}

bool CKXBlockTask::isSameTask(CKXBlockTask* other) const
{
    if (!other) {
        return false;
    }
    // One lock at a time, so two threads comparing the same pair in opposite order cannot deadlock.
    const QString otherId = other->taskId();
    return taskId() == otherId;
}

QString CKXBlockTask::taskId() const
{
    QMutexLocker lock(&m_mutex);
    return m_info.taskId;
}

void CKXBlockTask::setTaskId(const QString& value)
{
    QMutexLocker lock(&m_mutex);
    m_info.taskId = value;
}

QString CKXBlockTask::subTaskId() const
{
    QMutexLocker lock(&m_mutex);
    return m_info.subTaskId;
}

void CKXBlockTask::setSubTaskId(const QString& value)
{
    QMutexLocker lock(&m_mutex);
    m_info.subTaskId = value;
}

long long CKXBlockTask::length() const
{
    QMutexLocker lock(&m_mutex);
    return m_info.length;
}

void CKXBlockTask::setLength(long long value)
{
    QMutexLocker lock(&m_mutex);
    m_info.length = value;
}

long long CKXBlockTask::loc() const
{
    QMutexLocker lock(&m_mutex);
    return m_info.loc;
}

void CKXBlockTask::setLoc(long long value)
{
    QMutexLocker lock(&m_mutex);
    m_info.loc = value;
}

int CKXBlockTask::idx() const
{
    QMutexLocker lock(&m_mutex);
    return m_info.idx;
}

void CKXBlockTask::setIdx(int value)
{
    QMutexLocker lock(&m_mutex);
    m_info.idx = value;
}

bool CKXBlockTask::isUpload() const
{
    QMutexLocker lock(&m_mutex);
    return m_info.isUpload;
}

void CKXBlockTask::setIsUpload(bool value)
{
    QMutexLocker lock(&m_mutex);
    m_info.isUpload = value;
}

int CKXBlockTask::errorCode() const
{
    QMutexLocker lock(&m_mutex);
    return m_info.errorCode;
}

void CKXBlockTask::setErrorCode(int value)
{
    QMutexLocker lock(&m_mutex);
    m_info.errorCode = value;
}

int CKXBlockTask::statusCode() const
{
    QMutexLocker lock(&m_mutex);
    return m_info.statusCode;
}

void CKXBlockTask::setStatusCode(int value)
{
    QMutexLocker lock(&m_mutex);
    m_info.statusCode = value;
}

QString CKXBlockTask::errorMsg() const
{
    QMutexLocker lock(&m_mutex);
    return m_info.errorMsg;
}

void CKXBlockTask::setErrorMsg(const QString& value)
{
    QMutexLocker lock(&m_mutex);
    m_info.errorMsg = value;
}

QString CKXBlockTask::hash() const
{
    QMutexLocker lock(&m_mutex);
    return m_info.hash;
}

void CKXBlockTask::setHash(const QString& value)
{
    QMutexLocker lock(&m_mutex);
    m_info.hash = value;
}

BlockTaskState CKXBlockTask::state() const
{
    QMutexLocker lock(&m_mutex);
    return m_info.state;
}

void CKXBlockTask::setState(BlockTaskState value)
{
    QMutexLocker lock(&m_mutex);
    m_info.state = value;
}

long long CKXBlockTask::sent() const
{
    QMutexLocker lock(&m_mutex);
    return m_info.sent;
}

void CKXBlockTask::setSent(long long value)
{
    QMutexLocker lock(&m_mutex);
    m_info.sent = value;
}

long long CKXBlockTask::total() const
{
    QMutexLocker lock(&m_mutex);
    return m_info.total;
}

void CKXBlockTask::setTotal(long long value)
{
    QMutexLocker lock(&m_mutex);
    m_info.total = value;
}

bool CKXBlockTask::isQuickTrans() const
{
    QMutexLocker lock(&m_mutex);
    return m_info.quickTrans;
}

void CKXBlockTask::setQuickTrans(bool value)
{
    QMutexLocker lock(&m_mutex);
    m_info.quickTrans = value;
}

SubTaskInfo CKXBlockTask::info() const
{
    QMutexLocker lock(&m_mutex);
    return m_info.subTaskInfo;
}

void CKXBlockTask::setSubTaskInfo(const SubTaskInfo& value)
{
    QMutexLocker lock(&m_mutex);
    m_info.subTaskInfo = value;
}

BlockTaskInfo CKXBlockTask::getBlockTaskInfo() const
{
    QMutexLocker lock(&m_mutex);
    return m_info;
}

void CKXBlockTask::setBlockTaskInfo(const BlockTaskInfo& value)
{
    QMutexLocker lock(&m_mutex);
    m_info = value;
}
