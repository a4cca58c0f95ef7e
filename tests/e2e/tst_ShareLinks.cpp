// Share-link transfers end to end through the public API against kxserver over real HTTP: a file
// of exactly 4 MiB travels whole, a larger one in blocks, into a folder link and out of folder and
// file links. Content is compared by SHA-256; the server's counters show which requests were made.
// A share-link upload killed with SIGKILL part-way resumes with the blocks not yet done.

#include "IKXTransfer.h"
#include "KXBlockTask.h"
#include "KXChunkedE2e.h"
#include "KXServerProcess.h"
#include "KXTFStoreManager.h"
#include "KXTestHttp.h"
#include "KXTransferDB.h"
#include "KXUtil.h"

#include <QCryptographicHash>
#include <QProcess>
#include <QTemporaryDir>
#include <QUuid>
#include <QtTest>

#include <memory>

using namespace KXChunkedE2e;

namespace {

const int kWait = 120000;
const qint64 kWhole = kBlock;            // the largest file that travels in one request
const qint64 kChunked = 2 * kBlock + 10; // three blocks, the last one short

QString newId()
{
    return QUuid::createUuid().toString(QUuid::WithoutBraces);
}

QByteArray fileBytes(const QString& path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

QString sha256Hex(const QByteArray& data)
{
    return QString::fromLatin1(QCryptographicHash::hash(data, QCryptographicHash::Sha256).toHex());
}

// One run of the runner executable; reads the "blocks_done" lines it prints.
class RunnerProcess
{
public:
    explicit RunnerProcess(const QStringList& args)
    {
        m_process.setProcessChannelMode(QProcess::ForwardedErrorChannel);
        m_process.start(QStringLiteral(KX_BIN_DIR "/kx_chunked_runner"), args);
    }
    ~RunnerProcess()
    {
        if (m_process.state() != QProcess::NotRunning) {
            m_process.kill();
            m_process.waitForFinished();
        }
    }
    int blocksDone()
    {
        readLines();
        return m_blocksDone;
    }
    // The exit code of a normal end within the time, -1 otherwise.
    int finish()
    {
        const bool ended = m_process.waitForFinished(kWait) && m_process.exitStatus() == QProcess::NormalExit;
        readLines();
        return ended ? m_process.exitCode() : -1;
    }
    void kill9()
    {
        m_process.kill();
        m_process.waitForFinished();
    }
    QString lastLine() const { return m_lastLine; }

private:
    void readLines()
    {
        while (m_process.canReadLine()) {
            m_lastLine = QString::fromUtf8(m_process.readLine()).trimmed();
            if (m_lastLine.startsWith(QLatin1String("blocks_done "))) {
                m_blocksDone = m_lastLine.mid(12).toInt();
            }
        }
    }

    QProcess m_process;
    int m_blocksDone = 0;
    QString m_lastLine;
};

} // namespace

class TestShareLinks : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void cleanup();

    void uploadIntoFolderLink_data();
    void uploadIntoFolderLink();
    void downloadFromFolderAndFileLinks_data();
    void downloadFromFolderAndFileLinks();
    void authorisationWithoutSessionKeepsTheStoredOne_data();
    void authorisationWithoutSessionKeepsTheStoredOne();
    void refusedLinksFailWithMappedCodes_data();
    void refusedLinksFailWithMappedCodes();
    void killedShareUploadSendsOnlyTheMissingBlocks();

private:
    void sizes();
    // Runs the task through the public API to its final callback; false on a time-out.
    bool run(const SubTaskInfo& task, KXOutcomes::Outcome& outcome);
    QString serverSha256(const QString& remotePath);
    bool putRemote(const QString& remotePath, const QByteArray& content);
    int stat(const char* name) { return m_server.stats().value(QLatin1String(name)).toInt(); }

    QTemporaryDir m_home;
    KXServerProcess m_server;
    std::unique_ptr<QTemporaryDir> m_dir;
};

void TestShareLinks::initTestCase()
{
    QVERIFY(m_home.isValid());
    qputenv("XDG_DATA_HOME", m_home.path().toUtf8());
    qputenv("HOME", m_home.path().toUtf8());
    QVERIFY2(m_server.start(), qPrintable(m_server.errorString()));
    configureServer(m_server.baseUrl(), m_server.token());
    Transfer::setConfig(TransferConfigUserPath, QString());
    Transfer::setConfig(TransferConfigMaxConcurrentCount, QStringLiteral("4"));
}

void TestShareLinks::init()
{
    m_dir = std::make_unique<QTemporaryDir>();
    QVERIFY(m_dir->isValid());
    QVERIFY(m_server.resetStats());
}

void TestShareLinks::cleanup()
{
    m_server.clearFaults();
}

void TestShareLinks::sizes()
{
    QTest::addColumn<qint64>("size");
    QTest::newRow("whole, 4 MiB") << kWhole;
    QTest::newRow("blocks, over 4 MiB") << kChunked;
}

bool TestShareLinks::run(const SubTaskInfo& task, KXOutcomes::Outcome& outcome)
{
    const int callsBefore = KXOutcomes::get(task.subTaskId).calls;
    const long long handle = Transfer::init(task, &KXOutcomes::onError, nullptr);
    if (handle == 0) {
        return false;
    }
    Transfer::start(handle);
    if (!QTest::qWaitFor([&] { return KXOutcomes::get(task.subTaskId).calls > callsBefore; }, kWait)) {
        return false;
    }
    outcome = KXOutcomes::get(task.subTaskId);
    return true;
}

QString TestShareLinks::serverSha256(const QString& remotePath)
{
    const TestHttpReply reply = CKXTestHttp::get(m_server.baseUrl() + QStringLiteral("/v1/files?path=") +
                                                     CKXTestHttp::encode(remotePath),
                                                 m_server.sessionHeader());
    return reply.status == 200 ? sha256Hex(reply.body) : QStringLiteral("status %1").arg(reply.status);
}

bool TestShareLinks::putRemote(const QString& remotePath, const QByteArray& content)
{
    const TestHttpReply reply =
        CKXTestHttp::put(m_server.baseUrl() + QStringLiteral("/v1/files?overwrite=true&path=") +
                             CKXTestHttp::encode(remotePath),
                         content, m_server.sessionHeader());
    return reply.status == 200;
}

void TestShareLinks::uploadIntoFolderLink_data()
{
    sizes();
}

// A new file, then a replacement that the link's overwrite flag allows, then one it does not.
void TestShareLinks::uploadIntoFolderLink()
{
    QFETCH(qint64, size);
    const bool chunked = size > kBlock;
    const QString code =
        m_server.createShare(QStringLiteral("/drop/%1").arg(size), true, QStringLiteral("pw"));
    QVERIFY(!code.isEmpty());
    const QString source = m_dir->filePath(QStringLiteral("up.bin"));
    QString sha = writeRandomFile(source, size, quint32(size) + 21);
    SubTaskInfo task = throughLink(uploadTask(newId(), source, QStringLiteral("/in/up.bin"), size), code,
                                   QStringLiteral("pw"));
    KXOutcomes::Outcome outcome;
    QVERIFY(run(task, outcome));
    QCOMPARE(int(outcome.code), int(NoError));
    QCOMPARE(outcome.record.state, StateCompleted);
    QVERIFY(!outcome.record.remoteFile.delivery.sessionId.isEmpty());
    QCOMPARE(serverSha256(QStringLiteral("/drop/%1/in/up.bin").arg(size)), sha);
    QCOMPARE(stat("file_uploads"), chunked ? 0 : 1);
    QCOMPARE(stat("block_uploads"), chunked ? 3 : 0);
    QCOMPARE(stat("commits"), chunked ? 1 : 0);

    sha = writeRandomFile(source, size, quint32(size) + 22);
    task = throughLink(uploadTask(newId(), source, QStringLiteral("/in/up.bin"), size), code,
                       QStringLiteral("pw"));
    task.remoteFile.delivery.overwrite = QStringLiteral("true");
    QVERIFY(run(task, outcome));
    QCOMPARE(int(outcome.code), int(NoError));
    QCOMPARE(serverSha256(QStringLiteral("/drop/%1/in/up.bin").arg(size)), sha);

    writeRandomFile(source, size, quint32(size) + 23);
    task.subTaskId = task.taskId = newId();
    task.remoteFile.delivery.overwrite = QStringLiteral("false");
    QVERIFY(run(task, outcome));
    QCOMPARE(int(outcome.code), int(TargetExists));
    QCOMPARE(serverSha256(QStringLiteral("/drop/%1/in/up.bin").arg(size)), sha);
}

void TestShareLinks::downloadFromFolderAndFileLinks_data()
{
    QTest::addColumn<qint64>("size");
    QTest::addColumn<bool>("fileLink");
    QTest::newRow("folder link, whole") << kWhole << false;
    QTest::newRow("folder link, blocks") << kChunked << false;
    QTest::newRow("file link, whole") << kWhole << true;
    QTest::newRow("file link, blocks") << kChunked << true;
}

void TestShareLinks::downloadFromFolderAndFileLinks()
{
    QFETCH(qint64, size);
    QFETCH(bool, fileLink);
    const bool chunked = size > kBlock;
    const QString source = m_dir->filePath(QStringLiteral("source.bin"));
    const QString sha = writeRandomFile(source, size, 31);
    QVERIFY(putRemote(QStringLiteral("/pub/sub/doc.bin"), fileBytes(source)));
    const QString code = m_server.createShare(
        fileLink ? QStringLiteral("/pub/sub/doc.bin") : QStringLiteral("/pub"), false, QStringLiteral("pw"));
    QVERIFY(!code.isEmpty());
    QVERIFY(m_server.resetStats());

    // Into a folder that does not exist yet.
    const QString target = m_dir->filePath(QStringLiteral("got/doc.bin"));
    const QString inShare = fileLink ? QString() : QStringLiteral("/sub/doc.bin");
    const SubTaskInfo task =
        throughLink(downloadTask(newId(), inShare, target, size), code, QStringLiteral("pw"));
    KXOutcomes::Outcome outcome;
    QVERIFY(run(task, outcome));
    QCOMPARE(int(outcome.code), int(NoError));
    QCOMPARE(fileSha256(target), sha);
    QVERIFY(!QFile::exists(KXUtil::tmpFile(target, task.subTaskId)));
    // Only the file's own requests (and, after blocks, the transfer's event report): a download
    // never asks the link for an upload session.
    QCOMPARE(stat("downloads"), chunked ? 3 : 1);
    QCOMPARE(stat("requests"), stat("downloads") + (chunked ? 1 : 0));
}

void TestShareLinks::authorisationWithoutSessionKeepsTheStoredOne_data()
{
    sizes();
}

// kxserver's "no_session" hook answers the authorisation without "session_id" (and without the
// cookie). The task goes on with the session it holds; without one the link refuses its data.
void TestShareLinks::authorisationWithoutSessionKeepsTheStoredOne()
{
    QFETCH(qint64, size);
    // A folder of its own for each size, so that the names below are new.
    const QString code = m_server.createShare(QStringLiteral("/kept/%1").arg(size), true);
    QVERIFY(!code.isEmpty());
    const QString first = m_dir->filePath(QStringLiteral("first.bin"));
    writeRandomFile(first, 1000, 41);
    KXOutcomes::Outcome opened;
    QVERIFY(run(throughLink(uploadTask(newId(), first, QStringLiteral("/first.bin"), 1000), code), opened));
    QCOMPARE(int(opened.code), int(NoError));
    const QString session = opened.record.remoteFile.delivery.sessionId;
    QVERIFY(!session.isEmpty());

    const QString source = m_dir->filePath(QStringLiteral("second.bin"));
    const QString sha = writeRandomFile(source, size, 42);
    QVERIFY(m_server.armFault({{"op", "share_auth"}, {"action", "no_session"}, {"count", 2}}));
    SubTaskInfo task = throughLink(uploadTask(newId(), source, QStringLiteral("/second.bin"), size), code);
    task.remoteFile.delivery.sessionId = session;
    KXOutcomes::Outcome outcome;
    QVERIFY(run(task, outcome));
    QCOMPARE(int(outcome.code), int(NoError));
    QCOMPARE(outcome.record.remoteFile.delivery.sessionId, session);
    QCOMPARE(outcome.record.remoteFile.delivery.lbc, QStringLiteral("kxserver"));
    QCOMPARE(serverSha256(QStringLiteral("/kept/%1/second.bin").arg(size)), sha);

    SubTaskInfo without = throughLink(uploadTask(newId(), source, QStringLiteral("/third.bin"), size), code);
    QVERIFY(run(without, outcome));
    QCOMPARE(int(outcome.code), int(SessionInvalid));
    QVERIFY(
        serverSha256(QStringLiteral("/kept/%1/third.bin").arg(size)).startsWith(QLatin1String("status 404")));
}

void TestShareLinks::refusedLinksFailWithMappedCodes_data()
{
    sizes();
}

void TestShareLinks::refusedLinksFailWithMappedCodes()
{
    QFETCH(qint64, size);
    const QString readOnly = m_server.createShare(QStringLiteral("/ro"), false, QStringLiteral("pw"));
    const QString open = m_server.createShare(QStringLiteral("/rw"), true, QStringLiteral("pw"));
    QVERIFY(!readOnly.isEmpty() && !open.isEmpty());
    const QString source = m_dir->filePath(QStringLiteral("refused.bin"));
    writeRandomFile(source, size, 51);
    const SubTaskInfo upload = uploadTask(newId(), source, QStringLiteral("/refused.bin"), size);
    QVERIFY(m_server.resetStats());

    struct Case
    {
        QString code;
        QString password;
        ErrorCode expected;
    };
    const QList<Case> uploads = {{QStringLiteral("nosuchcode"), QStringLiteral("pw"), SourceNotFound},
                                 {readOnly, QStringLiteral("pw"), Forbidden},
                                 {open, QStringLiteral("wrong"), SessionInvalid}};
    for (const Case& c : uploads) {
        SubTaskInfo task = throughLink(upload, c.code, c.password);
        task.subTaskId = task.taskId = newId();
        KXOutcomes::Outcome outcome;
        QVERIFY(run(task, outcome));
        QCOMPARE(int(outcome.code), int(c.expected));
        QCOMPARE(outcome.record.state, StateError);
    }
    // Refused at the authorisation: no hash was offered, no byte was sent.
    QCOMPARE(stat("hash_queries"), 0);
    QCOMPARE(stat("block_uploads"), 0);
    QCOMPARE(stat("file_uploads"), 0);
    QCOMPARE(stat("file_upload_bytes"), 0);
    QCOMPARE(stat("block_bytes"), 0);
    QVERIFY(serverSha256(QStringLiteral("/ro/refused.bin")).startsWith(QLatin1String("status 404")));

    QVERIFY(putRemote(QStringLiteral("/ro/doc.bin"), fileBytes(source)));
    const QList<Case> downloads = {{QStringLiteral("nosuchcode"), QStringLiteral("pw"), SourceNotFound},
                                   {readOnly, QStringLiteral("wrong"), SessionInvalid}};
    for (const Case& c : downloads) {
        const QString target = m_dir->filePath(QStringLiteral("refused.copy"));
        KXOutcomes::Outcome outcome;
        QVERIFY(run(
            throughLink(downloadTask(newId(), QStringLiteral("/doc.bin"), target, size), c.code, c.password),
            outcome));
        QCOMPARE(int(outcome.code), int(c.expected));
        QVERIFY(!QFile::exists(target));
    }
}

void TestShareLinks::killedShareUploadSendsOnlyTheMissingBlocks()
{
    const int blocks = 8;
    const qint64 size = blocks * kBlock - 5;
    const QString code = m_server.createShare(QStringLiteral("/resume"), true, QStringLiteral("pw"));
    QVERIFY(!code.isEmpty());
    const QString source = m_dir->filePath(QStringLiteral("resume.bin"));
    const QString sha = writeRandomFile(source, size, 61);
    const QString id = newId();
    const QStringList args = {QStringLiteral("--base"),        m_server.baseUrl(),
                              QStringLiteral("--token"),       m_server.token(),
                              QStringLiteral("--id"),          id,
                              QStringLiteral("--local"),       source,
                              QStringLiteral("--remote"),      QStringLiteral("/in/resume.bin"),
                              QStringLiteral("--size"),        QString::number(size),
                              QStringLiteral("--concurrency"), QStringLiteral("1"),
                              QStringLiteral("--share"),       code,
                              QStringLiteral("--password"),    QStringLiteral("pw")};
    // Slow block answers leave time to kill the client between blocks.
    QVERIFY(m_server.armFault({{"op", "block_upload"}, {"action", "delay"}, {"ms", 100}, {"count", 100}}));
    {
        RunnerProcess first(args);
        QTRY_VERIFY_WITH_TIMEOUT(first.blocksDone() >= 3, kWait);
        first.kill9();
    }
    // The runner shares this process's XDG_DATA_HOME, so its blocks are in this engine's database.
    QList<CKXBlockTask*> stored;
    CKXTFStoreManager::inst()->db()->LoadBlockTasks(id, stored);
    int doneBefore = 0;
    for (CKXBlockTask* block : stored) {
        doneBefore += block->state() == BlockTaskStateCompleted ? 1 : 0;
    }
    qDeleteAll(stored);
    QVERIFY2(doneBefore >= 3 && doneBefore < blocks, qPrintable(QString::number(doneBefore)));
    QCOMPARE(stat("commits"), 0);

    QVERIFY(m_server.clearFaults());
    QTRY_VERIFY_WITH_TIMEOUT(stat("inflight") == 0, kWait);
    QVERIFY(m_server.resetStats());
    RunnerProcess second(args);
    QCOMPARE(second.finish(), 0);
    QCOMPARE(second.lastLine(), QStringLiteral("done 0 64"));
    // The block in flight at the kill may have reached the server; its hash query then finds it.
    const int sent = stat("block_uploads");
    QVERIFY2(sent <= blocks - doneBefore && sent >= blocks - doneBefore - 1,
             qPrintable(QStringLiteral("%1 blocks sent, %2 were done").arg(sent).arg(doneBefore)));
    QCOMPARE(stat("hash_queries"), blocks - doneBefore);
    QCOMPARE(stat("commits"), 1);
    QCOMPARE(serverSha256(QStringLiteral("/resume/in/resume.bin")), sha);
}

QTEST_GUILESS_MAIN(TestShareLinks)
#include "tst_ShareLinks.moc"
