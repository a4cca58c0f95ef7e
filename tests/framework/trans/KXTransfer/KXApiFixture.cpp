#include "KXApiFixture.h"
#include "KXTestSql.h"

#include "ServerApiConfig.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QHash>
#include <QMutex>
#include <QTest>
#include <QUuid>

#include <atomic>

namespace {

QMutex g_recordsMutex;
QHash<long long, ApiTaskRecord> g_records; // guarded by g_recordsMutex

std::atomic<bool> g_readInFinal{false};

QMutex g_hookMutex;
ApiCallbackHook g_hook; // guarded by g_hookMutex

void runHook(long long handle, bool final)
{
    ApiCallbackHook hook;
    {
        QMutexLocker locker(&g_hookMutex);
        hook = g_hook;
    }
    if (hook) {
        hook(handle, final);
    }
}

void onFinal(long long handle, const SubTaskInfo& task, ErrorCode code)
{
    runHook(handle, true);
    SubTaskInfo stored;
    const bool read = g_readInFinal && Transfer::taskInfo(task.subTaskId, stored);
    QMutexLocker locker(&g_recordsMutex);
    ApiTaskRecord& record = g_records[handle];
    ++record.finals;
    record.code = code;
    record.task = task;
    record.readInFinal = read;
}

void onProgress(long long handle, const SubTaskInfo& task, long long bytes)
{
    Q_UNUSED(task)
    runHook(handle, false);
    QMutexLocker locker(&g_recordsMutex);
    ApiTaskRecord& record = g_records[handle];
    ++record.progress;
    record.lastBytes = bytes;
}

QString newId(const QString& prefix)
{
    return prefix + QUuid::createUuid().toString(QUuid::WithoutBraces);
}

} // namespace

CKXApiFixture::CKXApiFixture(const QStringList& serverArgs) : m_server(serverArgs) {}

CKXApiFixture::~CKXApiFixture()
{
    Transfer::deinit();
    // Closes the library's kept-alive connections, which would hold up the server's stop.
    ServerApi::shutdown();
}

bool CKXApiFixture::setUp()
{
    // The engine's database and logs follow these; nothing may reach the real home folder.
    qputenv("XDG_DATA_HOME", m_home.path().toUtf8() + "/data");
    qputenv("HOME", m_home.path().toUtf8());
    g_readInFinal = false;
    setCallbackHook(nullptr);
    {
        QMutexLocker locker(&g_recordsMutex);
        g_records.clear();
    }
    if (!m_home.isValid() || !m_work.isValid()) {
        m_error = QStringLiteral("no temporary folder");
        return false;
    }
    if (!m_server.start()) {
        m_error = m_server.errorString();
        return false;
    }
    configureServerApi(m_server.token());
    Transfer::setConfig(TransferConfigUserPath, QString());
    Transfer::setConfig(TransferConfigMaxConcurrentCount, QStringLiteral("4"));
    return true;
}

void CKXApiFixture::configureServerApi(const QString& sessionId)
{
    ServerApi::Config config;
    config.baseUrl = m_server.baseUrl();
    config.sessionId = sessionId;
    ServerApi::configure(config);
}

QString CKXApiFixture::localPath(const QString& name) const
{
    return m_work.filePath(name);
}

int CKXApiFixture::dbRowState(const QString& subTaskId) const
{
    return dbValue(QStringLiteral("SELECT state FROM transfer_v1 WHERE id = ?"), subTaskId);
}

int CKXApiFixture::dbBlockRows(const QString& subTaskId, int state) const
{
    const QString ofState = state < 0 ? QString() : QStringLiteral(" AND state = %1").arg(state);
    return dbValue(QStringLiteral("SELECT count(*) FROM block_v1 WHERE sub_task_id = ?") + ofState,
                   subTaskId);
}

// The first column of the first row `text` yields for `subTaskId`, -1 when there is none.
int CKXApiFixture::dbValue(const QString& text, const QString& subTaskId) const
{
    const QVariant value =
        sqlValue(m_home.path() + QStringLiteral("/data/Transfer/transfer.db"), text, {subTaskId});
    return value.isValid() ? value.toInt() : -1;
}

long long CKXApiFixture::init(const SubTaskInfo& task, bool isUrl)
{
    return Transfer::init(task, onFinal, onProgress, isUrl);
}

long long CKXApiFixture::start(const SubTaskInfo& task, bool isUrl)
{
    const long long handle = init(task, isUrl);
    Transfer::start(handle);
    return handle;
}

void CKXApiFixture::runToEnd(const SubTaskInfo& task, ApiTaskRecord* out, bool isUrl)
{
    waitToEnd(start(task, isUrl), out);
}

void CKXApiFixture::runAddressToEnd(const QString& address, const QString& localPath, ApiTaskRecord* out)
{
    const long long handle = Transfer::init(address, localPath, onFinal, onProgress);
    Transfer::start(handle);
    waitToEnd(handle, out);
}

void CKXApiFixture::waitToEnd(long long handle, ApiTaskRecord* out)
{
    QVERIFY(handle != 0);
    QTRY_VERIFY_WITH_TIMEOUT(record(handle).finals > 0, kFinishMs);
    QTRY_COMPARE_WITH_TIMEOUT(Transfer::transferCount(), 0, kFinishMs);
    *out = record(handle);
    QCOMPARE(out->finals, 1);
}

void CKXApiFixture::checkReadOnce(const QString& subTaskId, qint64 size)
{
    QCOMPARE(dbRowState(subTaskId), int(StateCompleted));
    SubTaskInfo info;
    QVERIFY(Transfer::taskInfo(subTaskId, info));
    QCOMPARE(info.state, StateCompleted);
    QCOMPARE(info.errorCode, NoError);
    QCOMPARE(info.completeBytes, size);
    SubTaskInfo again;
    QVERIFY(!Transfer::taskInfo(subTaskId, again));
    QCOMPARE(dbRowState(subTaskId), -1);
}

void CKXApiFixture::readTaskInFinalCallback(bool read)
{
    g_readInFinal = read;
}

void CKXApiFixture::setCallbackHook(ApiCallbackHook hook)
{
    QMutexLocker locker(&g_hookMutex);
    g_hook = std::move(hook);
}

ApiTaskRecord CKXApiFixture::record(long long handle)
{
    QMutexLocker locker(&g_recordsMutex);
    return g_records.value(handle);
}

SubTaskInfo CKXApiFixture::uploadTask(const QString& localPath, const QString& remotePath)
{
    SubTaskInfo task = downloadTask(remotePath, 0, localPath);
    task.isUpload = true;
    task.localFile.size = QFileInfo(localPath).size();
    return task;
}

SubTaskInfo CKXApiFixture::downloadTask(const QString& remotePath, qint64 size, const QString& localPath)
{
    SubTaskInfo task;
    task.taskId = newId(QStringLiteral("task-"));
    task.subTaskId = newId(QStringLiteral("sub-"));
    task.localFile.path = localPath;
    task.remoteFile.path = remotePath;
    task.remoteFile.pathType = QStringLiteral("self");
    task.remoteFile.size = size;
    return task;
}

bool CKXApiFixture::readRemoteFile(const QString& remotePath, QByteArray* content)
{
    const TestHttpReply reply = m_server.getFile(remotePath);
    *content = reply.body;
    return reply.status == 200;
}

bool CKXApiFixture::putRemoteFile(const QString& remotePath, const QByteArray& content)
{
    return m_server.putFile(remotePath, content);
}
