#include "KXE2eTest.h"

#include "KXTFStoreManager.h"
#include "KXTransferDB.h"
#include "KXUtil.h"
#include "ServerApi.h"

#include <QUuid>
#include <QtTest>

namespace KXChunkedE2e {

QString newId()
{
    return QUuid::createUuid().toString(QUuid::WithoutBraces);
}

QString writeRandomFile(const QString& path, qint64 size, quint32 seed)
{
    const QByteArray data = randomBytes(size, seed);
    return writeFile(path, data) ? sha256Hex(data) : QString();
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

using namespace KXChunkedE2e;

QMutex KXOutcomes::m_mutex;
QWaitCondition KXOutcomes::m_final;
QMap<QString, KXOutcomes::Outcome> KXOutcomes::m_outcomes;

void KXOutcomes::onError(long long, const SubTaskInfo& record, ErrorCode code)
{
    QMutexLocker locker(&m_mutex);
    Outcome& outcome = m_outcomes[record.subTaskId];
    ++outcome.calls;
    outcome.code = code;
    outcome.record = record;
    m_final.wakeAll();
}

void KXOutcomes::onProgress(long long, const SubTaskInfo& record, long long)
{
    QMutexLocker locker(&m_mutex);
    ++m_outcomes[record.subTaskId].progress;
}

KXOutcomes::Outcome KXOutcomes::get(const QString& id)
{
    QMutexLocker locker(&m_mutex);
    return m_outcomes.value(id);
}

KXOutcomes::Outcome KXOutcomes::waitForFinal(const QString& id)
{
    QMutexLocker locker(&m_mutex);
    while (m_outcomes.value(id).calls == 0)
        m_final.wait(&m_mutex);
    return m_outcomes.value(id);
}

void KXE2eTest::initTestCase()
{
    QVERIFY(m_home.isValid());
    // The runner inherits these, so its database is the one this engine reads.
    qputenv("XDG_DATA_HOME", m_home.path().toUtf8());
    qputenv("HOME", m_home.path().toUtf8());
    QVERIFY2(m_server.start(), qPrintable(m_server.errorString()));
    configureServer(m_server.baseUrl(), m_server.token());
    Transfer::setConfig(TransferConfigUserPath, QString());
    CKXTFStoreManager::inst()->setDBPath(KXUtil::getUserPath(QStringLiteral("Transfer")));
}

void KXE2eTest::init()
{
    m_dir = std::make_unique<QTemporaryDir>();
    QVERIFY(m_dir->isValid());
    QVERIFY(m_server.resetStats());
    setLimit(4);
}

long long KXE2eTest::start(const SubTaskInfo& task)
{
    const long long handle = Transfer::init(task, &KXOutcomes::onError, &KXOutcomes::onProgress);
    if (handle != 0)
        Transfer::start(handle);
    return handle;
}

KXOutcomes::Outcome KXE2eTest::run(const SubTaskInfo& task)
{
    const int callsBefore = KXOutcomes::get(task.subTaskId).calls;
    KXOutcomes::Outcome outcome;
    outcome.code = ErrorCode(-1);
    if (start(task) != 0 &&
        QTest::qWaitFor([&] { return KXOutcomes::get(task.subTaskId).calls > callsBefore; }, kWait))
        outcome = KXOutcomes::get(task.subTaskId);
    return outcome;
}

QString KXE2eTest::serverSha256(const QString& remotePath)
{
    const TestHttpReply reply = m_server.getFile(remotePath);
    return reply.status == 200 ? sha256Hex(reply.body) : QStringLiteral("status %1").arg(reply.status);
}
