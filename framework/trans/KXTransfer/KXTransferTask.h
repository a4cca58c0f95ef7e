#pragma once

#include "KXTransferDefine.h"

#include <QMutex>
#include <QString>
#include <QVector>

// One SubTaskInfo behind a mutex, so the database thread can read a task while its transfer
// thread updates it. Each transfer creates and owns one and deletes it with itself; any thread
// may call any accessor. m_mutex guards m_info; it is never held while calling out, and the JSON
// conversions work on a copy taken under the lock.
class CKXTransferTask
{
public:
    CKXTransferTask() = default;
    explicit CKXTransferTask(const SubTaskInfo& info);
    CKXTransferTask(const CKXTransferTask&) = delete;
    CKXTransferTask& operator=(const CKXTransferTask&) = delete;

    QString ToJson() const;
    // Replaces the record only when the text parses as a JSON object; returns whether it did.
    bool FromJson(const QString& json);

    SubTaskInfo getSubTaskInfo() const;
    void setSubTaskInfo(const SubTaskInfo& info);
    void clear();

    void setId(const QString& subTaskId);
    QString getId() const;
    void setFingerMark(const QString& mark);
    QString getFingerMark() const;
    void setIsMainSubTask(bool value);
    bool getIsMainSubTask() const;
    void setIsVirus(bool value);
    bool getIsVirus() const;
    void setTimeRetry(qint64 value);
    qint64 getTimeRetry() const;
    void setPassword(const QString& password);
    QString getPassword() const;
    void setNewMetadata(const QString& metadata);
    QString getNewMetadata() const;
    void setNewVaultPath(const QString& path);
    QString getNewVaultPath() const;

    void setSize(qint64 size);
    qint64 getSize() const;
    void setSendBytes(qint64 bytes);
    qint64 getSendBytes() const;
    void addSendBytes(qint64 delta);
    void setCompleteBytes(qint64 bytes);
    qint64 getCompleteBytes() const;
    void setCompleteTime(qint64 time);
    qint64 getCompleteTime() const;
    void setTransTime(qint64 time);
    qint64 getTransTime() const;

    void setErrorCode(ErrorCode code);
    ErrorCode getErrorCode() const;
    void setHttpCode(int code);
    int getHttpCode() const;
    void setTransferMethod(TaskTransferMethod method);
    TaskTransferMethod getTransferMethod() const;
    void setRSyncTransferState(RSyncTransferState state);
    RSyncTransferState getRSyncTransferState() const;
    void setTaskSource(TaskSource source);
    TaskSource getTaskSource() const;
    void setErrorInfo(const QString& info);
    QString getErrorInfo() const;
    void setDataServerHost(const QString& host);
    QString getDataServerHost() const;

    void setRemoteFileInfo(const RemoteFileInfo& remote);
    RemoteFileInfo getRemoteFileInfo() const;
    // Takes only the path and the time: the local size is fixed when the task is made.
    void setLocalFileInfo(const LocalFileInfo& local);
    LocalFileInfo getLocalFileInfo() const;
    void setPartSize(const QVector<int>& sizes);
    QVector<int> getPartSize() const;

    void setIsFolder(bool value);
    bool getIsFolder() const;
    void setIsUpload(bool value);
    bool getIsUpload() const;
    void setQuickTrans(bool value);
    bool getIsQuickTrans() const;
    void setChunckComplete(bool value);
    bool getIsChunckComplete() const;

    void setTaskState(TaskState state);
    void addTaskState(TaskState flags);
    void removeTaskState(TaskState flags);
    TaskState getTaskState() const;

private:
    mutable QMutex m_mutex;
    SubTaskInfo m_info;
};
