// The task and block records: their JSON text (what stored rows look like, how tolerant reading
// is, the state texts of both), clearing, and the lock-guarded task holder under contention.

#include "KXBlockJsonConvert.h"
#include "KXBlockTask.h"
#include "KXJsonConvert.h"
#include "KXTaskRecordSample.h"
#include "KXTransferTask.h"

#include <QThread>
#include <QtTest>

#include <atomic>
#include <memory>
#include <vector>

namespace {

// A stored block with every field away from its default, exactly as the engine writes it (the
// upload flag under two keys, the message as "error_info").
const QString kBlockText =
    QStringLiteral(R"({"id":"6f1c2c1e-4a3b-4c1d-9e2f-0a1b2c3d4e5f","sub_task_id":"sub-01","isupload":true,)"
                   R"("is_quick_trans":true,"state":"BlockTaskStateWorking|BlockTaskStateError",)"
                   R"("length":4194304,"loc":8388608,"idx":2,)"
                   R"("hash":"9f86d081884c7d659a2feaa0c55ad015a3bf4f1b2b0b822cd15d6c15b0f00a08",)"
                   R"("error_code":20104,"error_info":"分块序号错误 \"idx\"","sent":1024,"total":4194304,)"
                   R"("is_upload":true})");

// The block of kBlockText with what its text does not carry back: message, status, task record.
BlockTaskInfo sampleBlock()
{
    BlockTaskInfo b;
    CKXBlockJsonConvert::JsonString2BlockInfo(kBlockText, b);
    b.errorMsg = QStringLiteral("分块序号错误 \"idx\"");
    b.statusCode = 503;
    b.subTaskInfo = sampleSubTaskInfo();
    return b;
}

RemoteFileInfo numberedRemote(qint64 k)
{
    RemoteFileInfo remote;
    remote.size = k;
    remote.path = QStringLiteral("/dir/%1").arg(k);
    remote.neid = QStringLiteral("neid-%1").arg(k);
    return remote;
}

} // namespace

class TestKXTransferTask : public QObject
{
    Q_OBJECT

private slots:
    void storedTextsReadAndWriteBackUnchanged();
    void missingKeysReadAsMinusOne();
    void readersAcceptOtherJsonTypes();
    void badTextLeavesRecordUntouched_data();
    void badTextLeavesRecordUntouched();
    void nothingOfTheOldRecordSurvives();
    void settersChangeOnlyTheirPart();
    void optionalKeysAreWrittenOnlyWhenMeaningful();
    void stateTexts_data();
    void stateTexts();
    void concurrentProgressAndSnapshots();
};

// Every persisted field of both samples is away from its default, so a field that is not read, or
// read into the wrong place, changes the text written back; the block loses only what its text
// does not carry.
void TestKXTransferTask::storedTextsReadAndWriteBackUnchanged()
{
    const SubTaskInfo info = sampleSubTaskInfo();
    QCOMPARE(persisted(info), sampleTaskText());
    QCOMPARE(info.password, QStringLiteral("hunter2-密码\"'\\"));
    QCOMPARE(int(info.state), StateWorking | StatePaused);
    QVERIFY(info.remoteFile.isDir);

    BlockTaskInfo read;
    QVERIFY(CKXBlockJsonConvert::JsonString2BlockInfo(kBlockText, read));
    // Written as "error_info", read from "error_msg": the message never comes back.
    QVERIFY(read.errorMsg.isEmpty());
    // Neither the status nor the task record is in the text.
    QCOMPARE(read.statusCode, 0);
    QVERIFY(read.subTaskInfo.subTaskId.isEmpty());
    QCOMPARE(CKXBlockJsonConvert::BlockInfo2JsonString(sampleBlock()), kBlockText);

    // The upload flag is read from one of the two keys it is written under.
    BlockTaskInfo b;
    QVERIFY(CKXBlockJsonConvert::JsonString2BlockInfo(QStringLiteral(R"({"isupload":true})"), b));
    QVERIFY(!b.isUpload);
    QVERIFY(CKXBlockJsonConvert::JsonString2BlockInfo(QStringLiteral(R"({"is_upload":1,"error_msg":"坏块"})"),
                                                      b));
    QVERIFY(b.isUpload);
    QCOMPARE(b.errorMsg, QStringLiteral("坏块"));
}

void TestKXTransferTask::missingKeysReadAsMinusOne()
{
    SubTaskInfo info = sampleSubTaskInfo();
    QVERIFY(CKXJsonConvert::JsonString2SubTaskInfo(QStringLiteral("{}"), info));
    BlockTaskInfo b = sampleBlock();
    QVERIFY(CKXBlockJsonConvert::JsonString2BlockInfo(QStringLiteral("{}"), b));
    for (qint64 v :
         {info.size, info.sendBytes, info.completeBytes, info.usedTime, info.completeTime, info.timeRetry,
          qint64(info.priority), qint64(info.errorCode), qint64(info.httpCode), qint64(info.retryTimes),
          qint64(b.idx), b.length, b.loc, b.sent, b.total, qint64(b.errorCode)}) {
        QCOMPARE(v, -1LL);
    }
    // Only present keys may change these three.
    QCOMPARE(int(info.transMethod), 2);
    QCOMPARE(int(info.rsyncState), 3);
    QCOMPARE(int(info.taskSource), 7);
    QCOMPARE(info.state, StateNone);
    QVERIFY(info.taskId.isEmpty() && info.password.isEmpty() && info.dataServerHost.isEmpty());
    QVERIFY(!info.isUpload && !info.isVirus && !info.isChunckComplete);
    // No remote or local object in the text: those parts are not touched.
    QCOMPARE(info.remoteFile.path, sampleSubTaskInfo().remoteFile.path);
    QCOMPARE(info.localFile.size, sampleSubTaskInfo().localFile.size);
    QCOMPARE(int(b.state), 0);
    QVERIFY(b.taskId.isEmpty() && b.hash.isEmpty());
    QVERIFY(!b.isUpload && !b.quickTrans);
}

// Every reader is one of four (string, integer, wide integer, flag); each meets the JSON types a
// stored row should not hold, at the top level and inside the remote part.
void TestKXTransferTask::readersAcceptOtherJsonTypes()
{
    const QString text = QStringLiteral(
        R"({"size":"2048","send_bytes":"12abc","complete_bytes":2.5,"priority":"7","retry_times":true,)"
        R"("subtask_id":42,"error_info":1.5,"task_id":null,"is_upload":1,"is_folder":0,"is_virus":0.5,)"
        R"("is_main_subtask":"true","transmethod":"5","rsyncstate":"x","vault_file":{"is_dir":1}})");
    SubTaskInfo info;
    QVERIFY(CKXJsonConvert::JsonString2SubTaskInfo(text, info));
    QCOMPARE(info.size, 2048LL);
    QCOMPARE(info.sendBytes, -1LL);
    QCOMPARE(info.completeBytes, -1LL);
    QCOMPARE(info.priority, 7);
    QCOMPARE(info.retryTimes, -1);
    QCOMPARE(info.subTaskId, QStringLiteral("42"));
    QCOMPARE(info.errorInfo, QStringLiteral("1.5"));
    QVERIFY(info.taskId.isEmpty());
    QVERIFY(info.isUpload);
    QVERIFY(!info.isFolder);
    QVERIFY(info.isVirus);
    QVERIFY(!info.isMainSubTask);
    QCOMPARE(int(info.transMethod), 5);
    QCOMPARE(int(info.rsyncState), 1);
    QVERIFY(info.remoteFile.isDir);
}

void TestKXTransferTask::badTextLeavesRecordUntouched_data()
{
    QTest::addColumn<QString>("text");
    QTest::newRow("array") << QStringLiteral("[1,2]");
    QTest::newRow("empty array") << QStringLiteral("[]");
    QTest::newRow("not json") << QStringLiteral("not json");
    QTest::newRow("empty") << QString();
    QTest::newRow("string") << QStringLiteral("\"{}\"");
    QTest::newRow("null") << QStringLiteral("null");
    QTest::newRow("truncated") << QStringLiteral("{\"size\":1,\"task_id\":\"a");
    QTest::newRow("cut after value") << QStringLiteral("{\"size\":");
    QTest::newRow("trailing") << QStringLiteral("{\"size\":1} x");
    // A damaged row nested this deep would overflow any thread's stack in a recursive reader.
    QTest::newRow("nested a million deep")
        << QString(1000000, QLatin1Char('[')) + QString(1000000, QLatin1Char(']'));
}

// The task record, the task holder and the block (with the task record it carries) all stay as
// they were, also the parts the text never holds.
void TestKXTransferTask::badTextLeavesRecordUntouched()
{
    QFETCH(QString, text);
    SubTaskInfo info = sampleSubTaskInfo();
    QVERIFY(!CKXJsonConvert::JsonString2SubTaskInfo(text, info));
    QCOMPARE(persisted(info), sampleTaskText());

    CKXTransferTask task(sampleSubTaskInfo());
    QVERIFY(!task.FromJson(text));
    QCOMPARE(task.ToJson(), sampleTaskText());
    QCOMPARE(task.getPartSize(), sampleSubTaskInfo().partSizes);

    CKXBlockTask block(sampleBlock());
    QVERIFY(!block.FromJson(text));
    const BlockTaskInfo b = block.getBlockTaskInfo();
    QCOMPARE(CKXBlockJsonConvert::BlockInfo2JsonString(b),
             CKXBlockJsonConvert::BlockInfo2JsonString(sampleBlock()));
    QCOMPARE(b.statusCode, 503);
    QCOMPARE(persisted(block.info()), sampleTaskText());
    QCOMPARE(block.info().partSizes, sampleSubTaskInfo().partSizes);
}

// A record that has been in use must not carry any of it into its next use: a good text is read
// into a fresh record, and clearing leaves a default one.
void TestKXTransferTask::nothingOfTheOldRecordSurvives()
{
    CKXTransferTask task(sampleSubTaskInfo());
    QVERIFY(task.FromJson(QStringLiteral(R"({"subtask_id":"s2","size":10})")));
    QCOMPARE(task.getId(), QStringLiteral("s2"));
    QCOMPARE(task.getSize(), 10LL);
    QCOMPARE(task.getSendBytes(), -1LL);
    QVERIFY(task.getPartSize().isEmpty());
    QCOMPARE(int(task.getTransferMethod()), 1);
    QVERIFY(task.FromJson(sampleTaskText()));
    QCOMPARE(task.ToJson(), sampleTaskText());
    task.clear();
    QCOMPARE(persisted(task.getSubTaskInfo()), persisted(SubTaskInfo()));
    SubTaskInfo info = sampleSubTaskInfo();
    info.clear();
    QCOMPARE(persisted(info), persisted(SubTaskInfo()));
    QVERIFY(info.partSizes.isEmpty());

    // The block's task record goes too.
    CKXBlockTask block(sampleBlock());
    QVERIFY(block.FromJson(QStringLiteral(R"({"id":"b2","idx":7})")));
    QCOMPARE(block.taskId(), QStringLiteral("b2"));
    QCOMPARE(block.idx(), 7);
    QVERIFY(block.info().subTaskId.isEmpty());
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

void TestKXTransferTask::optionalKeysAreWrittenOnlyWhenMeaningful()
{
    SubTaskInfo download = sampleSubTaskInfo();
    download.isUpload = false;
    QVERIFY(!persisted(download).contains(QStringLiteral("new_metadata")));

    SubTaskInfo bare = sampleSubTaskInfo();
    bare.newMetadata.clear();
    bare.newVaultPath.clear();
    bare.password.clear();
    // A folder has no local size: it is neither written nor, when missing, read as -1 for it.
    bare.isFolder = true;
    const QString text = persisted(bare);
    for (const char* key : {"\"new_metadata\"", "\"new_vault_path\"", "\"pass\"", "\"size\":9000000001}"}) {
        QVERIFY2(!text.contains(QLatin1String(key)), key);
    }
    SubTaskInfo read;
    read.localFile.size = 555;
    QVERIFY(CKXJsonConvert::JsonString2SubTaskInfo(text, read));
    QVERIFY(read.password.isEmpty());
    QCOMPARE(read.localFile.size, 555LL);
    // A file task whose stored text lost the size reads it as -1.
    QVERIFY(CKXJsonConvert::JsonString2SubTaskInfo(QStringLiteral(R"({"local_file":{"path":"/a"}})"), read));
    QCOMPARE(read.localFile.size, -1LL);
}

// Rows named "block ..." are the block record's states, the others the task record's; a row reads
// one way only, from the state to its text (">") or back ("<").
void TestKXTransferTask::stateTexts_data()
{
    QTest::addColumn<QString>("way");
    QTest::addColumn<int>("state");
    QTest::addColumn<QString>("text");
    QTest::newRow("none") << ">" << 0 << "StateNone";
    QTest::newRow("error+stop") << ">" << 160 << "StateError|StateStop";
    QTest::newRow("only unnamed bit") << ">" << 256 << "";
    QTest::newRow("named and unnamed") << ">" << (256 | 1) << "StateWaitPreparing";
    QTest::newRow("all") << ">" << 255
                         << "StateWaitPreparing|StatePreparing|StateWorking|StatePaused|StateWaiting|"
                            "StateError|StateCompleted|StateStop";
    QTest::newRow("none wins") << "<" << 0 << "StateNone|StateWorking";
    QTest::newRow("no separator") << "<" << 160 << "StateErrorStateStop";
    QTest::newRow("wait preparing alone") << "<" << 1 << "StateWaitPreparing";
    QTest::newRow("waiting alone") << "<" << 16 << "StateWaiting";
    QTest::newRow("case matters") << "<" << 0 << "stateworking";
    QTest::newRow("empty") << "<" << 0 << "";
    QTest::newRow("block none") << ">" << 1 << "BlockTaskStateNone";
    QTest::newRow("block working+error") << ">" << 10 << "BlockTaskStateWorking|BlockTaskStateError";
    QTest::newRow("block completed") << ">" << 16 << "BlockTaskStateCompleted";
    QTest::newRow("block zero") << ">" << 0 << "";
    QTest::newRow("block none bit in a set") << ">" << 3 << "BlockTaskStateWorking";
    QTest::newRow("block all") << ">" << 31
                               << "BlockTaskStateWorking|BlockTaskStatePaused|BlockTaskStateError|"
                                  "BlockTaskStateCompleted";
    QTest::newRow("block pair") << "<" << 10 << "BlockTaskStateWorking|BlockTaskStateError";
    QTest::newRow("block none wins") << "<" << 1 << "BlockTaskStateCompleted|BlockTaskStateNone";
    QTest::newRow("block no separator") << "<" << 20 << "BlockTaskStatePausedBlockTaskStateCompleted";
    QTest::newRow("block from a task state text") << "<" << 0 << "StateWorking";
    QTest::newRow("block empty") << "<" << 0 << "";
}

void TestKXTransferTask::stateTexts()
{
    QFETCH(QString, way);
    QFETCH(int, state);
    QFETCH(QString, text);
    const bool block = QByteArray(QTest::currentDataTag()).startsWith("block");
    if (way == QLatin1String(">")) {
        QCOMPARE(block ? CKXBlockJsonConvert::taskStateToString(static_cast<BlockTaskState>(state))
                       : CKXJsonConvert::taskStateToString(static_cast<TaskState>(state)),
                 text);
    } else {
        QCOMPARE(block ? int(CKXBlockJsonConvert::stringToTaskState(text))
                       : int(CKXJsonConvert::stringToTaskState(text)),
                 state);
    }
}

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
        // Every thread spins at the gate until all four are there, so their work really overlaps.
        std::atomic<int> ready{0};
        const auto gate = [&] {
            ++ready;
            while (ready.load() < 4) {
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
        for (auto& thread : threads) {
            QVERIFY(thread->wait(60000));
        }
        QCOMPARE(task.getSendBytes(), 2 * addsEach);
        QCOMPARE(faults.load(), 0);
    }
}

QTEST_GUILESS_MAIN(TestKXTransferTask)
#include "tst_KXTransferTask.moc"
