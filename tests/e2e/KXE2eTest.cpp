#include "KXE2eTest.h"

#include "KXTFStoreManager.h"
#include "KXTestHttp.h"
#include "KXUtil.h"

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

KXRunnerProcess::KXRunnerProcess(const QStringList& args)
{
    m_process.setProcessChannelMode(QProcess::ForwardedErrorChannel);
    m_process.start(QStringLiteral(KX_BIN_DIR "/kx_chunked_runner"), args);
}

int KXRunnerProcess::blocksDone()
{
    while (m_process.canReadLine()) {
        m_lastLine = QString::fromUtf8(m_process.readLine()).trimmed();
        if (m_lastLine.startsWith(QLatin1String("blocks_done ")))
            m_blocksDone = m_lastLine.mid(12).toInt();
    }
    return m_blocksDone;
}

QString KXRunnerProcess::finish()
{
    const bool ended = m_process.waitForFinished(kWait) && m_process.exitStatus() == QProcess::NormalExit;
    blocksDone(); // reads the last lines
    return ended ? m_lastLine : QString();
}

void KXRunnerProcess::kill9()
{
    if (m_process.state() == QProcess::NotRunning)
        return;
    m_process.kill(); // SIGKILL: no handler, no clean-up
    m_process.waitForFinished();
}

} // namespace KXChunkedE2e

using namespace KXChunkedE2e;

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
    const TestHttpReply reply = m_server.getFile(remotePath);
    return reply.status == 200 ? sha256Hex(reply.body) : QStringLiteral("status %1").arg(reply.status);
}

bool KXE2eTest::putRemote(const QString& remotePath, const QByteArray& content)
{
    return m_server.putFile(remotePath, content);
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
