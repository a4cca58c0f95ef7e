#include "KXChunkedE2e.h"

#include "KXTFStoreManager.h"
#include "KXTransferDB.h"
#include "ServerApi.h"

namespace KXChunkedE2e {

SubTaskInfo uploadTask(const QString& id, const QString& localPath, const QString& remotePath, qint64 size)
{
    SubTaskInfo task;
    task.subTaskId = id;
    task.taskId = id;
    task.isUpload = true;
    task.size = size;
    task.localFile.path = localPath;
    task.localFile.size = size;
    task.remoteFile.path = remotePath;
    task.remoteFile.pathType = QStringLiteral("self");
    task.remoteFile.syncOverwrite = true;
    return task;
}

SubTaskInfo downloadTask(const QString& id, const QString& remotePath, const QString& localPath, qint64 size)
{
    SubTaskInfo task = uploadTask(id, localPath, remotePath, size);
    task.isUpload = false;
    task.localFile.size = 0;
    task.remoteFile.size = size;
    return task;
}

SubTaskInfo throughLink(SubTaskInfo task, const QString& code, const QString& password)
{
    task.remoteFile.isDeliveryTrans = true;
    task.remoteFile.delivery.code = code;
    task.remoteFile.delivery.token = password;
    return task;
}

void configureServer(const QString& baseUrl, const QString& token)
{
    ServerApi::Config config = ServerApi::config();
    config.baseUrl = baseUrl;
    config.sessionId = token;
    ServerApi::configure(config);
}

StoredBlocks::StoredBlocks(const QString& id)
{
    CKXTFStoreManager::inst()->db()->LoadBlockTasks(id, list);
}

int StoredBlocks::withState(BlockTaskState state) const
{
    int n = 0;
    for (CKXBlockTask* block : list)
        n += block->state() == state ? 1 : 0;
    return n;
}

} // namespace KXChunkedE2e

QMutex KXOutcomes::m_mutex;
QMap<QString, KXOutcomes::Outcome> KXOutcomes::m_outcomes;

void KXOutcomes::onError(long long, const SubTaskInfo& record, ErrorCode code)
{
    QMutexLocker locker(&m_mutex);
    Outcome& outcome = m_outcomes[record.subTaskId];
    ++outcome.calls;
    outcome.code = code;
    outcome.record = record;
}

bool KXOutcomes::has(const QString& id)
{
    QMutexLocker locker(&m_mutex);
    return m_outcomes.contains(id);
}

KXOutcomes::Outcome KXOutcomes::get(const QString& id)
{
    QMutexLocker locker(&m_mutex);
    return m_outcomes.value(id);
}
