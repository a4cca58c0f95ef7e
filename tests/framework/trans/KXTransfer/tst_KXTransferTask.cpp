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
    void stateFlagsAddAndRemove();
    void setLocalFileInfoKeepsStoredSize();
    void fromJsonReplacesOnlyOnGoodText();
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

void TestKXTransferTask::stateFlagsAddAndRemove()
{
    CKXTransferTask task;
    task.addTaskState(StateWorking);
    task.addTaskState(StatePaused);
    QCOMPARE(int(task.getTaskState()), StateWorking | StatePaused);
    task.removeTaskState(StateWorking);
    QCOMPARE(task.getTaskState(), StatePaused);
    task.removeTaskState(StateError);
    QCOMPARE(task.getTaskState(), StatePaused);
    task.setTaskState(StateCompleted);
    QCOMPARE(task.getTaskState(), StateCompleted);
}

void TestKXTransferTask::setLocalFileInfoKeepsStoredSize()
{
    CKXTransferTask task;
    LocalFileInfo local;
    local.size = 500;
    local.path = QStringLiteral("/tmp/本地.bin");
    local.time = QStringLiteral("1700000000");
    task.setLocalFileInfo(local);

    const LocalFileInfo stored = task.getLocalFileInfo();
    QCOMPARE(stored.size, 0LL);
    QCOMPARE(stored.path, local.path);
    QCOMPARE(stored.time, local.time);
}

void TestKXTransferTask::fromJsonReplacesOnlyOnGoodText()
{
    CKXTransferTask task(sampleSubTaskInfo());
    const QString before = task.ToJson();
    QVERIFY(!task.FromJson(QStringLiteral("[1,2]")));
    QVERIFY(!task.FromJson(QStringLiteral("{\"size\":")));
    QCOMPARE(task.getPartSize(), sampleSubTaskInfo().partSizes);
    QCOMPARE(task.ToJson(), before);

    QVERIFY(task.FromJson(QStringLiteral(R"({"subtask_id":"s2","size":10})")));
    QCOMPARE(task.getId(), QStringLiteral("s2"));
    QCOMPARE(task.getSize(), 10LL);
    QCOMPARE(task.getSendBytes(), -1LL);
    // The text is read into a fresh record, so nothing of the old one survives.
    QVERIFY(task.getPartSize().isEmpty());
    QCOMPARE(int(task.getTransferMethod()), 1);

    QVERIFY(task.FromJson(before));
    QCOMPARE(task.ToJson(), sampleTaskText());
}

namespace {

struct ContentionResult
{
    qint64 expected = 0;
    qint64 sum = 0;
    int snapshots = 0;
    int faults = 0;
};

// Adders, a writer of the whole remote part and JSON readers on one task, all released at the
// same moment so their work really overlaps. A reader counts a fault when a snapshot does not
// read back, mixes two remote parts, or shows the byte count going back or past the total.
ContentionResult runContention(int adders, int addsEach)
{
    const SubTaskInfo start = [] {
        SubTaskInfo s = sampleSubTaskInfo();
        s.sendBytes = 0;
        return s;
    }();
    const qint64 total = qint64(adders) * addsEach;
    CKXTransferTask task(start);
    std::atomic<int> addersLeft{adders};
    std::atomic<int> ready{0};
    std::atomic<bool> go{false};
    std::atomic<int> snapshots{0};
    std::atomic<int> faults{0};
    auto gate = [&] {
        ++ready;
        while (!go.load()) {
            QThread::yieldCurrentThread();
        }
    };
    auto snapshotOk = [&](const SubTaskInfo& seen, qint64 last) {
        const qint64 k = seen.remoteFile.size;
        const bool remoteOk = (k == start.remoteFile.size && seen.remoteFile.path == start.remoteFile.path) ||
                              (seen.remoteFile.path == QStringLiteral("/dir/%1").arg(k) &&
                               seen.remoteFile.neid == QStringLiteral("neid-%1").arg(k));
        return remoteOk && seen.sendBytes >= last && seen.sendBytes <= total &&
               seen.subTaskId == start.subTaskId;
    };

    std::vector<std::unique_ptr<QThread>> threads;
    for (int i = 0; i < adders; ++i) {
        threads.emplace_back(QThread::create([&] {
            gate();
            for (int n = 0; n < addsEach; ++n) {
                task.addSendBytes(1);
            }
            --addersLeft;
        }));
    }
    threads.emplace_back(QThread::create([&] {
        gate();
        for (int k = 1; addersLeft.load() > 0 || k <= 50; ++k) {
            RemoteFileInfo remote;
            remote.size = k;
            remote.path = QStringLiteral("/dir/%1").arg(k);
            remote.neid = QStringLiteral("neid-%1").arg(k);
            task.setRemoteFileInfo(remote);
        }
    }));
    for (int r = 0; r < 2; ++r) {
        threads.emplace_back(QThread::create([&] {
            gate();
            qint64 last = 0;
            // A few rounds at least, even if the adders are already through.
            for (int round = 0; addersLeft.load() > 0 || round < 50; ++round) {
                SubTaskInfo seen;
                const bool ok = CKXJsonConvert::JsonString2SubTaskInfo(task.ToJson(), seen);
                if (!ok || !snapshotOk(seen, last)) {
                    ++faults;
                }
                last = seen.sendBytes;
                ++snapshots;
            }
        }));
    }
    for (auto& t : threads) {
        t->start();
    }
    while (ready.load() < int(threads.size())) {
        QThread::yieldCurrentThread();
    }
    go = true;
    for (auto& t : threads) {
        t->wait();
    }
    return {total, task.getSendBytes(), snapshots.load(), faults.load()};
}

} // namespace

void TestKXTransferTask::concurrentProgressAndSnapshots()
{
    // Lost updates only show when two adders run on two cores at once; several short rounds
    // make that far more likely than one long one. Without the lock nearly every round loses
    // some of its adds, so a few suffice.
    for (int round = 0; round < 4; ++round) {
        const ContentionResult r = runContention(2, 200000);
        QCOMPARE(r.sum, r.expected);
        QCOMPARE(r.faults, 0);
        QVERIFY(r.snapshots > 0);
    }
}

QTEST_GUILESS_MAIN(TestKXTransferTask)
#include "tst_KXTransferTask.moc"
