// Chunked uploads and downloads end to end: the engine against kxserver over real HTTP on a free
// loopback port. Content is compared by SHA-256 on both sides; the server's counters show which
// blocks travelled and how many requests were in flight at once. A client process killed with
// SIGKILL part-way and started again with the same task moves only the blocks not stored as done.

#include "KXE2eTest.h"
#include "KXRunnerProcess.h"
#include "KXTFStoreManager.h"
#include "KXTransferDB.h"
#include "KXUtil.h"

#include <QtTest>

using namespace KXChunkedE2e;

class TestChunkedTransfer : public KXE2eTest
{
    Q_OBJECT

private slots:
    void smallestChunkedFileBothWays();
    void largeFileKeepsTheConcurrencyLimit();
    void failedBlockResumes_data();
    void failedBlockResumes();
    void unwritableTargetFailsWithoutPartialFile();
    void zeroLimitStoresBlocksThatACommitStillNeeds();
    void cancelPausesRunningBlocksAndResumes();
    void killedRunMovesOnlyTheMissingBlocks_data();
    void killedRunMovesOnlyTheMissingBlocks();

private:
    // Cancels and, as a cancel returns before the transfer has ended, waits for the final callback
    // (none in time: calls 0), then for every transfer to be gone (the engine's shutdown waits
    // for them); sets the engine up again as init() left it. What the final callback reported.
    KXOutcomes::Outcome cancel(long long handle, const QString& id);
};

KXOutcomes::Outcome TestChunkedTransfer::cancel(long long handle, const QString& id)
{
    Transfer::cancel(handle);
    KXOutcomes::Outcome outcome;
    if (QTest::qWaitFor([&] { return KXOutcomes::get(id).calls > 0; }, kWait))
        outcome = KXOutcomes::get(id);
    Transfer::deinit();
    Transfer::setConfig(TransferConfigUserPath, QString());
    setLimit(4);
    return outcome;
}

// Two blocks, the second of one byte, both ways; the same content again under another name is a
// quick upload that moves no block.
void TestChunkedTransfer::smallestChunkedFileBothWays()
{
    const qint64 size = kBlock + 1;
    const QString source = m_dir->filePath(QStringLiteral("two.bin"));
    const QString sha = writeRandomFile(source, size, 1);
    const QString up = newId();
    KXOutcomes::Outcome outcome = run(uploadTask(up, source, QStringLiteral("/e2e/two.bin"), size));
    QCOMPARE(outcome.code, NoError);
    QCOMPARE(outcome.record.state, StateCompleted);
    QVERIFY(!outcome.record.isQuickTrans);
    QCOMPARE(stat("block_uploads"), 2);
    QCOMPARE(stat("block_bytes"), int(size));
    QCOMPARE(serverSha256(QStringLiteral("/e2e/two.bin")), sha);
    QVERIFY(StoredBlocks(up).list.isEmpty()); // a committed file keeps no block rows

    QVERIFY(m_server.resetStats());
    outcome = run(uploadTask(newId(), source, QStringLiteral("/e2e/two-again.bin"), size));
    QCOMPARE(outcome.code, NoError);
    QVERIFY(outcome.record.isQuickTrans);
    QCOMPARE(stat("block_uploads"), 0);
    QCOMPARE(stat("commits"), 1);
    QCOMPARE(serverSha256(QStringLiteral("/e2e/two-again.bin")), sha);

    QVERIFY(m_server.resetStats());
    const QString target = m_dir->filePath(QStringLiteral("back/two.bin"));
    const QString down = newId();
    outcome = run(downloadTask(down, QStringLiteral("/e2e/two.bin"), target, size));
    QCOMPARE(outcome.code, NoError);
    QCOMPARE(sha256Hex(readFile(target)), sha);
    QVERIFY(!QFile::exists(KXUtil::tmpFile(target, down)));
    QVERIFY(StoredBlocks(down).list.isEmpty());
    QCOMPARE(stat("downloads"), 2);
}

void TestChunkedTransfer::largeFileKeepsTheConcurrencyLimit()
{
    const int blocks = 6;
    const qint64 size = blocks * kBlock - 12345;
    const QString source = m_dir->filePath(QStringLiteral("large.bin"));
    const QString target = m_dir->filePath(QStringLiteral("large.copy"));
    const QString sha = writeRandomFile(source, size, 2);
    for (const bool upload : {true, false}) {
        QVERIFY(m_server.resetStats());
        // Slow answers keep several blocks in flight at once, so the limit is really tested.
        const char* op = upload ? "block_upload" : "download";
        QVERIFY(m_server.armFault({{"op", op}, {"action", "delay"}, {"ms", 150}, {"count", blocks}}));
        const KXOutcomes::Outcome outcome =
            run(upload ? uploadTask(newId(), source, QStringLiteral("/e2e/large.bin"), size)
                       : downloadTask(newId(), QStringLiteral("/e2e/large.bin"), target, size));
        QCOMPARE(outcome.code, NoError);
        QCOMPARE(outcome.record.sendBytes, size);
        QCOMPARE(stat(upload ? "block_uploads" : "downloads"), blocks);
        QVERIFY2(stat("inflight_max") <= 4 && stat("inflight_max") >= 2,
                 qPrintable(QString::number(stat("inflight_max"))));
    }
    QCOMPARE(serverSha256(QStringLiteral("/e2e/large.bin")), sha);
    QCOMPARE(sha256Hex(readFile(target)), sha);
}

void TestChunkedTransfer::failedBlockResumes_data()
{
    QTest::addColumn<bool>("upload");
    QTest::addColumn<int>("status"); // 0: the server stores the block under a wrong hash
    QTest::addColumn<int>("code");
    QTest::addColumn<bool>("edit");
    QTest::addColumn<int>("moved"); // blocks the second run sends or fetches
    QTest::newRow("upload refused") << true << 403 << int(Forbidden) << false << 1;
    // The server kept the bytes: the second run's hash query finds them.
    QTest::newRow("upload, server's hash wrong") << true << 0 << int(UploadHashError) << false << 0;
    QTest::newRow("upload, source edited in place") << true << 500 << int(ServerError) << true << 2;
    QTest::newRow("download, temporary file edited") << false << 500 << int(ServerError) << true << 2;
}

// The third of four blocks fails with the server's code (or the server's hash of it differs, which
// no HTTP status reports) and fails the task; the others stay done and a second run moves that
// block only. A block done in the first run whose bytes on disk changed since is moved again: the
// result is the file as it is now (upload) or as the server holds it (download), never a splice.
void TestChunkedTransfer::failedBlockResumes()
{
    QFETCH(bool, upload);
    QFETCH(int, status);
    QFETCH(int, code);
    QFETCH(bool, edit);
    QFETCH(int, moved);
    const qint64 size = 3 * kBlock + 11;
    const QString source = m_dir->filePath(QStringLiteral("edited.src"));
    const QString remote = QStringLiteral("/e2e/edited-%1.bin").arg(QTest::currentDataTag());
    const QString target = m_dir->filePath(QStringLiteral("edited.bin"));
    // Content of its own for each row: no block is on the server already.
    writeRandomFile(source, size, qHash(QString(QTest::currentDataTag())));
    if (!upload) {
        QVERIFY(m_server.putFile(remote, readFile(source)));
    }
    const SubTaskInfo task =
        upload ? uploadTask(newId(), source, remote, size) : downloadTask(newId(), remote, target, size);
    setLimit(1);
    QJsonObject fault{{"op", upload ? "block_upload" : "download"}, {"nth", 3}, {"action", "wrong_hash"}};
    if (status != 0) {
        fault.insert("action", "status");
        fault.insert("status", status);
        fault.insert("code", status == 403 ? "forbidden" : "internal");
    }
    QVERIFY(m_server.armFault(fault));
    KXOutcomes::Outcome outcome = run(task);
    QCOMPARE(int(outcome.code), code);
    QCOMPARE(outcome.record.state, StateError);
    QCOMPARE(outcome.record.httpCode, status);
    if (status == 0) {
        QCOMPARE(outcome.record.errorInfo, QStringLiteral("[TRANSFER] ChunkedUpload 文件hash 比对不一致"));
    }
    QCOMPARE(stat("commits"), 0);
    QCOMPARE(StoredBlocks(task.subTaskId).withState(BlockTaskStateCompleted), 3);

    if (edit) {
        // The first block changes; the size, and the time of the file, stay.
        QFile edited(upload ? source : KXUtil::tmpFile(target, task.subTaskId));
        const QDateTime modified = QFileInfo(edited).lastModified();
        QVERIFY(edited.open(QIODevice::ReadWrite) && edited.seek(100));
        QCOMPARE(edited.write("changed in place"), qint64(16));
        QVERIFY(edited.flush() && edited.setFileTime(modified, QFileDevice::FileModificationTime));
        edited.close();
    }
    QVERIFY(m_server.clearFaults());
    QVERIFY(m_server.resetStats());
    outcome = run(task);
    QCOMPARE(outcome.code, NoError);
    // The failed block, and the changed one.
    QCOMPARE(stat(upload ? "block_uploads" : "downloads"), moved);
    QCOMPARE(upload ? serverSha256(remote) : sha256Hex(readFile(target)), sha256Hex(readFile(source)));
}

void TestChunkedTransfer::unwritableTargetFailsWithoutPartialFile()
{
    const qint64 size = kBlock + 100;
    const QString source = m_dir->filePath(QStringLiteral("plain.bin"));
    const QString sha = writeRandomFile(source, size, 14);
    QVERIFY(m_server.putFile(QStringLiteral("/e2e/plain.bin"), readFile(source)));

    // A regular file stands where the target's folder would have to be.
    const QString target = source + QStringLiteral("/sub/plain.bin");
    const SubTaskInfo task = downloadTask(newId(), QStringLiteral("/e2e/plain.bin"), target, size);
    KXOutcomes::Outcome outcome = run(task);
    QCOMPARE(outcome.code, LocalFileError);
    QCOMPARE(outcome.record.state, StateError);
    QVERIFY(!QFile::exists(target));
    QVERIFY(!QFile::exists(KXUtil::tmpFile(target, task.subTaskId)));
    QCOMPARE(sha256Hex(readFile(source)), sha); // the file in the way is left alone
}

// With no blocks allowed a task stores its blocks, moves nothing and pauses when cancelled. Resumed
// with a block that its record claims but the server never got, its commit fails.
void TestChunkedTransfer::zeroLimitStoresBlocksThatACommitStillNeeds()
{
    const qint64 size = 3 * kBlock;
    const QString source = m_dir->filePath(QStringLiteral("stale.bin"));
    writeRandomFile(source, size, 6);
    const SubTaskInfo task = uploadTask(newId(), source, QStringLiteral("/e2e/stale.bin"), size);
    setLimit(0);
    const long long handle = start(task);
    // The one progress report of a chunked transfer comes as its blocks are queued.
    QTRY_VERIFY_WITH_TIMEOUT(KXOutcomes::get(task.subTaskId).progress == 1, kWait);
    KXOutcomes::Outcome outcome = cancel(handle, task.subTaskId);
    QCOMPARE(outcome.code, NoError);
    QCOMPARE(outcome.record.state, StatePaused);
    QCOMPARE(stat("hash_queries") + stat("block_uploads"), 0);
    {
        // The claimed block carries its true hash, so that the check of the file before a resume
        // keeps it.
        StoredBlocks stored(task.subTaskId);
        QCOMPARE(stored.list.size(), 3);
        CKXBlockTask* block = stored.list[1];
        block->setState(BlockTaskStateCompleted);
        block->setHash(KXUtil::SHA256(readFile(source).mid(kBlock, kBlock)));
        QVERIFY(CKXTFStoreManager::inst()->db()->AddBlockTask(*block));
    }
    outcome = run(task);
    QCOMPARE(outcome.code, UploadHashError);
    QCOMPARE(outcome.record.errorInfo, QStringLiteral("上传文件hash出错，需要重传"));
    QCOMPARE(outcome.record.state, StateError);
    QCOMPARE(stat("block_uploads"), 2);
    QCOMPARE(stat("commits"), 0); // counts files made, and none was
    QVERIFY(serverSha256(QStringLiteral("/e2e/stale.bin")).startsWith(QStringLiteral("status 404")));
}

void TestChunkedTransfer::cancelPausesRunningBlocksAndResumes()
{
    const qint64 size = 3 * kBlock;
    const QString source = m_dir->filePath(QStringLiteral("cancel.bin"));
    const QString sha = writeRandomFile(source, size, 7);
    const SubTaskInfo task = uploadTask(newId(), source, QStringLiteral("/e2e/cancel.bin"), size);
    setLimit(2);
    // Held long enough that both are still in flight when the cancel comes.
    QVERIFY(m_server.armFault({{"op", "block_upload"}, {"action", "delay"}, {"ms", 3000}, {"count", 2}}));
    const long long handle = start(task);
    // Both blocks were offered and both uploads are held: a hash query is in flight too while it
    // lasts, so "in flight" alone flickers.
    QVERIFY(m_server.waitForStats(
        [](const QJsonObject& now) {
            return now.value("hash_queries").toInt() >= 2 && now.value("inflight").toInt() >= 2;
        },
        kWait));
    KXOutcomes::Outcome outcome = cancel(handle, task.subTaskId);
    QCOMPARE(outcome.calls, 1);
    QCOMPARE(outcome.code, NoError);
    QCOMPARE(outcome.record.state, StatePaused);
    QCOMPARE(StoredBlocks(task.subTaskId).withState(BlockTaskStateCompleted), 0);

    QVERIFY(m_server.clearFaults());
    outcome = run(task);
    QCOMPARE(outcome.code, NoError);
    QCOMPARE(serverSha256(QStringLiteral("/e2e/cancel.bin")), sha);
}

void TestChunkedTransfer::killedRunMovesOnlyTheMissingBlocks_data()
{
    QTest::addColumn<bool>("upload");
    QTest::addColumn<bool>("link");
    QTest::newRow("upload") << true << false;
    QTest::newRow("download") << false << false;
    QTest::newRow("upload through a share link") << true << true;
}

void TestChunkedTransfer::killedRunMovesOnlyTheMissingBlocks()
{
    QFETCH(bool, upload);
    QFETCH(bool, link);
    const int blocks = 8;
    const qint64 size = blocks * kBlock - 3;
    const QString source = m_dir->filePath(QStringLiteral("source.bin"));
    const QString sha = writeRandomFile(source, size, qHash(QString(QTest::currentDataTag())));
    const QString code =
        link ? m_server.createShare(QStringLiteral("/resume"), true, QStringLiteral("pw")) : QString();
    // The server's path, and the task's: the path inside the link for a link's task.
    const QString onServer = QStringLiteral("/resume/in/%1.bin").arg(link ? "link" : "plain");
    const QString remote = link ? QStringLiteral("/in/link.bin") : onServer;
    const QString target = m_dir->filePath(QStringLiteral("target.bin"));
    const QString id = newId();
    QStringList args =
        KXRunnerProcess::args(m_server, id, upload ? source : target, remote, size, !upload, 1);
    if (link) {
        args << QStringLiteral("--share") << code << QStringLiteral("--password") << QStringLiteral("pw");
    } else if (!upload) {
        QVERIFY(m_server.putFile(remote, readFile(source)));
    }
    // Slow block answers leave time to kill the client between blocks.
    QVERIFY(m_server.armFault(
        {{"op", upload ? "block_upload" : "download"}, {"action", "delay"}, {"ms", 100}, {"count", 100}}));
    {
        KXRunnerProcess first(args);
        QTRY_VERIFY_WITH_TIMEOUT(StoredBlocks(id).withState(BlockTaskStateCompleted) >= 3, kWait);
        first.kill9();
    }
    const StoredBlocks stored(id);
    const int doneBefore = stored.withState(BlockTaskStateCompleted);
    QVERIFY2(doneBefore >= 3 && doneBefore < blocks, qPrintable(QString::number(doneBefore)));
    QCOMPARE(stat("commits"), 0);
    const QString tmp = KXUtil::tmpFile(target, id);
    if (!upload) {
        QVERIFY(QFile::exists(tmp) && !QFile::exists(target));
        // What the killed run finished is in place in the temporary file.
        const QByteArray sourceBytes = readFile(source);
        const QByteArray tmpBytes = readFile(tmp);
        for (CKXBlockTask* block : stored.list) {
            if (block->state() == BlockTaskStateCompleted) {
                QCOMPARE(tmpBytes.mid(block->loc(), block->length()),
                         sourceBytes.mid(block->loc(), block->length()));
            }
        }
    }

    QVERIFY(m_server.clearFaults());
    // The killed client's last request may still be held up by the server; let it end uncounted.
    QTRY_VERIFY_WITH_TIMEOUT(stat("inflight") == 0, kWait);
    QVERIFY(m_server.resetStats());
    KXRunnerProcess second(args);
    QCOMPARE(second.finish(kWait), QStringLiteral("done 0 64"));
    if (upload) {
        // The block in flight at the kill may have reached the server; its hash query then finds it.
        const int sent = stat("block_uploads");
        QVERIFY2(sent <= blocks - doneBefore && sent >= blocks - doneBefore - 1,
                 qPrintable(QStringLiteral("%1 blocks sent, %2 were done").arg(sent).arg(doneBefore)));
        QCOMPARE(stat("hash_queries"), blocks - doneBefore);
        QCOMPARE(stat("commits"), 1);
        QCOMPARE(serverSha256(onServer), sha);
    } else {
        QCOMPARE(stat("downloads"), blocks - doneBefore);
        QCOMPARE(sha256Hex(readFile(target)), sha);
        QVERIFY(!QFile::exists(tmp));
    }
}

QTEST_GUILESS_MAIN(TestChunkedTransfer)
#include "tst_ChunkedTransfer.moc"
