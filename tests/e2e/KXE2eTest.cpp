#include "KXE2eTest.h"

#include "IKXTransfer.h"
#include "KXTFStoreManager.h"
#include "KXTestHttp.h"
#include "KXTransferDB.h"

#include <QCryptographicHash>
#include <QUuid>
#include <QtTest>

namespace KXChunkedE2e {

QString newId()
{
    return QUuid::createUuid().toString(QUuid::WithoutBraces);
}

QByteArray fileBytes(const QString& path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

StoredBlocks::StoredBlocks(const QString& id)
{
    CKXTFStoreManager::inst()->db()->LoadBlockTasks(id, list);
}

StoredBlocks::~StoredBlocks()
{
    qDeleteAll(list);
}

int StoredBlocks::withState(BlockTaskState state) const
{
    int n = 0;
    for (CKXBlockTask* block : list)
        n += block->state() == state ? 1 : 0;
    return n;
}

KXRunnerProcess::KXRunnerProcess(const QStringList& args)
{
    m_process.setProcessChannelMode(QProcess::ForwardedErrorChannel);
    m_process.start(QStringLiteral(KX_BIN_DIR "/kx_chunked_runner"), args);
}

KXRunnerProcess::~KXRunnerProcess()
{
    if (m_process.state() != QProcess::NotRunning)
        kill9();
}

int KXRunnerProcess::blocksDone()
{
    readLines();
    return m_blocksDone;
}

int KXRunnerProcess::finish()
{
    const bool ended = m_process.waitForFinished(kWait) && m_process.exitStatus() == QProcess::NormalExit;
    readLines();
    return ended ? m_process.exitCode() : -1;
}

void KXRunnerProcess::kill9()
{
    m_process.kill(); // SIGKILL: no handler, no clean-up
    m_process.waitForFinished();
}

void KXRunnerProcess::readLines()
{
    while (m_process.canReadLine()) {
        m_lastLine = QString::fromUtf8(m_process.readLine()).trimmed();
        if (m_lastLine.startsWith(QLatin1String("blocks_done ")))
            m_blocksDone = m_lastLine.mid(12).toInt();
    }
}

} // namespace KXChunkedE2e

using namespace KXChunkedE2e;

void KXE2eTest::setUpWorld()
{
    QVERIFY(m_home.isValid());
    // The runner inherits these, so its database is the one this engine reads.
    qputenv("XDG_DATA_HOME", m_home.path().toUtf8());
    qputenv("HOME", m_home.path().toUtf8());
    QVERIFY2(m_server.start(), qPrintable(m_server.errorString()));
    configureServer(m_server.baseUrl(), m_server.token());
    Transfer::setConfig(TransferConfigUserPath, QString());
    Transfer::setConfig(TransferConfigMaxConcurrentCount, QStringLiteral("4"));
}

void KXE2eTest::setUpCase()
{
    m_dir = std::make_unique<QTemporaryDir>();
    QVERIFY(m_dir->isValid());
    QVERIFY(m_server.resetStats());
}

bool KXE2eTest::run(const SubTaskInfo& task, KXOutcomes::Outcome& outcome, const std::function<void()>& start)
{
    const int callsBefore = KXOutcomes::get(task.subTaskId).calls;
    if (start) {
        start();
    } else {
        const long long handle = Transfer::init(task, &KXOutcomes::onError, nullptr);
        if (handle == 0)
            return false;
        Transfer::start(handle);
    }
    if (!QTest::qWaitFor([&] { return KXOutcomes::get(task.subTaskId).calls > callsBefore; }, kWait))
        return false;
    outcome = KXOutcomes::get(task.subTaskId);
    return true;
}

QString KXE2eTest::serverSha256(const QString& remotePath)
{
    const TestHttpReply reply = CKXTestHttp::get(m_server.baseUrl() + QStringLiteral("/v1/files?path=") +
                                                     CKXTestHttp::encode(remotePath),
                                                 m_server.sessionHeader());
    if (reply.status != 200)
        return QStringLiteral("status %1").arg(reply.status);
    return QString::fromLatin1(QCryptographicHash::hash(reply.body, QCryptographicHash::Sha256).toHex());
}

bool KXE2eTest::putRemote(const QString& remotePath, const QByteArray& content)
{
    const TestHttpReply reply =
        CKXTestHttp::put(m_server.baseUrl() + QStringLiteral("/v1/files?overwrite=true&path=") +
                             CKXTestHttp::encode(remotePath),
                         content, m_server.sessionHeader());
    return reply.status == 200;
}

QStringList KXE2eTest::runnerArgs(const QString& id, const QString& local, const QString& remote,
                                  qint64 size) const
{
    return {QStringLiteral("--base"),        m_server.baseUrl(),
            QStringLiteral("--token"),       m_server.token(),
            QStringLiteral("--id"),          id,
            QStringLiteral("--local"),       local,
            QStringLiteral("--remote"),      remote,
            QStringLiteral("--size"),        QString::number(size),
            QStringLiteral("--concurrency"), QStringLiteral("1")};
}
