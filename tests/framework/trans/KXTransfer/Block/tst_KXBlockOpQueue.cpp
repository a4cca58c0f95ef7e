// The dispatcher without a server: filing of reported blocks by their state, and the end of the
// chunked transfer's event loop when nothing is left.

#include "KXBlockHandler.h"
#include "KXBlockMgr.h"
#include "KXBlockOpQueue.h"
#include "KXBlockTask.h"
#include "KXTransferTask.h"

#include <QEventLoop>
#include <QTemporaryDir>
#include <QTimer>
#include <QtTest>

#include <memory>
#include <vector>

namespace {

struct Engine
{
    explicit Engine(int blocks)
    {
        for (int i = 0; i < blocks; ++i) {
            auto block = std::make_unique<CKXBlockTask>();
            block->setTaskId(QStringLiteral("block-%1").arg(i));
            block->setIdx(i);
            this->blocks.push_back(std::move(block));
        }
    }
    CKXBlockTask* block(int i) { return blocks[size_t(i)].get(); }

    std::vector<std::unique_ptr<CKXBlockTask>> blocks;
    CKXTransferTask task;
    CKXBlockHandler handler{&task};
    CKXBlockMgr mgr;
};

} // namespace

class TestKXBlockOpQueue : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();

    void reportIsFiledByState_data();
    void reportIsFiledByState();
    void lastReportEndsTheEventLoop();

private:
    QTemporaryDir m_home;
};

void TestKXBlockOpQueue::initTestCase()
{
    QVERIFY(m_home.isValid());
    qputenv("XDG_DATA_HOME", m_home.path().toUtf8());
    qputenv("HOME", m_home.path().toUtf8());
}

void TestKXBlockOpQueue::reportIsFiledByState_data()
{
    QTest::addColumn<int>("state");
    QTest::addColumn<int>("stage");
    QTest::newRow("completed") << int(BlockTaskStateCompleted) << int(CKXBlockMgr::Complete);
    QTest::newRow("failed") << int(BlockTaskStateError) << int(CKXBlockMgr::Error);
    QTest::newRow("paused") << int(BlockTaskStatePaused) << int(CKXBlockMgr::Pause);
    QTest::newRow("still working") << int(BlockTaskStateWorking) << int(CKXBlockMgr::Running);
}

void TestKXBlockOpQueue::reportIsFiledByState()
{
    QFETCH(int, state);
    QFETCH(int, stage);
    Engine engine(2);
    engine.mgr.addWaitingQueueWithMutex(engine.block(1)); // keeps the loop of this thread alive
    engine.mgr.addRunningQueueWithMutex(engine.block(0));
    engine.block(0)->setState(BlockTaskState(state));
    CKXBlockOpQueue queue(&engine.mgr, &engine.handler, 1);
    // A report of a block no thread is registered for is still filed.
    queue.blockFinish(nullptr, engine.block(0), 0);
    QCOMPARE(engine.mgr.tasks(CKXBlockMgr::Stage(stage)), QList<CKXBlockTask*>{engine.block(0)});
    QCOMPARE(engine.mgr.count(CKXBlockMgr::Waiting), 1);
    QVERIFY(!queue.isCancelled());
}

void TestKXBlockOpQueue::lastReportEndsTheEventLoop()
{
    Engine engine(2);
    engine.mgr.addCompleteQueueWithMutex(engine.block(0));
    engine.mgr.addRunningQueueWithMutex(engine.block(1));
    engine.block(1)->setState(BlockTaskStateError);
    CKXBlockOpQueue queue(&engine.mgr, &engine.handler, 2);
    // The loop stands for the chunked transfer's; only the dispatcher's exit(0) ends it with 0.
    QEventLoop loop;
    QTimer::singleShot(0, &queue, [&] { queue.blockFinish(nullptr, engine.block(1), ServerError); });
    QTimer::singleShot(60000, &loop, [&] { loop.exit(1); });
    QCOMPARE(loop.exec(), 0);
    QVERIFY(queue.isCancelled());
    QCOMPARE(engine.mgr.tasks(CKXBlockMgr::Error), QList<CKXBlockTask*>{engine.block(1)});
    QVERIFY(engine.mgr.isEmpty(CKXBlockMgr::Running));
}

QTEST_GUILESS_MAIN(TestKXBlockOpQueue)
#include "tst_KXBlockOpQueue.moc"
