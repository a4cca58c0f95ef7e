// Whole-file transfers (up to 4 MiB) driven through the public API against a real kxserver, and
// downloads from plain addresses (a real nginx).

#include "KXApiFixture.h"
#include "KXNginxProcess.h"
#include "KXUtil.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonObject>
#include <QTemporaryDir>
#include <QTest>

#include <memory>

namespace {

const qint64 kOneBlock = 4194304;
const qint64 kOnePiB = qint64(1) << 50;

int statOf(CKXServerProcess& server, const char* name)
{
    return server.stats().value(QLatin1String(name)).toInt();
}

} // namespace

class TestApiComTransfer : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void cleanup();

    void roundTrip_data();
    void roundTrip();
    void nameCollisions();
    void failuresLeaveNothingBehind();
    void completedTaskIsNotRunAgain();

    void downloadsAddress();
    void failedAddressLeavesNothing_data();
    void failedAddressLeavesNothing();
    void uploadMarkedTaskStillDownloads();

private:
    SubTaskInfo smallUpload(const QString& name);
    QString publish(const QString& name, const QByteArray& content);

    QTemporaryDir m_www;
    KXNginxProcess m_nginx;
    std::unique_ptr<CKXApiFixture> m_env;
};

// One nginx serves the plain addresses of every case.
void TestApiComTransfer::initTestCase()
{
    QVERIFY(m_www.isValid());
    QVERIFY2(m_nginx.start(m_www.path()), qPrintable(m_nginx.errorString()));
}

void TestApiComTransfer::init()
{
    QStringList serverArgs;
    if (QByteArray(QTest::currentTestFunction()) == "uploadMarkedTaskStillDownloads") {
        // The authorisation answers this address as the data server of the upload.
        serverArgs << QStringLiteral("--public-url") << m_nginx.baseUrl() + QStringLiteral("/files/a.bin");
    }
    m_env.reset(new CKXApiFixture(serverArgs));
    QVERIFY2(m_env->setUp(), qPrintable(m_env->errorString()));
}

void TestApiComTransfer::cleanup()
{
    m_env.reset();
}

// A task uploading a new local file of 1000 bytes to /small/`name`.
SubTaskInfo TestApiComTransfer::smallUpload(const QString& name)
{
    const QString local = m_env->localPath(name);
    writeFile(local, randomBytes(1000));
    return CKXApiFixture::uploadTask(local, QStringLiteral("/small/") + name);
}

QString TestApiComTransfer::publish(const QString& name, const QByteArray& content)
{
    return writeFile(m_www.filePath(name), content) ? m_nginx.baseUrl() + QLatin1Char('/') + name : QString();
}

void TestApiComTransfer::roundTrip_data()
{
    QTest::addColumn<qint64>("size");
    QTest::newRow("empty") << qint64(0);
    QTest::newRow("exactly one block") << kOneBlock;
}

void TestApiComTransfer::roundTrip()
{
    QFETCH(qint64, size);
    CKXApiFixture& env = *m_env;
    const QByteArray content = randomBytes(size, int(size));
    const QString local = env.localPath(QStringLiteral("up.bin"));
    QVERIFY(writeFile(local, content));
    const QString remote = QStringLiteral("/round/trip-%1.bin").arg(size);
    QVERIFY(env.server().resetStats());

    const SubTaskInfo up = CKXApiFixture::uploadTask(local, remote);
    ApiTaskRecord upRecord;
    KX_RUN_TO_END(env, up, &upRecord, false);
    QCOMPARE(upRecord.code, NoError);
    QCOMPARE(upRecord.task.state, StateCompleted);
    QByteArray stored;
    QVERIFY(env.readRemoteFile(remote, &stored));
    QCOMPARE(sha256Hex(stored), sha256Hex(content));
    // Even 4194304 bytes travel whole, in one request.
    QCOMPARE(statOf(env.server(), "block_uploads"), 0);
    QCOMPARE(qint64(env.server().stats().value("file_upload_bytes").toDouble()), size);
    if (size == kOneBlock) {
        QVERIFY(upRecord.progress > 0);
        QVERIFY(upRecord.lastBytes <= size);
    }
    m_env->checkReadOnce(up.subTaskId, size);
    if (QTest::currentTestFailed()) {
        return;
    }

    // Into a folder that does not exist yet.
    const QString back = env.localPath(QStringLiteral("back/down.bin"));
    const SubTaskInfo down = CKXApiFixture::downloadTask(remote, size, back);
    ApiTaskRecord downRecord;
    KX_RUN_TO_END(env, down, &downRecord, false);
    QCOMPARE(downRecord.code, NoError);
    QVERIFY(QFile::exists(back));
    QCOMPARE(sha256Hex(readFile(back)), sha256Hex(content));
    QVERIFY(!QFile::exists(KXUtil::tmpFile(back, down.subTaskId)));
    if (size == kOneBlock) {
        QVERIFY(downRecord.progress > 0);
        QCOMPARE(downRecord.lastBytes, size);
    }
    m_env->checkReadOnce(down.subTaskId, size);
}

// Without overwrite a download takes the next free numbered name, beside the local file it would
// have replaced; with overwrite an upload replaces the remote file.
void TestApiComTransfer::nameCollisions()
{
    CKXApiFixture& env = *m_env;
    const QByteArray remoteContent("remote content\n");
    QVERIFY(env.putRemoteFile(QStringLiteral("/c/report.txt"), remoteContent));
    const QString local = env.localPath(QStringLiteral("report.txt"));
    QVERIFY(writeFile(local, "local original"));
    ApiTaskRecord record;
    KX_RUN_TO_END(env,
                  CKXApiFixture::downloadTask(QStringLiteral("/c/report.txt"), remoteContent.size(), local),
                  &record, false);
    QCOMPARE(record.code, NoError);
    QCOMPARE(readFile(env.localPath(QStringLiteral("report(1).txt"))), remoteContent);
    QCOMPARE(readFile(local), QByteArray("local original"));

    SubTaskInfo overwrite = CKXApiFixture::uploadTask(local, QStringLiteral("/c/report.txt"));
    overwrite.remoteFile.syncOverwrite = true;
    KX_RUN_TO_END(env, overwrite, &record, false);
    QCOMPARE(record.code, NoError);
    QByteArray stored;
    QVERIFY(env.readRemoteFile(QStringLiteral("/c/report.txt"), &stored));
    QCOMPARE(stored, QByteArray("local original"));
}

void TestApiComTransfer::failuresLeaveNothingBehind()
{
    CKXApiFixture& env = *m_env;
    // Local problems are found before a request is made.
    QVERIFY(env.server().resetStats());
    ApiTaskRecord missing;
    KX_RUN_TO_END(env,
                  CKXApiFixture::uploadTask(env.localPath(QStringLiteral("nothing.bin")), "/l/nothing.bin"),
                  &missing, false);
    QCOMPARE(missing.code, LocalFileError);
    QCOMPARE(missing.task.state, StateError);

    // More than any disk holds; the check happens before a byte is asked for.
    const QString huge = env.localPath(QStringLiteral("huge.bin"));
    ApiTaskRecord noSpace;
    const SubTaskInfo hugeTask = CKXApiFixture::downloadTask(QStringLiteral("/l/huge.bin"), kOnePiB, huge);
    KX_RUN_TO_END(env, hugeTask, &noSpace, false);
    QCOMPARE(noSpace.code, NoSpace);
    QVERIFY(!QFile::exists(huge));
    QVERIFY(!QFile::exists(KXUtil::tmpFile(huge, hugeTask.subTaskId)));
    QCOMPARE(statOf(env.server(), "requests"), 0);

    // A body of another length than the task's (the file changed since its size was learnt) is not
    // published.
    const QByteArray content = randomBytes(1 << 20);
    QVERIFY(env.putRemoteFile(QStringLiteral("/f/big.bin"), content));
    const QString kept = env.localPath(QStringLiteral("kept.bin"));
    QVERIFY(writeFile(kept, "previous version"));
    SubTaskInfo stale = CKXApiFixture::downloadTask(QStringLiteral("/f/big.bin"), content.size() + 1, kept);
    stale.remoteFile.syncOverwrite = true;
    ApiTaskRecord wrongSize;
    KX_RUN_TO_END(env, stale, &wrongSize, false);
    QCOMPARE(int(wrongSize.code), int(RenameTmpFileError));
    QCOMPARE(readFile(kept), QByteArray("previous version"));
}

// The stored row of a completed task alone decides: run again, the task ends at once, not even
// noticing that its local file is gone. A task read in its final callback is gone for good: the
// finished transfer must not write the row back afterwards.
void TestApiComTransfer::completedTaskIsNotRunAgain()
{
    CKXApiFixture& env = *m_env;
    const SubTaskInfo task = smallUpload(QStringLiteral("done.bin"));
    ApiTaskRecord record;
    KX_RUN_TO_END(env, task, &record, false);
    QCOMPARE(record.code, NoError);
    QVERIFY(QFile::remove(task.localFile.path));
    QVERIFY(env.server().resetStats());
    KX_RUN_TO_END(env, task, &record, false);
    QCOMPARE(record.code, NoError);
    QCOMPARE(record.task.state, StateCompleted);
    QCOMPARE(statOf(env.server(), "requests"), 0);
    m_env->checkReadOnce(task.subTaskId, 1000);

    const SubTaskInfo read = smallUpload(QStringLiteral("read.bin"));
    CKXApiFixture::readTaskInFinalCallback(true);
    KX_RUN_TO_END(env, read, &record, false);
    QCOMPARE(record.code, NoError);
    QVERIFY(record.readInFinal);
    QCOMPARE(env.dbRowState(read.subTaskId), -1);
    SubTaskInfo again;
    QVERIFY(!Transfer::taskInfo(read.subTaskId, again));
}

void TestApiComTransfer::downloadsAddress()
{
    const QByteArray content = randomBytes(300 * 1024);
    const QString url = publish(QStringLiteral("files/a.bin"), content);
    QVERIFY(!url.isEmpty());
    const QString local = m_env->localPath(QStringLiteral("a.bin"));
    SubTaskInfo task = CKXApiFixture::downloadTask(QString(), 0, local);
    task.dataServerHost = url;
    // Left over from an earlier attempt and longer than the file: it must be rewritten, not
    // appended to.
    QVERIFY(writeFile(KXUtil::tmpFile(local, task.subTaskId), randomBytes(512 * 1024, 7)));

    ApiTaskRecord record;
    KX_RUN_TO_END(*m_env, task, &record, true);
    QCOMPARE(record.code, NoError);
    QCOMPARE(sha256Hex(readFile(local)), sha256Hex(content));
    QVERIFY(!QFile::exists(KXUtil::tmpFile(local, task.subTaskId)));
    // The size is learnt from the download itself.
    QCOMPARE(record.task.size, qint64(content.size()));
    QVERIFY(record.progress > 0);
    m_env->checkReadOnce(record.task.subTaskId, content.size());
}

void TestApiComTransfer::failedAddressLeavesNothing_data()
{
    QTest::addColumn<QString>("address"); // "nginx" stands for that server's base
    QTest::addColumn<int>("httpCode");
    QTest::newRow("not found") << QStringLiteral("nginx/nope.bin") << 404;
    QTest::newRow("unsupported scheme") << QStringLiteral("gopher://127.0.0.1/f.bin") << 0;
}

// Nothing of a failed download stays on disk: a failed download starts from byte 0 again anyway.
void TestApiComTransfer::failedAddressLeavesNothing()
{
    QFETCH(QString, address);
    QFETCH(int, httpCode);
    address.replace(QStringLiteral("nginx"), m_nginx.baseUrl());
    const QString folder = m_env->localPath(QStringLiteral("got"));
    QVERIFY(QDir().mkpath(folder));

    ApiTaskRecord record;
    KX_RUN_ADDRESS_TO_END(*m_env, address, folder + QStringLiteral("/f.bin"), &record);
    // A plain address answers without a server error code: the failure is in the record.
    QCOMPARE(record.task.state, StateError);
    QCOMPARE(record.task.httpCode, httpCode);
    QCOMPARE(QDir(folder).entryList(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot), QStringList());
    QCOMPARE(record.task.subTaskId.size(),
             38); // the address form draws an id of its own
    QCOMPARE(m_env->dbRowState(record.task.subTaskId), int(StateError));
}

// An upload flag on a URL task still runs the upload checks (local file, authorisation), and the
// authorisation's data server becomes the address; then the address is downloaded.
void TestApiComTransfer::uploadMarkedTaskStillDownloads()
{
    const QByteArray content = randomBytes(100 * 1024, 3);
    QVERIFY(!publish(QStringLiteral("files/a.bin"), content).isEmpty());
    const QString local = m_env->localPath(QStringLiteral("a.bin"));
    QVERIFY(writeFile(local, "older local copy"));
    SubTaskInfo task = CKXApiFixture::uploadTask(local, QStringLiteral("/u/a.bin"));
    task.remoteFile.syncOverwrite = true;
    QVERIFY(m_env->server().resetStats());

    ApiTaskRecord record;
    KX_RUN_TO_END(*m_env, task, &record, true);
    QCOMPARE(record.code, NoError);
    QCOMPARE(sha256Hex(readFile(local)), sha256Hex(content));
    const QJsonObject stats = m_env->server().stats();
    QCOMPARE(stats.value("requests").toInt(), 1);
    QCOMPARE(stats.value("file_upload_bytes").toInt(), 0);
}

QTEST_GUILESS_MAIN(TestApiComTransfer)
#include "tst_api_KXComTransfer.moc"
