// The event loop of engine threads: queued calls from other threads arrive in order, timers fire
// by due time and a stopped one never does, and exit() from another thread ends a loop that sleeps.

#include "KXTFBaseThread.h"

#include <QSemaphore>
#include <QTimer>
#include <QtTest>

#include <atomic>
#include <functional>

namespace {

// Runs `setUp` on its own thread, then the thread's event loop until something calls exit().
class LoopThread : public CKXTFBaseThread
{
public:
    std::function<void(LoopThread*)> setUp;
    QObject* context = nullptr; // lives on the thread while the loop runs
    QSemaphore ready;
    QStringList seen; // written on the thread only; read after wait()

protected:
    void run() override
    {
        QObject here;
        context = &here;
        if (setUp) {
            setUp(this);
        }
        ready.release();
        exec();
        context = nullptr;
    }
};

void note(LoopThread* thread, const QString& what)
{
    thread->seen.append(what);
}

using SetUp = std::function<void(LoopThread*)>;

} // namespace

Q_DECLARE_METATYPE(SetUp)

class TestKXEventDispatcher : public QObject
{
    Q_OBJECT

private slots:
    void loop_data();
    void loop();
};

void TestKXEventDispatcher::loop_data()
{
    QTest::addColumn<SetUp>("setUp");
    QTest::addColumn<bool>("exitFromOutside");
    QTest::addColumn<QStringList>("expected");

    QTest::newRow("queued calls, then exit from outside") << SetUp() << true << QStringList{"a", "b", "c"};
    QTest::newRow("timers by due time, a stopped one quiet") << SetUp([](LoopThread* t) {
        QTimer::singleShot(60, t->context, [t] {
            note(t, "late");
            t->exit(0);
        });
        QTimer::singleShot(5, t->context, [t] { note(t, "early"); });
        auto* stopped = new QTimer(t->context);
        QObject::connect(stopped, &QTimer::timeout, t->context, [t] { note(t, "stopped"); });
        stopped->start(20);
        stopped->stop();
    }) << false << QStringList{"early", "late"};
    QTest::newRow("repeating timer") << SetUp([](LoopThread* t) {
        auto* ticker = new QTimer(t->context);
        QObject::connect(ticker, &QTimer::timeout, t->context, [t, ticker] {
            note(t, "tick");
            if (t->seen.size() == 3) {
                ticker->stop();
                t->exit(0);
            }
        });
        ticker->start(2);
    }) << false << QStringList{"tick", "tick", "tick"};
}

void TestKXEventDispatcher::loop()
{
    QFETCH(SetUp, setUp);
    QFETCH(bool, exitFromOutside);
    QFETCH(QStringList, expected);

    LoopThread thread;
    thread.setUp = setUp;
    // Once the last queued call has run, the loop's next sleep is reported, so that the exit
    // below meets a loop that sleeps or is about to.
    std::atomic<bool> armed{false};
    QSemaphore asleep;
    QObject::connect(thread.eventDispatcher(), &QAbstractEventDispatcher::aboutToBlock, [&] {
        if (armed) {
            asleep.release();
        }
    });
    thread.start();
    QVERIFY(thread.ready.tryAcquire(1, 10000));
    if (exitFromOutside) {
        for (const QString& what : expected) {
            QMetaObject::invokeMethod(
                thread.context,
                [&thread, &armed, what, last = what == expected.last()] {
                    note(&thread, what);
                    armed = last;
                },
                Qt::QueuedConnection);
        }
        QVERIFY(asleep.tryAcquire(1, 10000));
        thread.exit(0);
    }
    QVERIFY(thread.wait(10000));
    QCOMPARE(thread.seen, expected);
}

QTEST_GUILESS_MAIN(TestKXEventDispatcher)
#include "tst_KXEventDispatcher.moc"
