// The task record's defaults and the lock-guarded task holder, including under contention.

#include "KXJsonConvert.h"
#include "KXTaskRecordSample.h"
#include "KXTransferTask.h"

#include <QThread>
#include <QtTest>

#include <atomic>
#include <memory>
#include <vector>

class TestKXTransferTask : public QObject
{
    Q_OBJECT

private slots:
    void clearRestoresDefaults();
    void settersChangeOnlyTheirPart();
    void concurrentProgressAndSnapshots();
};

// A record that has been in use must not carry any of it into its next use.
void TestKXTransferTask::clearRestoresDefaults()
{
    SubTaskInfo info = sampleSubTaskInfo();
    info.clear();
    QCOMPARE(persisted(info), persisted(SubTaskInfo()));
    CKXTransferTask task(sampleSubTaskInfo());
    task.clear();
    QCOMPARE(persisted(task.getSubTaskInfo()), persisted(SubTaskInfo()));
    QVERIFY(task.getPartSize().isEmpty());
}

void TestKXTransferTask::settersChangeOnlyTheirPart()
{
    CKXTransferTask task;
    task.addTaskState(StateWorking);
    task.addTaskState(StatePaused);
    task.removeTaskState(StateWorking);
    task.removeTaskState(StateError);
    QCOMPARE(task.getTaskState(), StatePaused);

    // The size of the local part is the task's own and stays.
    LocalFileInfo local;
    local.size = 500;
    local.path = QStringLiteral("/tmp/本地.bin");
    local.time = QStringLiteral("1700000000");
    task.setLocalFileInfo(local);
    QCOMPARE(task.getLocalFileInfo().size, 0LL);
    QCOMPARE(task.getLocalFileInfo().path, local.path);
    QCOMPARE(task.getLocalFileInfo().time, local.time);
}

namespace {

RemoteFileInfo numberedRemote(qint64 k)
{
    RemoteFileInfo remote;
    remote.size = k;
    remote.path = QStringLiteral("/dir/%1").arg(k);
    remote.neid = QStringLiteral("neid-%1").arg(k);
    return remote;
}

} // namespace

// Two adders, a writer of the whole remote part and a reader of JSON snapshots on one task, let
// go together. The reader counts a fault when a snapshot does not read back, mixes two remote
// parts, or shows the byte count going back or past the total.
void TestKXTransferTask::concurrentProgressAndSnapshots()
{
    // Lost updates only show when two adders run on two cores at once; several short rounds make
    // that far more likely than one long one.
    const qint64 addsEach = 1000000;
    for (int round = 0; round < 6; ++round) {
        CKXTransferTask task;
        task.setRemoteFileInfo(numberedRemote(0));
        std::atomic<int> addersLeft{2};
        std::atomic<int> faults{0};
        // Every thread spins at the gate until all are there, so their work really overlaps.
        std::atomic<int> ready{0};
        std::atomic<bool> go{false};
        const auto gate = [&] {
            ++ready;
            while (!go.load()) {
                QThread::yieldCurrentThread();
            }
        };
        std::vector<std::unique_ptr<QThread>> threads;
        for (int i = 0; i < 2; ++i) {
            threads.emplace_back(QThread::create([&] {
                gate();
                for (qint64 n = 0; n < addsEach; ++n) {
                    task.addSendBytes(1);
                }
                --addersLeft;
            }));
        }
        threads.emplace_back(QThread::create([&] {
            gate();
            for (qint64 k = 1; addersLeft.load() > 0 || k <= 50; ++k) {
                task.setRemoteFileInfo(numberedRemote(k));
            }
        }));
        threads.emplace_back(QThread::create([&] {
            gate();
            qint64 last = 0;
            for (int n = 0; addersLeft.load() > 0 || n < 50; ++n) {
                SubTaskInfo seen;
                const bool ok = CKXJsonConvert::JsonString2SubTaskInfo(task.ToJson(), seen);
                const RemoteFileInfo expected = numberedRemote(seen.remoteFile.size);
                if (!ok || seen.remoteFile.path != expected.path || seen.remoteFile.neid != expected.neid ||
                    seen.sendBytes < last || seen.sendBytes > 2 * addsEach) {
                    ++faults;
                }
                last = seen.sendBytes;
            }
        }));
        for (auto& thread : threads) {
            thread->start();
        }
        while (ready.load() < int(threads.size())) {
            QThread::yieldCurrentThread();
        }
        go = true;
        for (auto& thread : threads) {
            QVERIFY(thread->wait(60000));
        }
        QCOMPARE(task.getSendBytes(), 2 * addsEach);
        QCOMPARE(faults.load(), 0);
    }
}

QTEST_GUILESS_MAIN(TestKXTransferTask)
#include "tst_KXTransferTask.moc"
