// Share-link transfers end to end through the public API against kxserver over real HTTP: a file
// of exactly 4 MiB travels whole, a larger one in blocks, into a folder link and out of folder and
// file links. Content is compared by SHA-256; the server's counters show which requests were made.
// A share-link upload killed with SIGKILL part-way resumes with the blocks not yet done.

#include "IKXTransfer.h"
#include "KXE2eTest.h"
#include "KXUtil.h"

#include <QtTest>

using namespace KXChunkedE2e;

namespace {

const qint64 kWhole = kBlock;            // the largest file that travels in one request
const qint64 kChunked = 2 * kBlock + 10; // three blocks, the last one short

} // namespace

class TestShareLinks : public KXE2eTest
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
};

void TestShareLinks::initTestCase()
{
    setUpWorld();
}

void TestShareLinks::init()
{
    setUpCase();
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
    const QStringList args = runnerArgs(id, source, QStringLiteral("/in/resume.bin"), size)
                             << QStringLiteral("--share") << code << QStringLiteral("--password")
                             << QStringLiteral("pw");
    // Slow block answers leave time to kill the client between blocks.
    QVERIFY(m_server.armFault({{"op", "block_upload"}, {"action", "delay"}, {"ms", 100}, {"count", 100}}));
    {
        KXRunnerProcess first(args);
        QTRY_VERIFY_WITH_TIMEOUT(first.blocksDone() >= 3, kWait);
        first.kill9();
    }
    // The runner shares this process's XDG_DATA_HOME, so its blocks are in this engine's database.
    const int doneBefore = StoredBlocks(id).withState(BlockTaskStateCompleted);
    QVERIFY2(doneBefore >= 3 && doneBefore < blocks, qPrintable(QString::number(doneBefore)));
    QCOMPARE(stat("commits"), 0);

    QVERIFY(m_server.clearFaults());
    QTRY_VERIFY_WITH_TIMEOUT(stat("inflight") == 0, kWait);
    QVERIFY(m_server.resetStats());
    KXRunnerProcess second(args);
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
