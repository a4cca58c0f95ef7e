// Chunked uploads and downloads end to end: the engine against kxserver over real HTTP on a free
// loopback port. Content is compared by SHA-256 on both sides; the server's counters show which
// blocks travelled and how many requests were in flight at once.

#include "IKXTransfer.h"
#include "KXBlockBuilder.h"
#include "KXBlockHandler.h"
#include "KXBlockMgr.h"
#include "KXBlockOpQueue.h"
#include "KXBlockTask.h"
#include "KXChunkedTransfer.h"
#include "KXE2eTest.h"
#include "KXTFStoreManager.h"
#include "KXTransferDB.h"
#include "KXTransferManager.h"
#include "KXTransferTask.h"
#include "KXUtil.h"

#include <QJsonObject>
#include <QtTest>

using namespace KXChunkedE2e;

namespace {

QMutex g_progressMutex;
QMap<QString, int> g_progressCalls; // guarded by g_progressMutex

void onProgress(long long, const SubTaskInfo& record, long long)
{
    QMutexLocker locker(&g_progressMutex);
    ++g_progressCalls[record.subTaskId];
}

int progressCalls(const QString& id)
{
    QMutexLocker locker(&g_progressMutex);
    return g_progressCalls.value(id);
}

} // namespace

class TestChunkedTransfer : public KXE2eTest
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void cleanup();

    void smallestChunkedFileBothWays();
    void largeFileKeepsTheConcurrencyLimit();
    void sameContentAgainIsQuick();
    void zeroLimitStartsNothingUntilCancelled();
    void refusedBlockFailsTheTaskWithItsCode();
    void resumeMovesBlocksChangedSince_data();
    void resumeMovesBlocksChangedSince();
    void serverHashMismatchFailsTheBlock();
    void unwritableTargetFailsWithoutPartialFile();
    void commitStillNeedingBlocksFails();
    void cancelPausesRunningBlocksAndResumes();
    void deleteDropsStoredStateAndPartialFile();
    void opQueueFilesCancelledBlocksAsPaused();

private:
    // Starts a chunked transfer of `task` through the manager; returns its handle.
    long long start(const SubTaskInfo& task);
    // Runs `task` to its final callback and hands back what it reported; false on a time-out.
    bool run(const SubTaskInfo& task, KXOutcomes::Outcome& outcome)
    {
        return KXE2eTest::run(task, outcome, [&] { start(task); });
    }
    // A cancel returns before the transfer has ended: waits for its final callback, then for every
    // transfer to be gone (the engine's shutdown waits for them), and sets the engine up again as
    // init() left it.
    void waitUntilGone(const QString& id);
    void setLimit(int limit)
    {
        Transfer::setConfig(TransferConfigMaxConcurrentCount, QString::number(limit));
    }
};

void TestChunkedTransfer::initTestCase()
{
    setUpWorld();
}

void TestChunkedTransfer::init()
{
    setUpCase();
    setLimit(4);
}

void TestChunkedTransfer::cleanup()
{
    m_server.clearFaults();
}

void TestChunkedTransfer::waitUntilGone(const QString& id)
{
    QTRY_VERIFY_WITH_TIMEOUT(KXOutcomes::has(id), kWait);
    Transfer::deinit();
    Transfer::setConfig(TransferConfigUserPath, QString());
    setLimit(4);
}

long long TestChunkedTransfer::start(const SubTaskInfo& task)
{
    const long long handle = CKXTransferManager::inst()->initTransfer(
        new CKXChunkedTransfer(task, nullptr, nullptr), &KXOutcomes::onError, &onProgress);
    Transfer::start(handle);
    return handle;
}

void TestChunkedTransfer::smallestChunkedFileBothWays()
{
    // Two blocks, the second of one byte; the public entry point picks the chunked transfer.
    const qint64 size = kBlock + 1;
    const QString source = m_dir->filePath(QStringLiteral("two.bin"));
    const QString sha = writeRandomFile(source, size, 1);
    const QString up = newId();
    const long long handle = Transfer::init(uploadTask(up, source, QStringLiteral("/e2e/two.bin"), size),
                                            &KXOutcomes::onError, nullptr);
    QVERIFY(handle != 0);
    Transfer::start(handle);
    QTRY_VERIFY_WITH_TIMEOUT(KXOutcomes::has(up), kWait);
    KXOutcomes::Outcome outcome = KXOutcomes::get(up);
    QCOMPARE(outcome.code, NoError);
    QCOMPARE(outcome.record.state, StateCompleted);
    QCOMPARE(stat("block_uploads"), 2);
    QCOMPARE(stat("block_bytes"), int(size));
    QCOMPARE(serverSha256(QStringLiteral("/e2e/two.bin")), sha);
    QVERIFY(StoredBlocks(up).list.isEmpty()); // a committed file keeps no block rows
    QVERIFY(m_server.resetStats());

    const QString target = m_dir->filePath(QStringLiteral("back/two.bin"));
    const QString down = newId();
    QVERIFY(run(downloadTask(down, QStringLiteral("/e2e/two.bin"), target, size), outcome));
    QCOMPARE(outcome.code, NoError);
    QCOMPARE(fileSha256(target), sha);
    QVERIFY(!QFile::exists(KXUtil::tmpFile(target, down)));
    QVERIFY(StoredBlocks(down).list.isEmpty());
    QCOMPARE(stat("downloads"), 2);
}

void TestChunkedTransfer::largeFileKeepsTheConcurrencyLimit()
{
    const qint64 size = 10 * kBlock - 12345;
    const QString source = m_dir->filePath(QStringLiteral("large.bin"));
    const QString sha = writeRandomFile(source, size, 2);
    // Slow answers keep several blocks in flight at once, so the limit is really tested.
    QVERIFY(m_server.armFault({{"op", "block_upload"}, {"action", "delay"}, {"ms", 150}, {"count", 10}}));
    KXOutcomes::Outcome outcome;
    QVERIFY(run(uploadTask(newId(), source, QStringLiteral("/e2e/large.bin"), size), outcome));
    QCOMPARE(outcome.code, NoError);
    QCOMPARE(stat("block_uploads"), 10);
    QVERIFY2(stat("inflight_max") <= 4, qPrintable(QString::number(stat("inflight_max"))));
    QVERIFY(stat("inflight_max") >= 2);
    QCOMPARE(serverSha256(QStringLiteral("/e2e/large.bin")), sha);

    QVERIFY(m_server.resetStats());
    QVERIFY(m_server.armFault({{"op", "download"}, {"action", "delay"}, {"ms", 150}, {"count", 10}}));
    const QString target = m_dir->filePath(QStringLiteral("large.copy"));
    const QString down = newId();
    QVERIFY(run(downloadTask(down, QStringLiteral("/e2e/large.bin"), target, size), outcome));
    QCOMPARE(outcome.code, NoError);
    QCOMPARE(outcome.record.sendBytes, size);
    QCOMPARE(fileSha256(target), sha);
    QCOMPARE(stat("downloads"), 10);
    QVERIFY(stat("inflight_max") <= 4);
    QVERIFY(stat("inflight_max") >= 2);
}

void TestChunkedTransfer::sameContentAgainIsQuick()
{
    const qint64 size = 3 * kBlock;
    const QString source = m_dir->filePath(QStringLiteral("quick.bin"));
    const QString sha = writeRandomFile(source, size, 3);
    KXOutcomes::Outcome outcome;
    QVERIFY(run(uploadTask(newId(), source, QStringLiteral("/e2e/quick-a.bin"), size), outcome));
    QCOMPARE(outcome.code, NoError);
    QVERIFY(!outcome.record.isQuickTrans);
    QCOMPARE(stat("block_uploads"), 3);

    QVERIFY(m_server.resetStats());
    QVERIFY(run(uploadTask(newId(), source, QStringLiteral("/e2e/quick-b.bin"), size), outcome));
    QCOMPARE(outcome.code, NoError);
    QVERIFY(outcome.record.isQuickTrans);
    QCOMPARE(stat("block_uploads"), 0);
    QCOMPARE(stat("block_bytes"), 0);
    QCOMPARE(stat("commits"), 1);
    QCOMPARE(serverSha256(QStringLiteral("/e2e/quick-b.bin")), sha);
}

void TestChunkedTransfer::zeroLimitStartsNothingUntilCancelled()
{
    const qint64 size = 2 * kBlock + 7;
    const QString source = m_dir->filePath(QStringLiteral("zero.bin"));
    const QString sha = writeRandomFile(source, size, 4);
    const SubTaskInfo task = uploadTask(newId(), source, QStringLiteral("/e2e/zero.bin"), size);
    setLimit(0);
    const long long handle = start(task);
    // The one progress report of a chunked transfer comes as its blocks are queued.
    QTRY_VERIFY_WITH_TIMEOUT(progressCalls(task.subTaskId) == 1, kWait);
    Transfer::cancel(handle);
    waitUntilGone(task.subTaskId);
    KXOutcomes::Outcome outcome = KXOutcomes::get(task.subTaskId);
    QCOMPARE(outcome.code, NoError);
    QCOMPARE(outcome.record.state, StatePaused);
    QCOMPARE(stat("hash_queries"), 0);
    QCOMPARE(stat("block_uploads"), 0);
    QCOMPARE(StoredBlocks(task.subTaskId).list.size(), 3);

    // Resumed with blocks allowed, the same task goes through.
    setLimit(4);
    QVERIFY(run(task, outcome));
    QCOMPARE(outcome.code, NoError);
    QCOMPARE(outcome.record.state, StateCompleted);
    QCOMPARE(serverSha256(QStringLiteral("/e2e/zero.bin")), sha);
}

void TestChunkedTransfer::refusedBlockFailsTheTaskWithItsCode()
{
    const qint64 size = 4 * kBlock;
    const QString source = m_dir->filePath(QStringLiteral("refused.bin"));
    const QString sha = writeRandomFile(source, size, 5);
    const SubTaskInfo task = uploadTask(newId(), source, QStringLiteral("/e2e/refused.bin"), size);
    setLimit(1);
    QVERIFY(m_server.armFault(
        {{"op", "block_upload"}, {"nth", 3}, {"action", "status"}, {"status", 403}, {"code", "forbidden"}}));
    KXOutcomes::Outcome outcome;
    QVERIFY(run(task, outcome));
    QCOMPARE(outcome.code, Forbidden);
    QCOMPARE(outcome.record.state, StateError);
    QCOMPARE(outcome.record.httpCode, 403);
    QCOMPARE(stat("commits"), 0);
    {
        // The refusal fails its block only: the others went through and stay done.
        const StoredBlocks stored(task.subTaskId);
        QCOMPARE(stored.withState(BlockTaskStateCompleted), 3);
    }

    QVERIFY(m_server.clearFaults());
    QVERIFY(m_server.resetStats());
    QVERIFY(run(task, outcome));
    QCOMPARE(outcome.code, NoError);
    QCOMPARE(stat("block_uploads"), 1);
    QCOMPARE(serverSha256(QStringLiteral("/e2e/refused.bin")), sha);
}

void TestChunkedTransfer::resumeMovesBlocksChangedSince_data()
{
    QTest::addColumn<bool>("upload");
    QTest::newRow("upload, source edited in place") << true;
    QTest::newRow("download, temporary file edited") << false;
}

// A block done in an earlier run whose bytes on disk changed since is moved again: the result is
// the file as it is now (upload) or as the server holds it (download), never a splice of both.
void TestChunkedTransfer::resumeMovesBlocksChangedSince()
{
    QFETCH(bool, upload);
    const qint64 size = 3 * kBlock + 11;
    const QString source = m_dir->filePath(QStringLiteral("edited.src"));
    const QString remote = QStringLiteral("/e2e/edited.bin");
    const QString target = m_dir->filePath(QStringLiteral("edited.bin"));
    writeRandomFile(source, size, 21);
    KXOutcomes::Outcome outcome;
    if (!upload) {
        QVERIFY(run(uploadTask(newId(), source, remote, size), outcome));
        QCOMPARE(outcome.code, NoError);
    }
    const SubTaskInfo task =
        upload ? uploadTask(newId(), source, remote, size) : downloadTask(newId(), remote, target, size);
    setLimit(1);
    QVERIFY(m_server.armFault({{"op", upload ? "block_upload" : "download"},
                               {"nth", 3},
                               {"action", "status"},
                               {"status", 500},
                               {"code", "internal"}}));
    QVERIFY(run(task, outcome));
    QVERIFY(outcome.code != NoError);
    QCOMPARE(StoredBlocks(task.subTaskId).withState(BlockTaskStateCompleted), 3);

    // The first block changes; the size, and the time of the file, stay.
    QFile edited(upload ? source : KXUtil::tmpFile(target, task.subTaskId));
    const QDateTime modified = QFileInfo(edited).lastModified();
    QVERIFY(edited.open(QIODevice::ReadWrite) && edited.seek(100));
    QCOMPARE(edited.write("changed in place"), qint64(16));
    edited.close();
    QVERIFY(edited.open(QIODevice::ReadWrite) &&
            edited.setFileTime(modified, QFileDevice::FileModificationTime));
    edited.close();

    QVERIFY(m_server.clearFaults());
    QVERIFY(m_server.resetStats());
    QVERIFY(run(task, outcome));
    QCOMPARE(outcome.code, NoError);
    QCOMPARE(stat(upload ? "block_uploads" : "downloads"), 2); // the failed block and the changed one
    QCOMPARE(upload ? serverSha256(remote) : fileSha256(target), fileSha256(source));
}

void TestChunkedTransfer::serverHashMismatchFailsTheBlock()
{
    const qint64 size = 2 * kBlock;
    const QString source = m_dir->filePath(QStringLiteral("mismatch.bin"));
    writeRandomFile(source, size, 13);
    QVERIFY(m_server.armFault({{"op", "block_upload"}, {"nth", 2}, {"action", "wrong_hash"}}));
    KXOutcomes::Outcome outcome;
    QVERIFY(run(uploadTask(newId(), source, QStringLiteral("/e2e/mismatch.bin"), size), outcome));
    QCOMPARE(outcome.code, UploadHashError);
    QCOMPARE(outcome.record.errorInfo, QStringLiteral("[TRANSFER] ChunkedUpload 文件hash 比对不一致"));
    // Every failed block was found locally (status 200), so no status is reported.
    QCOMPARE(outcome.record.httpCode, 0);
    QCOMPARE(stat("commits"), 0);
}

void TestChunkedTransfer::unwritableTargetFailsWithoutPartialFile()
{
    const qint64 size = kBlock + 100;
    const QString source = m_dir->filePath(QStringLiteral("plain.bin"));
    const QString sha = writeRandomFile(source, size, 14);
    KXOutcomes::Outcome outcome;
    QVERIFY(run(uploadTask(newId(), source, QStringLiteral("/e2e/plain.bin"), size), outcome));
    QCOMPARE(outcome.code, NoError);

    // A regular file stands where the target's folder would have to be.
    const QString target = source + QStringLiteral("/sub/plain.bin");
    const SubTaskInfo task = downloadTask(newId(), QStringLiteral("/e2e/plain.bin"), target, size);
    QVERIFY(run(task, outcome));
    QCOMPARE(outcome.code, LocalFileError);
    QCOMPARE(outcome.record.state, StateError);
    QVERIFY(!QFile::exists(target));
    QVERIFY(!QFile::exists(KXUtil::tmpFile(target, task.subTaskId)));
    QCOMPARE(fileSha256(source), sha); // the file in the way is left alone
}

void TestChunkedTransfer::commitStillNeedingBlocksFails()
{
    const qint64 size = 3 * kBlock;
    const QString source = m_dir->filePath(QStringLiteral("stale.bin"));
    writeRandomFile(source, size, 6);
    const SubTaskInfo task = uploadTask(newId(), source, QStringLiteral("/e2e/stale.bin"), size);
    // A first run stores the blocks and is cancelled before any moves.
    setLimit(0);
    const long long handle = start(task);
    QTRY_VERIFY_WITH_TIMEOUT(progressCalls(task.subTaskId) == 1, kWait);
    Transfer::cancel(handle);
    waitUntilGone(task.subTaskId);
    {
        // The local record claims a block the server never got (with its true hash, so that the
        // check of the file before a resume keeps it).
        StoredBlocks stored(task.subTaskId);
        QCOMPARE(stored.list.size(), 3);
        CKXBlockTask* block = stored.list[1];
        QFile file(source);
        QVERIFY(file.open(QIODevice::ReadOnly) && file.seek(kBlock));
        block->setState(BlockTaskStateCompleted);
        block->setHash(KXUtil::SHA256(file.read(kBlock)));
        QVERIFY(CKXTFStoreManager::inst()->db()->AddBlockTask(*block));
    }
    setLimit(4);
    KXOutcomes::Outcome outcome;
    QVERIFY(run(task, outcome));
    QCOMPARE(outcome.code, UploadHashError);
    QCOMPARE(outcome.record.errorInfo, QStringLiteral("上传文件hash出错，需要重传"));
    QCOMPARE(outcome.record.state, StateError);
    QCOMPARE(stat("block_uploads"), 2);
    QCOMPARE(stat("commits"), 0); // counts files made, and none was
    QVERIFY(serverSha256(QStringLiteral("/e2e/stale.bin")).startsWith(QStringLiteral("status 404")));
}

void TestChunkedTransfer::cancelPausesRunningBlocksAndResumes()
{
    const qint64 size = 6 * kBlock;
    const QString source = m_dir->filePath(QStringLiteral("cancel.bin"));
    const QString sha = writeRandomFile(source, size, 7);
    const SubTaskInfo task = uploadTask(newId(), source, QStringLiteral("/e2e/cancel.bin"), size);
    setLimit(2);
    QVERIFY(m_server.armFault({{"op", "block_upload"}, {"action", "delay"}, {"ms", 10000}, {"count", 2}}));
    const long long handle = start(task);
    QTRY_VERIFY_WITH_TIMEOUT(stat("inflight") >= 2, kWait);
    Transfer::cancel(handle);
    waitUntilGone(task.subTaskId);
    KXOutcomes::Outcome outcome = KXOutcomes::get(task.subTaskId);
    QCOMPARE(outcome.calls, 1);
    QCOMPARE(outcome.code, NoError);
    QCOMPARE(outcome.record.state, StatePaused);
    QCOMPARE(StoredBlocks(task.subTaskId).withState(BlockTaskStateCompleted), 0);

    QVERIFY(m_server.clearFaults());
    QVERIFY(run(task, outcome));
    QCOMPARE(outcome.code, NoError);
    QCOMPARE(serverSha256(QStringLiteral("/e2e/cancel.bin")), sha);
}

void TestChunkedTransfer::deleteDropsStoredStateAndPartialFile()
{
    const qint64 size = 4 * kBlock;
    const QString source = m_dir->filePath(QStringLiteral("del.src"));
    writeRandomFile(source, size, 10);
    KXOutcomes::Outcome outcome;
    QVERIFY(run(uploadTask(newId(), source, QStringLiteral("/e2e/del.bin"), size), outcome));
    QCOMPARE(outcome.code, NoError);

    const QString target = m_dir->filePath(QStringLiteral("del.bin"));
    const SubTaskInfo task = downloadTask(newId(), QStringLiteral("/e2e/del.bin"), target, size);
    setLimit(1);
    QVERIFY(m_server.armFault({{"op", "download"}, {"action", "delay"}, {"ms", 200}, {"count", 4}}));
    const long long handle = start(task);
    QTRY_VERIFY_WITH_TIMEOUT(StoredBlocks(task.subTaskId).withState(BlockTaskStateCompleted) >= 1, kWait);
    QVERIFY(QFile::exists(KXUtil::tmpFile(target, task.subTaskId)));
    Transfer::del(handle);
    waitUntilGone(task.subTaskId);
    QVERIFY(StoredBlocks(task.subTaskId).list.isEmpty());
    QVERIFY(!QFile::exists(KXUtil::tmpFile(target, task.subTaskId)));
    QVERIFY(!QFile::exists(target));
    CKXTransferTask stored;
    QVERIFY(!CKXTFStoreManager::inst()->db()->LoadTransferTask(task.subTaskId, stored));
}

void TestChunkedTransfer::opQueueFilesCancelledBlocksAsPaused()
{
    // The block engine on its own: five blocks, two at a time, both held up by the server.
    const qint64 size = 5 * kBlock;
    const QString source = m_dir->filePath(QStringLiteral("queue.bin"));
    writeRandomFile(source, size, 8);
    SubTaskInfo info = uploadTask(newId(), source, QStringLiteral("/e2e/queue.bin"), size);
    CKXTransferTask task(info);
    QList<CKXBlockTask*> blocks;
    CKXBlockBuilder(&task).createBlocks(blocks);
    CKXBlockMgr mgr;
    for (CKXBlockTask* block : blocks) {
        mgr.addWaitingQueueWithMutex(block);
    }
    CKXBlockHandler handler(&task);
    QSignalSpy reports(&handler, &CKXBlockHandler::completeHandler);
    QVERIFY(m_server.armFault({{"op", "block_upload"}, {"action", "delay"}, {"ms", 10000}, {"count", 5}}));
    {
        CKXBlockOpQueue queue(&mgr, &handler, 2);
        queue.start();
        QTRY_VERIFY_WITH_TIMEOUT(stat("inflight") >= 2, kWait);
        QCOMPARE(mgr.count(CKXBlockMgr::Running), 2);
        queue.cancel();
        queue.end();
        queue.cancelTask();
        QTRY_VERIFY_WITH_TIMEOUT(mgr.isEmpty(CKXBlockMgr::Running), kWait);
    }
    QCOMPARE(reports.count(), 2);
    QCOMPARE(mgr.count(CKXBlockMgr::Pause), 2);
    QCOMPARE(mgr.count(CKXBlockMgr::Waiting), 3);
    QVERIFY(mgr.isEmpty(CKXBlockMgr::Complete));
    QVERIFY(mgr.isEmpty(CKXBlockMgr::Error));
    const QList<CKXBlockTask*> paused = mgr.tasks(CKXBlockMgr::Pause);
    QCOMPARE(QSet<CKXBlockTask*>(paused.begin(), paused.end()), (QSet<CKXBlockTask*>{blocks[0], blocks[1]}));
    QCOMPARE(blocks[0]->state(), BlockTaskStatePaused);
    QCOMPARE(blocks[1]->state(), BlockTaskStatePaused);
    QCOMPARE(mgr.firstTask(CKXBlockMgr::Waiting), blocks[2]);
    qDeleteAll(blocks);
}

QTEST_GUILESS_MAIN(TestChunkedTransfer)
#include "tst_ChunkedTransfer.moc"
