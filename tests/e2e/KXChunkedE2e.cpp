#include "KXChunkedE2e.h"

#include "ServerApi.h"

#include <QCryptographicHash>
#include <QFile>
#include <QRandomGenerator>

namespace KXChunkedE2e {

QString writeRandomFile(const QString& path, qint64 size, quint32 seed)
{
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate)) {
        return QString();
    }
    QRandomGenerator random(seed);
    QCryptographicHash hash(QCryptographicHash::Sha256);
    QByteArray piece;
    for (qint64 left = size; left > 0;) {
        const int n = int(qMin<qint64>(left, 1 << 20));
        piece.resize(n);
        random.fillRange(reinterpret_cast<quint32*>(piece.data()), n / 4);
        for (int i = n - n % 4; i < n; ++i) {
            piece[i] = char(random.generate());
        }
        if (file.write(piece) != n) {
            return QString();
        }
        hash.addData(piece);
        left -= n;
    }
    return QString::fromLatin1(hash.result().toHex());
}

QString fileSha256(const QString& path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) {
        return QString();
    }
    QCryptographicHash hash(QCryptographicHash::Sha256);
    if (!hash.addData(&file)) {
        return QString();
    }
    return QString::fromLatin1(hash.result().toHex());
}

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
    SubTaskInfo task;
    task.subTaskId = id;
    task.taskId = id;
    task.isUpload = false;
    task.size = size;
    task.localFile.path = localPath;
    task.remoteFile.path = remotePath;
    task.remoteFile.pathType = QStringLiteral("self");
    task.remoteFile.size = size;
    task.remoteFile.syncOverwrite = true;
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
