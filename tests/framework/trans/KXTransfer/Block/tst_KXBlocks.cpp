// The blocks of a chunked transfer without a server: cutting a file into them; the upload hasher
// (none beyond the window of started blocks, none a block thread claimed, none that already had a
// hash, each hash the block's range, an unreadable file leaving every block to its own thread);
// a block's hash comes back as it was given, whichever form it is kept in;
// the queues (list and index kept apart on purpose, the moves between stages, moves from several
// threads at once: the fixed lock order must not deadlock or lose a block); and the dispatcher's
// filing of reported blocks by their state, which ends the transfer's event loop when nothing is left.

#include "KXBlockBuilder.h"
#include "KXBlockHandler.h"
#include "KXBlockHasher.h"
#include "KXBlockMgr.h"
#include "KXBlockOpQueue.h"
#include "KXBlockTask.h"
#include "KXBlockTaskQueue.h"
#include "KXTestData.h"
#include "KXTransferTask.h"
#include "KXUtil.h"

#include <QEventLoop>
#include <QScopeGuard>
#include <QSet>
#include <QTemporaryDir>
#include <QThread>
#include <QTimer>
#include <QtTest>

#include <atomic>
#include <memory>
#include <vector>

namespace {

const long long kBlock = 4194304;

std::vector<std::unique_ptr<CKXBlockTask>> makeBlocks(int count)
{
    std::vector<std::unique_ptr<CKXBlockTask>> blocks;
    for (int i = 0; i < count; ++i) {
        auto block = std::make_unique<CKXBlockTask>();
        block->setTaskId(QStringLiteral("block-%1").arg(i));
        block->setIdx(i);
        blocks.push_back(std::move(block));
    }
    return blocks;
}

QList<CKXBlockTask*> pointers(const std::vector<std::unique_ptr<CKXBlockTask>>& blocks)
{
    QList<CKXBlockTask*> list;
    for (const auto& block : blocks) {
        list << block.get();
    }
    return list;
}

// Where a block is, as the number of times each stage lists it.
QVector<int> placesOf(const CKXBlockMgr& mgr, CKXBlockTask* block)
{
    QVector<int> places;
    for (int stage = CKXBlockMgr::Waiting; stage < CKXBlockMgr::StageCount; ++stage) {
        places << mgr.tasks(CKXBlockMgr::Stage(stage)).count(block);
    }
    return places;
}

} // namespace

class TestKXBlocks : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();

    void blocksCoverTheFileInOrder_data();
    void blocksCoverTheFileInOrder();
    void workersHashOnlyWhatTheyMay_data();
    void workersHashOnlyWhatTheyMay();
    void hashIsKeptAsGiven_data();
    void hashIsKeptAsGiven();

    void getTaskTakesAPrefixOrEverything_data();
    void getTaskTakesAPrefixOrEverything();
    void duplicateIsListedTwiceIndexedOnce();
    void movesLeaveTheBlockInTheTargetOnly();
    void concurrentMovesLoseNothing();

    void reportIsFiledByState_data();
    void reportIsFiledByState();

private:
    QTemporaryDir m_home;
};

void TestKXBlocks::initTestCase()
{
    QVERIFY(m_home.isValid());
    qputenv("XDG_DATA_HOME", m_home.path().toUtf8());
    qputenv("HOME", m_home.path().toUtf8());
}

void TestKXBlocks::blocksCoverTheFileInOrder_data()
{
    QTest::addColumn<bool>("upload");
    QTest::addColumn<long long>("size");
    QTest::addColumn<QList<long long>>("lengths");
    QTest::newRow("empty file") << true << 0LL << QList<long long>{0};
    QTest::newRow("one byte") << true << 1LL << QList<long long>{1};
    QTest::newRow("one short of a block") << true << kBlock - 1 << QList<long long>{kBlock - 1};
    QTest::newRow("exactly one block") << true << kBlock << QList<long long>{kBlock};
    QTest::newRow("second block of one byte") << true << kBlock + 1 << QList<long long>{kBlock, 1};
    QTest::newRow("exactly two blocks") << true << 2 * kBlock << QList<long long>{kBlock, kBlock};
    QTest::newRow("10 MiB") << true << 10LL * 1024 * 1024
                            << QList<long long>{kBlock, kBlock, 2 * 1024 * 1024};
    QTest::newRow("download of three blocks")
        << false << 3 * kBlock << QList<long long>{kBlock, kBlock, kBlock};
    QTest::newRow("negative size") << true << -1LL << QList<long long>{};
}

void TestKXBlocks::blocksCoverTheFileInOrder()
{
    QFETCH(bool, upload);
    QFETCH(long long, size);
    QFETCH(QList<long long>, lengths);
    if (size >= 0) {
        QCOMPARE(CKXBlockBuilder::blockCount(size), (long long)lengths.size());
    }
    QCOMPARE(CKXBlockBuilder::blockCount(100LL << 30), 25600LL); // past the range of int
    SubTaskInfo info;
    info.subTaskId = QStringLiteral("sub-upload");
    info.isUpload = upload;
    info.localFile.path = QStringLiteral("/data/big.bin");
    // A download is cut by the remote size, an upload by the local one; the other sizes must not count.
    info.localFile.size = upload ? size : 0;
    info.remoteFile.size = upload ? 7 : size;
    info.size = upload ? size : 7;
    CKXTransferTask task(info);
    QList<CKXBlockTask*> blocks;
    const auto freeBlocks = qScopeGuard([&] { qDeleteAll(blocks); });
    QVERIFY(CKXBlockBuilder(&task).createBlocks(blocks));
    QCOMPARE(blocks.size(), lengths.size());
    QSet<QString> ids;
    long long loc = 0;
    for (int i = 0; i < blocks.size(); ++i) {
        const BlockTaskInfo block = blocks[i]->getBlockTaskInfo();
        QCOMPARE(block.idx, i);
        QCOMPARE(block.loc, loc);
        QCOMPARE(block.length, lengths[i]);
        QCOMPARE(block.total, lengths[i]);
        QCOMPARE(block.sent, 0LL);
        QCOMPARE(block.subTaskId, QStringLiteral("sub-upload"));
        QCOMPARE(block.subTaskInfo.localFile.path, QStringLiteral("/data/big.bin"));
        QCOMPARE(block.isUpload, upload);
        QCOMPARE(block.state, BlockTaskStateNone);
        QVERIFY(block.hash.isEmpty());
        QVERIFY(block.taskId.startsWith(QLatin1Char('{')) && block.taskId.endsWith(QLatin1Char('}')));
        ids.insert(block.taskId);
        loc += block.length;
    }
    QCOMPARE(loc, qMax(size, 0LL));
    QCOMPARE(ids.size(), blocks.size());
    // The blocks share their task's record; giving one block another leaves the rest alone.
    if (blocks.size() > 1) {
        SubTaskInfo moved = info;
        moved.localFile.path = QStringLiteral("/elsewhere/big.bin");
        blocks[0]->setSubTaskInfo(moved);
        QCOMPARE(blocks[0]->info().localFile.path, moved.localFile.path);
        QCOMPARE(blocks[1]->info().localFile.path, QStringLiteral("/data/big.bin"));
    }
}

void TestKXBlocks::workersHashOnlyWhatTheyMay_data()
{
    QTest::addColumn<int>("lookahead");
    QTest::addColumn<int>("started");
    QTest::addColumn<int>("claimed"); // claimed by its block thread before the workers start; -1: none
    QTest::addColumn<bool>("readable");
    // Made from the file's size before the blocks exist, which it adopts after the workers start;
    // it must refuse blocks of which one already holds a hash.
    QTest::addColumn<bool>("early");
    QTest::addColumn<QString>("expected"); // per block: h hashed here, - left empty, p kept as it was

    QTest::newRow("window of two, nothing started") << 2 << 0 << -1 << true << false << "hh----";
    QTest::newRow("window moves with the starts") << 2 << 3 << -1 << true << false << "hhhhh-";
    QTest::newRow("whole file") << 6 << 6 << -1 << true << false << "hhhhhh";
    QTest::newRow("claimed block is the thread's") << 6 << 0 << 1 << true << false << "h-hhhh";
    QTest::newRow("existing hash kept in its place") << 3 << 0 << -1 << true << false << "hph---";
    QTest::newRow("zero window hashes nothing") << 0 << 0 << -1 << true << false << "------";
    QTest::newRow("unreadable file") << 6 << 6 << -1 << false << false << "------";
    QTest::newRow("early, window of two") << 2 << 0 << -1 << true << true << "hh----";
    QTest::newRow("early, window moves after adopting") << 2 << 3 << -1 << true << true << "hhhhh-";
    QTest::newRow("early, a block with a hash is refused") << 6 << 6 << -1 << true << true << "p-----";
}

void TestKXBlocks::workersHashOnlyWhatTheyMay()
{
    QFETCH(int, lookahead);
    QFETCH(int, started);
    QFETCH(int, claimed);
    QFETCH(bool, readable);
    QFETCH(bool, early);
    QFETCH(QString, expected);

    QTemporaryDir dir;
    QVERIFY(dir.isValid());
    const QString path = dir.filePath(QStringLiteral("source.bin"));
    const int blockSize = 1000;
    const QByteArray bytes = randomBytes(blockSize * expected.size() - 123); // the last block is short
    QVERIFY(!readable || writeFile(path, bytes));
    const auto blocks = makeBlocks(expected.size());
    const QList<CKXBlockTask*> order = pointers(blocks);
    for (int i = 0; i < order.size(); ++i) {
        order[i]->setLoc(qint64(i) * blockSize);
        order[i]->setLength(qMin(blockSize, bytes.size() - i * blockSize));
        if (expected[i] == QLatin1Char('p')) {
            order[i]->setHash(QStringLiteral("kept"));
        }
    }
    auto hasher = early ? std::make_unique<CKXBlockHasher>(path, bytes.size(), blockSize, lookahead)
                        : std::make_unique<CKXBlockHasher>(order, path, lookahead);
    if (claimed >= 0) {
        hasher->claim(order[claimed]);
    }
    hasher->start(2);
    if (early) {
        // The first window is hashed before the blocks exist; the rest after they are adopted.
        QTRY_COMPARE_WITH_TIMEOUT(hasher->madeCount(), qMin(lookahead, expected.size()), 10000);
        QCOMPARE(hasher->adopt(order), !expected.contains(QLatin1Char('p')));
    }
    for (int i = 0; i < started; ++i) {
        hasher->noteStarted();
    }
    for (int i = 0; i < expected.size(); ++i) {
        if (expected[i] == QLatin1Char('h')) {
            QTRY_VERIFY_WITH_TIMEOUT(!order[i]->hash().isEmpty(), 10000);
        }
    }
    hasher.reset(); // joins the workers: nothing is hashed after this
    for (int i = 0; i < expected.size(); ++i) {
        const QString want = expected[i] == QLatin1Char('h')
                                 ? KXUtil::SHA256(bytes.mid(i * blockSize, blockSize))
                             : expected[i] == QLatin1Char('p') ? QStringLiteral("kept")
                                                               : QString();
        QCOMPARE(order[i]->hash(), want);
    }
}

void TestKXBlocks::hashIsKeptAsGiven_data()
{
    QTest::addColumn<QString>("hash");
    const QString digest = QStringLiteral("9f86d081884c7d659a2feaa0c55ad015a3bf4f1b2b0b822cd15d6c15b0f00a08");
    QTest::newRow("digest") << digest;
    QTest::newRow("all zero") << QString(64, QLatin1Char('0'));
    QTest::newRow("upper case") << digest.toUpper();
    QTest::newRow("not hex") << QString(digest).replace(63, 1, QLatin1Char('g'));
    QTest::newRow("one short") << digest.left(63);
    QTest::newRow("one long") << digest + QLatin1Char('0');
    QTest::newRow("short text") << QStringLiteral("h1");
    QTest::newRow("empty") << QString();
}

void TestKXBlocks::hashIsKeptAsGiven()
{
    QFETCH(QString, hash);
    // Each way into a block, starting from a hash of the other kind, and back out as JSON.
    CKXBlockTask block;
    for (const QString& before : {QStringLiteral("h0"), QString(64, QLatin1Char('f'))}) {
        block.setHash(before);
        block.setHash(hash);
        QCOMPARE(block.hash(), hash);
    }
    BlockTaskInfo info;
    info.hash = hash;
    QCOMPARE(CKXBlockTask(info).getBlockTaskInfo().hash, hash);
    block.setHash(QStringLiteral("h0"));
    block.setBlockTaskInfo(info);
    QCOMPARE(block.hash(), hash);
    CKXBlockTask parsed;
    QVERIFY(parsed.FromJson(block.ToJson()));
    QCOMPARE(parsed.hash(), hash);
    block.clear();
    QVERIFY(block.hash().isEmpty());
}

void TestKXBlocks::getTaskTakesAPrefixOrEverything_data()
{
    QTest::addColumn<int>("queued");
    QTest::addColumn<int>("n");
    QTest::addColumn<int>("expected");
    QTest::newRow("first of three") << 3 << 1 << 1;
    QTest::newRow("exactly all") << 3 << 3 << 3;
    QTest::newRow("three of two gives both") << 2 << 3 << 2;
    QTest::newRow("zero gives all") << 4 << 0 << 4;
}

void TestKXBlocks::getTaskTakesAPrefixOrEverything()
{
    QFETCH(int, queued);
    QFETCH(int, n);
    QFETCH(int, expected);
    const auto blocks = makeBlocks(queued);
    CKXBlockTaskQueue queue;
    QVERIFY(queue.addTasks(pointers(blocks)));
    const QList<CKXBlockTask*> taken = queue.getTask(n);
    QCOMPARE(taken, pointers(blocks).mid(0, expected));
    QCOMPARE(queue.getCount(), queued); // a copy: the queue keeps its blocks
}

void TestKXBlocks::duplicateIsListedTwiceIndexedOnce()
{
    const auto blocks = makeBlocks(3);
    CKXBlockTaskQueue queue;
    queue.addTask(blocks[0].get());
    queue.addTask(blocks[1].get());
    queue.addTask(blocks[0].get());
    QCOMPARE(queue.getCount(), 3);
    QCOMPARE(queue.getTask(QStringLiteral("block-0")), blocks[0].get());

    queue.removeTask(blocks[0].get());
    QCOMPARE(queue.getCount(), 2);
    QCOMPARE(queue.getTask(-1), (QList<CKXBlockTask*>{blocks[1].get(), blocks[0].get()}));
    QVERIFY(!queue.isExistTask(QStringLiteral("block-0")));
    QCOMPARE(queue.getTask(QStringLiteral("block-0")), nullptr);
    QVERIFY(queue.isExistTask(QStringLiteral("block-1")));
    QCOMPARE(queue.getOneTask(), blocks[1].get());
    // Another object with a listed id is the same task.
    CKXBlockTask twin;
    twin.setTaskId(QStringLiteral("block-1"));
    QCOMPARE(queue.getSameTask(&twin), QStringLiteral("block-1"));
    QCOMPARE(queue.getSameTask(blocks[2].get()), QString());
}

void TestKXBlocks::movesLeaveTheBlockInTheTargetOnly()
{
    const auto blocks = makeBlocks(4);
    CKXBlockMgr mgr;
    for (CKXBlockTask* block : pointers(blocks)) {
        mgr.addWaitingQueueWithMutex(block);
    }
    QVERIFY(mgr.isExistWaitingTask());
    for (CKXBlockTask* block : pointers(blocks)) {
        QVERIFY(mgr.moveWaitingToRunning(block));
        QCOMPARE(placesOf(mgr, block), (QVector<int>{0, 1, 0, 0, 0}));
    }
    QVERIFY(!mgr.isExistWaitingTask());
    QCOMPARE(mgr.runningCountHint(), 4);
    QVERIFY(mgr.moveRunningToComplete(blocks[0].get()));
    QVERIFY(mgr.moveRunningToError(blocks[1].get()));
    QVERIFY(mgr.moveRunningToPause(blocks[2].get()));
    QCOMPARE(mgr.runningCountHint(), 1);
    QCOMPARE(placesOf(mgr, blocks[0].get()), (QVector<int>{0, 0, 1, 0, 0}));
    QCOMPARE(placesOf(mgr, blocks[1].get()), (QVector<int>{0, 0, 0, 1, 0}));
    QCOMPARE(placesOf(mgr, blocks[2].get()), (QVector<int>{0, 0, 0, 0, 1}));
    QCOMPARE(mgr.count(CKXBlockMgr::Running), 1);
    QCOMPARE(mgr.firstTask(CKXBlockMgr::Running), blocks[3].get());

    // Errors go back to waiting in the order they failed in.
    mgr.addErrorQueueWithMutex(blocks[0].get());
    QVERIFY(mgr.moveAllErrorToWaiting());
    QVERIFY(mgr.isEmpty(CKXBlockMgr::Error));
    QCOMPARE(mgr.tasks(CKXBlockMgr::Waiting), (QList<CKXBlockTask*>{blocks[1].get(), blocks[0].get()}));

    // A move files the block even where it was not listed before, and filing twice lists it twice:
    // callers file a block once.
    QVERIFY(mgr.moveWaitingToPause(blocks[2].get()));
    QVERIFY(mgr.moveRunningToComplete(blocks[2].get()));
    QCOMPARE(placesOf(mgr, blocks[2].get()), (QVector<int>{0, 0, 1, 0, 2}));
}

void TestKXBlocks::concurrentMovesLoseNothing()
{
    // Each thread walks its own blocks through the stages while a reader polls every queue; all of
    // them take the locks of two stages at once in different pairs.
    const int threads = 4;
    const int perThread = 200;
    const auto blocks = makeBlocks(threads * perThread);
    CKXBlockMgr mgr;
    for (CKXBlockTask* block : pointers(blocks)) {
        mgr.addWaitingQueueWithMutex(block);
    }
    // Every third block completes, the others fail or pause.
    using Move = bool (CKXBlockMgr::*)(CKXBlockTask*);
    const Move ends[] = {&CKXBlockMgr::moveRunningToComplete, &CKXBlockMgr::moveRunningToError,
                         &CKXBlockMgr::moveRunningToPause};
    std::atomic<bool> stop{false};
    std::unique_ptr<QThread> reader(QThread::create([&] {
        while (!stop.load()) {
            for (int stage = CKXBlockMgr::Waiting; stage < CKXBlockMgr::StageCount; ++stage) {
                mgr.count(CKXBlockMgr::Stage(stage));
            }
            mgr.isExistWaitingTask();
        }
    }));
    reader->start();
    std::vector<std::unique_ptr<QThread>> movers;
    for (int t = 0; t < threads; ++t) {
        movers.emplace_back(QThread::create([&, t] {
            for (int i = 0; i < perThread; ++i) {
                CKXBlockTask* block = blocks[t * perThread + i].get();
                mgr.moveWaitingToRunning(block);
                (mgr.*ends[i % 3])(block);
            }
        }));
        movers.back()->start();
    }
    for (auto& mover : movers) {
        QVERIFY(mover->wait(60000));
    }
    stop.store(true);
    QVERIFY(reader->wait(60000));

    QVERIFY(mgr.isEmpty(CKXBlockMgr::Waiting));
    QVERIFY(mgr.isEmpty(CKXBlockMgr::Running));
    const int completeExpected = threads * ((perThread + 2) / 3);
    QCOMPARE(mgr.count(CKXBlockMgr::Complete), completeExpected);
    QCOMPARE(mgr.count(CKXBlockMgr::Complete) + mgr.count(CKXBlockMgr::Error) + mgr.count(CKXBlockMgr::Pause),
             threads * perThread);
    for (CKXBlockTask* block : pointers(blocks)) {
        QCOMPARE(placesOf(mgr, block).count(1), 1);
    }
}

void TestKXBlocks::reportIsFiledByState_data()
{
    QTest::addColumn<int>("state");
    QTest::addColumn<int>("stage");
    QTest::addColumn<bool>("last"); // no other block waits
    QTest::newRow("completed") << int(BlockTaskStateCompleted) << int(CKXBlockMgr::Complete) << false;
    QTest::newRow("failed") << int(BlockTaskStateError) << int(CKXBlockMgr::Error) << false;
    QTest::newRow("paused") << int(BlockTaskStatePaused) << int(CKXBlockMgr::Pause) << false;
    QTest::newRow("still working") << int(BlockTaskStateWorking) << int(CKXBlockMgr::Running) << false;
    // The dispatcher ends the event loops of this thread for good (QThread::exit): that row comes last.
    QTest::newRow("last, failed") << int(BlockTaskStateError) << int(CKXBlockMgr::Error) << true;
}

// The loop stands for the chunked transfer's: only the dispatcher's exit(0), after the last report,
// ends it with 0. A report of a block no thread is registered for is still filed.
void TestKXBlocks::reportIsFiledByState()
{
    QFETCH(int, state);
    QFETCH(int, stage);
    QFETCH(bool, last);
    const auto blocks = makeBlocks(2);
    CKXTransferTask task;
    CKXBlockHandler handler(&task);
    CKXBlockMgr mgr;
    if (!last) {
        mgr.addWaitingQueueWithMutex(blocks[1].get());
    }
    mgr.addRunningQueueWithMutex(blocks[0].get());
    blocks[0]->setState(BlockTaskState(state));
    CKXBlockOpQueue queue(&mgr, &handler, 1);
    QEventLoop loop;
    QTimer::singleShot(0, &queue, [&] {
        queue.blockFinish(nullptr, blocks[0].get(), ServerError);
        if (!last) {
            loop.exit(2);
        }
    });
    QTimer::singleShot(60000, &loop, [&] { loop.exit(1); });
    QCOMPARE(loop.exec(), last ? 0 : 2);
    QCOMPARE(queue.isCancelled(), last);
    QCOMPARE(mgr.tasks(CKXBlockMgr::Stage(stage)), QList<CKXBlockTask*>{blocks[0].get()});
    QCOMPARE(mgr.count(CKXBlockMgr::Waiting), last ? 0 : 1);
}

QTEST_GUILESS_MAIN(TestKXBlocks)
#include "tst_KXBlocks.moc"
