// Whole-file transfers (up to 4 MiB) driven through the public API against a real kxserver.

#include "KXApiFixture.h"
#include "KXUtil.h"

#include <QFile>
#include <QFileInfo>
#include <QJsonObject>
#include <QSemaphore>
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
    void init();
    void cleanup();

    void roundTrip_data();
    void roundTrip();
    void nameCollisions();
    void failedDownloadLeavesNoPartialFile();
    void localProblemsNeverReachServer();
    void delWaitsForFinishingThread();
    void storedCompleteTaskSkipsServer();
    void taskReadInFinalCallbackStaysGone();

private:
    SubTaskInfo smallUpload(const QString& name);

    std::unique_ptr<CKXApiFixture> m_env;
};

void TestApiComTransfer::init()
{
    m_env.reset(new CKXApiFixture);
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

void TestApiComTransfer::nameCollisions()
{
    CKXApiFixture& env = *m_env;
    const QByteArray remoteContent("remote content\n");
    QVERIFY(env.putRemoteFile(QStringLiteral("/c/report.txt"), remoteContent));
    const QString local = env.localPath(QStringLiteral("report.txt"));
    QVERIFY(writeFile(local, "local original"));

    // Without overwrite every download takes the next free numbered name.
    for (int n = 1; n <= 2; ++n) {
        ApiTaskRecord record;
        KX_RUN_TO_END(
            env, CKXApiFixture::downloadTask(QStringLiteral("/c/report.txt"), remoteContent.size(), local),
            &record, false);
        QCOMPARE(record.code, NoError);
        QCOMPARE(readFile(env.localPath(QStringLiteral("report(%1).txt").arg(n))), remoteContent);
    }
    QCOMPARE(readFile(local), QByteArray("local original"));

    SubTaskInfo replace =
        CKXApiFixture::downloadTask(QStringLiteral("/c/report.txt"), remoteContent.size(), local);
    replace.remoteFile.syncOverwrite = true;
    ApiTaskRecord replaced;
    KX_RUN_TO_END(env, replace, &replaced, false);
    QCOMPARE(replaced.code, NoError);
    QCOMPARE(readFile(local), remoteContent);
    QVERIFY(!QFile::exists(env.localPath(QStringLiteral("report(3).txt"))));

    // An upload onto an existing remote name is refused unless it may overwrite.
    const QString source = env.localPath(QStringLiteral("new.txt"));
    QVERIFY(writeFile(source, "new remote content"));
    ApiTaskRecord refused;
    KX_RUN_TO_END(env, CKXApiFixture::uploadTask(source, QStringLiteral("/c/report.txt")), &refused, false);
    QCOMPARE(refused.code, TargetExists);
    QByteArray stored;
    QVERIFY(env.readRemoteFile(QStringLiteral("/c/report.txt"), &stored));
    QCOMPARE(stored, remoteContent);

    SubTaskInfo overwrite = CKXApiFixture::uploadTask(source, QStringLiteral("/c/report.txt"));
    overwrite.remoteFile.syncOverwrite = true;
    ApiTaskRecord overwritten;
    KX_RUN_TO_END(env, overwrite, &overwritten, false);
    QCOMPARE(overwritten.code, NoError);
    QVERIFY(env.readRemoteFile(QStringLiteral("/c/report.txt"), &stored));
    QCOMPARE(stored, QByteArray("new remote content"));
}

void TestApiComTransfer::failedDownloadLeavesNoPartialFile()
{
    CKXApiFixture& env = *m_env;
    const QByteArray content = randomBytes(1 << 20);
    QVERIFY(env.putRemoteFile(QStringLiteral("/f/big.bin"), content));
    const QString kept = env.localPath(QStringLiteral("kept.bin"));
    QVERIFY(writeFile(kept, "previous version"));
    // A body of another length than the task's (the file changed since its size was learnt) is
    // not published.
    SubTaskInfo stale = CKXApiFixture::downloadTask(QStringLiteral("/f/big.bin"), content.size() + 1, kept);
    stale.remoteFile.syncOverwrite = true;
    ApiTaskRecord wrongSize;
    KX_RUN_TO_END(env, stale, &wrongSize, false);
    QCOMPARE(int(wrongSize.code), int(RenameTmpFileError));
    QCOMPARE(readFile(kept), QByteArray("previous version"));

    // A missing remote file; the whole-file download reports the HTTP status as its code.
    const QString fresh = env.localPath(QStringLiteral("fresh.bin"));
    ApiTaskRecord missing;
    KX_RUN_TO_END(env, CKXApiFixture::downloadTask(QStringLiteral("/f/missing.bin"), 10, fresh), &missing,
                  false);
    QCOMPARE(int(missing.code), 404);
    QCOMPARE(missing.task.httpCode, 404);
    QCOMPARE(missing.task.state, StateError);
    QVERIFY(!QFile::exists(fresh));
    QCOMPARE(env.dbRowState(missing.task.subTaskId), int(StateError));
}

void TestApiComTransfer::localProblemsNeverReachServer()
{
    CKXApiFixture& env = *m_env;
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
}

void TestApiComTransfer::delWaitsForFinishingThread()
{
    CKXApiFixture& env = *m_env;
    // The authorisation is held back, so the transfer is certainly still running at del(); the
    // final callback is held too, so the transfer certainly has not finished when it is counted.
    QVERIFY(env.server().armFault({{"op", "auth"}, {"action", "delay"}, {"ms", 2000}}));
    QSemaphore finalHeld;
    QSemaphore release;
    CKXApiFixture::setCallbackHook([&](long long, bool final) {
        if (final) {
            finalHeld.release();
            release.acquire();
        }
    });
    const SubTaskInfo task = smallUpload(QStringLiteral("del.bin"));
    const long long handle = CKXApiFixture::start(task);
    QTRY_VERIFY_WITH_TIMEOUT(statOf(env.server(), "inflight") > 0, kFinishMs);

    Transfer::del(handle);
    QVERIFY(finalHeld.tryAcquire(1, kFinishMs));
    // Unlike cancel(), del() leaves the handle to the finishing thread.
    QCOMPARE(Transfer::transferCount(), 1);
    release.release();
    QTRY_COMPARE_WITH_TIMEOUT(Transfer::transferCount(), 0, kFinishMs);
    CKXApiFixture::setCallbackHook(nullptr);
    QCOMPARE(CKXApiFixture::record(handle).finals, 1);
    QCOMPARE(env.dbRowState(task.subTaskId), -1);
    // A graceful stop would wait out the held authorisation, which nobody reads any more.
    env.server().kill9();
}

void TestApiComTransfer::storedCompleteTaskSkipsServer()
{
    CKXApiFixture& env = *m_env;
    const SubTaskInfo task = smallUpload(QStringLiteral("done.bin"));
    ApiTaskRecord first;
    KX_RUN_TO_END(env, task, &first, false);
    QCOMPARE(first.code, NoError);

    // The stored row alone decides: not even the missing local file is noticed.
    QVERIFY(QFile::remove(task.localFile.path));
    QVERIFY(env.server().resetStats());
    ApiTaskRecord second;
    KX_RUN_TO_END(env, task, &second, false);
    QCOMPARE(second.code, NoError);
    QCOMPARE(second.task.state, StateCompleted);
    QCOMPARE(statOf(env.server(), "requests"), 0);
    m_env->checkReadOnce(task.subTaskId, 1000);
}

void TestApiComTransfer::taskReadInFinalCallbackStaysGone()
{
    CKXApiFixture& env = *m_env;
    const SubTaskInfo task = smallUpload(QStringLiteral("read.bin"));
    CKXApiFixture::readTaskInFinalCallback(true);
    ApiTaskRecord record;
    KX_RUN_TO_END(env, task, &record, false);
    QCOMPARE(record.code, NoError);
    QVERIFY(record.readInFinal);
    // Read once is read once: the finished transfer must not write the row back afterwards.
    QCOMPARE(env.dbRowState(task.subTaskId), -1);
    SubTaskInfo again;
    QVERIFY(!Transfer::taskInfo(task.subTaskId, again));
}

QTEST_GUILESS_MAIN(TestApiComTransfer)
#include "tst_api_KXComTransfer.moc"
