#include "KXTransferTask.h"

#include "KXJsonConvert.h"

#include <QMutexLocker>

CKXTransferTask::CKXTransferTask(const SubTaskInfo& info) : m_info(info) {}

QString CKXTransferTask::ToJson() const
{
    return CKXJsonConvert::SubTaskInfo2JsonString(getSubTaskInfo());
}

bool CKXTransferTask::FromJson(const QString& json)
{
    SubTaskInfo parsed;
    if (!CKXJsonConvert::JsonString2SubTaskInfo(json, parsed)) {
        return false;
    }
    setSubTaskInfo(parsed);
    return true;
}

SubTaskInfo CKXTransferTask::getSubTaskInfo() const
{
    QMutexLocker lock(&m_mutex);
    return m_info;
}

void CKXTransferTask::setSubTaskInfo(const SubTaskInfo& info)
{
    QMutexLocker lock(&m_mutex);
    m_info = info;
}

void CKXTransferTask::clear()
{
    QMutexLocker lock(&m_mutex);
    m_info.clear();
}

void CKXTransferTask::addSendBytes(qint64 delta)
{
    QMutexLocker lock(&m_mutex);
    m_info.sendBytes += delta;
}

void CKXTransferTask::setLocalFileInfo(const LocalFileInfo& local)
{
    QMutexLocker lock(&m_mutex);
    m_info.localFile.path = local.path;
    m_info.localFile.time = local.time;
}

LocalFileInfo CKXTransferTask::getLocalFileInfo() const
{
    QMutexLocker lock(&m_mutex);
    return m_info.localFile;
}

void CKXTransferTask::addTaskState(TaskState flags)
{
    QMutexLocker lock(&m_mutex);
    m_info.state = static_cast<TaskState>(m_info.state | flags);
}

void CKXTransferTask::removeTaskState(TaskState flags)
{
    QMutexLocker lock(&m_mutex);
    m_info.state = static_cast<TaskState>(m_info.state & ~flags);
}

void CKXTransferTask::setId(const QString& value)
{
    QMutexLocker lock(&m_mutex);
    m_info.subTaskId = value;
}

QString CKXTransferTask::getId() const
{
    QMutexLocker lock(&m_mutex);
    return m_info.subTaskId;
}

void CKXTransferTask::setFingerMark(const QString& value)
{
    QMutexLocker lock(&m_mutex);
    m_info.fingerMark = value;
}

QString CKXTransferTask::getFingerMark() const
{
    QMutexLocker lock(&m_mutex);
    return m_info.fingerMark;
}

void CKXTransferTask::setIsMainSubTask(bool value)
{
    QMutexLocker lock(&m_mutex);
    m_info.isMainSubTask = value;
}

bool CKXTransferTask::getIsMainSubTask() const
{
    QMutexLocker lock(&m_mutex);
    return m_info.isMainSubTask;
}

void CKXTransferTask::setIsVirus(bool value)
{
    QMutexLocker lock(&m_mutex);
    m_info.isVirus = value;
}

bool CKXTransferTask::getIsVirus() const
{
    QMutexLocker lock(&m_mutex);
    return m_info.isVirus;
}

void CKXTransferTask::setTimeRetry(qint64 value)
{
    QMutexLocker lock(&m_mutex);
    m_info.timeRetry = value;
}

qint64 CKXTransferTask::getTimeRetry() const
{
    QMutexLocker lock(&m_mutex);
    return m_info.timeRetry;
}

void CKXTransferTask::setPassword(const QString& value)
{
    QMutexLocker lock(&m_mutex);
    m_info.password = value;
}

QString CKXTransferTask::getPassword() const
{
    QMutexLocker lock(&m_mutex);
    return m_info.password;
}

void CKXTransferTask::setNewMetadata(const QString& value)
{
    QMutexLocker lock(&m_mutex);
    m_info.newMetadata = value;
}

QString CKXTransferTask::getNewMetadata() const
{
    QMutexLocker lock(&m_mutex);
    return m_info.newMetadata;
}

void CKXTransferTask::setNewVaultPath(const QString& value)
{
    QMutexLocker lock(&m_mutex);
    m_info.newVaultPath = value;
}

QString CKXTransferTask::getNewVaultPath() const
{
    QMutexLocker lock(&m_mutex);
    return m_info.newVaultPath;
}

void CKXTransferTask::setSize(qint64 value)
{
    QMutexLocker lock(&m_mutex);
    m_info.size = value;
}

qint64 CKXTransferTask::getSize() const
{
    QMutexLocker lock(&m_mutex);
    return m_info.size;
}

void CKXTransferTask::setSendBytes(qint64 value)
{
    QMutexLocker lock(&m_mutex);
    m_info.sendBytes = value;
}

qint64 CKXTransferTask::getSendBytes() const
{
    QMutexLocker lock(&m_mutex);
    return m_info.sendBytes;
}

void CKXTransferTask::setCompleteBytes(qint64 value)
{
    QMutexLocker lock(&m_mutex);
    m_info.completeBytes = value;
}

qint64 CKXTransferTask::getCompleteBytes() const
{
    QMutexLocker lock(&m_mutex);
    return m_info.completeBytes;
}

void CKXTransferTask::setCompleteTime(qint64 value)
{
    QMutexLocker lock(&m_mutex);
    m_info.completeTime = value;
}

qint64 CKXTransferTask::getCompleteTime() const
{
    QMutexLocker lock(&m_mutex);
    return m_info.completeTime;
}

void CKXTransferTask::setTransTime(qint64 value)
{
    QMutexLocker lock(&m_mutex);
    m_info.usedTime = value;
}

qint64 CKXTransferTask::getTransTime() const
{
    QMutexLocker lock(&m_mutex);
    return m_info.usedTime;
}

void CKXTransferTask::setErrorCode(ErrorCode value)
{
    QMutexLocker lock(&m_mutex);
    m_info.errorCode = value;
}

ErrorCode CKXTransferTask::getErrorCode() const
{
    QMutexLocker lock(&m_mutex);
    return m_info.errorCode;
}

void CKXTransferTask::setHttpCode(int value)
{
    QMutexLocker lock(&m_mutex);
    m_info.httpCode = value;
}

int CKXTransferTask::getHttpCode() const
{
    QMutexLocker lock(&m_mutex);
    return m_info.httpCode;
}

void CKXTransferTask::setTransferMethod(TaskTransferMethod value)
{
    QMutexLocker lock(&m_mutex);
    m_info.transMethod = value;
}

TaskTransferMethod CKXTransferTask::getTransferMethod() const
{
    QMutexLocker lock(&m_mutex);
    return m_info.transMethod;
}

void CKXTransferTask::setRSyncTransferState(RSyncTransferState value)
{
    QMutexLocker lock(&m_mutex);
    m_info.rsyncState = value;
}

RSyncTransferState CKXTransferTask::getRSyncTransferState() const
{
    QMutexLocker lock(&m_mutex);
    return m_info.rsyncState;
}

void CKXTransferTask::setTaskSource(TaskSource value)
{
    QMutexLocker lock(&m_mutex);
    m_info.taskSource = value;
}

TaskSource CKXTransferTask::getTaskSource() const
{
    QMutexLocker lock(&m_mutex);
    return m_info.taskSource;
}

void CKXTransferTask::setErrorInfo(const QString& value)
{
    QMutexLocker lock(&m_mutex);
    m_info.errorInfo = value;
}

QString CKXTransferTask::getErrorInfo() const
{
    QMutexLocker lock(&m_mutex);
    return m_info.errorInfo;
}

void CKXTransferTask::setDataServerHost(const QString& value)
{
    QMutexLocker lock(&m_mutex);
    m_info.dataServerHost = value;
}

QString CKXTransferTask::getDataServerHost() const
{
    QMutexLocker lock(&m_mutex);
    return m_info.dataServerHost;
}

void CKXTransferTask::setRemoteFileInfo(const RemoteFileInfo& value)
{
    QMutexLocker lock(&m_mutex);
    m_info.remoteFile = value;
}

RemoteFileInfo CKXTransferTask::getRemoteFileInfo() const
{
    QMutexLocker lock(&m_mutex);
    return m_info.remoteFile;
}

void CKXTransferTask::setPartSize(const QVector<int>& value)
{
    QMutexLocker lock(&m_mutex);
    m_info.partSizes = value;
}

QVector<int> CKXTransferTask::getPartSize() const
{
    QMutexLocker lock(&m_mutex);
    return m_info.partSizes;
}

void CKXTransferTask::setIsFolder(bool value)
{
    QMutexLocker lock(&m_mutex);
    m_info.isFolder = value;
}

bool CKXTransferTask::getIsFolder() const
{
    QMutexLocker lock(&m_mutex);
    return m_info.isFolder;
}

void CKXTransferTask::setIsUpload(bool value)
{
    QMutexLocker lock(&m_mutex);
    m_info.isUpload = value;
}

bool CKXTransferTask::getIsUpload() const
{
    QMutexLocker lock(&m_mutex);
    return m_info.isUpload;
}

void CKXTransferTask::setQuickTrans(bool value)
{
    QMutexLocker lock(&m_mutex);
    m_info.isQuickTrans = value;
}

bool CKXTransferTask::getIsQuickTrans() const
{
    QMutexLocker lock(&m_mutex);
    return m_info.isQuickTrans;
}

void CKXTransferTask::setChunckComplete(bool value)
{
    QMutexLocker lock(&m_mutex);
    m_info.isChunckComplete = value;
}

bool CKXTransferTask::getIsChunckComplete() const
{
    QMutexLocker lock(&m_mutex);
    return m_info.isChunckComplete;
}

void CKXTransferTask::setTaskState(TaskState value)
{
    QMutexLocker lock(&m_mutex);
    m_info.state = value;
}

TaskState CKXTransferTask::getTaskState() const
{
    QMutexLocker lock(&m_mutex);
    return m_info.state;
}
