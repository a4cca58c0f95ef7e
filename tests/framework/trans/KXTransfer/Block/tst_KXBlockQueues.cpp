// The block queues: list and index kept apart on purpose, the moves between stages, moves from
// several threads at once (the fixed lock order must not deadlock or lose a block), and the
// dispatcher without a server: filing of reported blocks by their state, and the end of the chunked
// transfer's event loop when nothing is left.

#include "KXBlockHandler.h"
#include "KXBlockMgr.h"
#include "KXBlockOpQueue.h"
#include "KXBlockTask.h"
#include "KXBlockTaskQueue.h"
#include "KXTransferTask.h"

#include <QEventLoop>
#include <QTemporaryDir>
#include <QThread>
#include <QTimer>
#include <QtTest>

#include <atomic>
#include <memory>
#include <vector>

namespace {

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

class TestKXBlockQueues : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();

    void getTaskTakesAPrefixOrEverything_data();
    void getTaskTakesAPrefixOrEverything();
    void duplicateIsListedTwiceIndexedOnce();

    void movesLeaveTheBlockInTheTargetOnly();
    void concurrentMovesLoseNothing();

    void reportIsFiledByState_data();
    void reportIsFiledByState();
    void lastReportEndsTheEventLoop();

private:
    QTemporaryDir m_home;
};

void TestKXBlockQueues::initTestCase()
{
    QVERIFY(m_home.isValid());
    qputenv("XDG_DATA_HOME", m_home.path().toUtf8());
    qputenv("HOME", m_home.path().toUtf8());
}

void TestKXBlockQueues::getTaskTakesAPrefixOrEverything_data()
{
    QTest::addColumn<int>("queued");
    QTest::addColumn<int>("n");
    QTest::addColumn<int>("expected");
    QTest::newRow("first of three") << 3 << 1 << 1;
    QTest::newRow("exactly all") << 3 << 3 << 3;
    QTest::newRow("three of two gives both") << 2 << 3 << 2;
    QTest::newRow("zero gives all") << 4 << 0 << 4;
}

void TestKXBlockQueues::getTaskTakesAPrefixOrEverything()
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

void TestKXBlockQueues::duplicateIsListedTwiceIndexedOnce()
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

void TestKXBlockQueues::movesLeaveTheBlockInTheTargetOnly()
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

void TestKXBlockQueues::concurrentMovesLoseNothing()
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

void TestKXBlockQueues::reportIsFiledByState_data()
{
    QTest::addColumn<int>("state");
    QTest::addColumn<int>("stage");
    QTest::newRow("completed") << int(BlockTaskStateCompleted) << int(CKXBlockMgr::Complete);
    QTest::newRow("failed") << int(BlockTaskStateError) << int(CKXBlockMgr::Error);
    QTest::newRow("paused") << int(BlockTaskStatePaused) << int(CKXBlockMgr::Pause);
    QTest::newRow("still working") << int(BlockTaskStateWorking) << int(CKXBlockMgr::Running);
}

void TestKXBlockQueues::reportIsFiledByState()
{
    QFETCH(int, state);
    QFETCH(int, stage);
    const auto blocks = makeBlocks(2);
    CKXTransferTask task;
    CKXBlockHandler handler(&task);
    CKXBlockMgr mgr;
    mgr.addWaitingQueueWithMutex(blocks[1].get()); // keeps the loop of this thread alive
    mgr.addRunningQueueWithMutex(blocks[0].get());
    blocks[0]->setState(BlockTaskState(state));
    CKXBlockOpQueue queue(&mgr, &handler, 1);
    // A report of a block no thread is registered for is still filed.
    queue.blockFinish(nullptr, blocks[0].get(), 0);
    QCOMPARE(mgr.tasks(CKXBlockMgr::Stage(stage)), QList<CKXBlockTask*>{blocks[0].get()});
    QCOMPARE(mgr.count(CKXBlockMgr::Waiting), 1);
    QVERIFY(!queue.isCancelled());
}

void TestKXBlockQueues::lastReportEndsTheEventLoop()
{
    const auto blocks = makeBlocks(2);
    CKXTransferTask task;
    CKXBlockHandler handler(&task);
    CKXBlockMgr mgr;
    mgr.addCompleteQueueWithMutex(blocks[0].get());
    mgr.addRunningQueueWithMutex(blocks[1].get());
    blocks[1]->setState(BlockTaskStateError);
    CKXBlockOpQueue queue(&mgr, &handler, 2);
    // The loop stands for the chunked transfer's; only the dispatcher's exit(0) ends it with 0.
    QEventLoop loop;
    QTimer::singleShot(0, &queue, [&] { queue.blockFinish(nullptr, blocks[1].get(), ServerError); });
    QTimer::singleShot(60000, &loop, [&] { loop.exit(1); });
    QCOMPARE(loop.exec(), 0);
    QVERIFY(queue.isCancelled());
    QCOMPARE(mgr.tasks(CKXBlockMgr::Error), QList<CKXBlockTask*>{blocks[1].get()});
    QVERIFY(mgr.isEmpty(CKXBlockMgr::Running));
}

QTEST_GUILESS_MAIN(TestKXBlockQueues)
#include "tst_KXBlockQueues.moc"
