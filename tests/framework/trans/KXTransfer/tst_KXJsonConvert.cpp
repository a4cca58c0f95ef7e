// The JSON text of a task record: what stored rows look like and how tolerant reading is.

#include "KXJsonConvert.h"
#include "KXTaskRecordSample.h"

#include <QtTest>

class TestKXJsonConvert : public QObject
{
    Q_OBJECT

private slots:
    void storedTextReadsAndWritesBackUnchanged();
    void emptyObjectReadsMissingNumbersAsMinusOne();
    void readersAcceptOtherJsonTypes();
    void badTextLeavesRecordUntouched_data();
    void badTextLeavesRecordUntouched();
    void optionalKeysAreWrittenOnlyWhenMeaningful();
    void stateToText_data();
    void stateToText();
    void textToState_data();
    void textToState();
};

// Every persisted field of the sample is away from its default, so a field that is not read, or
// read into the wrong place, changes the text written back.
void TestKXJsonConvert::storedTextReadsAndWritesBackUnchanged()
{
    const SubTaskInfo info = sampleSubTaskInfo();
    QCOMPARE(persisted(info), sampleTaskText());
    QCOMPARE(info.password, QStringLiteral("hunter2-密码\"'\\"));
    QCOMPARE(int(info.state), StateWorking | StatePaused);
    QVERIFY(info.remoteFile.isDir);
}

void TestKXJsonConvert::emptyObjectReadsMissingNumbersAsMinusOne()
{
    SubTaskInfo info = sampleSubTaskInfo();
    QVERIFY(CKXJsonConvert::JsonString2SubTaskInfo(QStringLiteral("{}"), info));
    for (qint64 v :
         {info.size, info.sendBytes, info.completeBytes, info.usedTime, info.completeTime, info.timeRetry,
          qint64(info.priority), qint64(info.errorCode), qint64(info.httpCode), qint64(info.retryTimes)}) {
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
}

// Every reader is one of four (string, integer, wide integer, flag); each meets the JSON types a
// stored row should not hold, at the top level and inside the remote part.
void TestKXJsonConvert::readersAcceptOtherJsonTypes()
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

void TestKXJsonConvert::badTextLeavesRecordUntouched_data()
{
    QTest::addColumn<QString>("text");
    QTest::newRow("array") << QStringLiteral("[1,2]");
    QTest::newRow("not json") << QStringLiteral("not json");
    QTest::newRow("empty") << QString();
    QTest::newRow("string") << QStringLiteral("\"{}\"");
    QTest::newRow("null") << QStringLiteral("null");
    QTest::newRow("truncated") << QStringLiteral("{\"size\":1,\"task_id\":\"a");
    QTest::newRow("trailing") << QStringLiteral("{\"size\":1} x");
}

void TestKXJsonConvert::badTextLeavesRecordUntouched()
{
    QFETCH(QString, text);
    SubTaskInfo info = sampleSubTaskInfo();
    QVERIFY(!CKXJsonConvert::JsonString2SubTaskInfo(text, info));
    QCOMPARE(persisted(info), sampleTaskText());
}

void TestKXJsonConvert::optionalKeysAreWrittenOnlyWhenMeaningful()
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

void TestKXJsonConvert::stateToText_data()
{
    QTest::addColumn<int>("state");
    QTest::addColumn<QString>("text");
    QTest::newRow("none") << 0 << "StateNone";
    QTest::newRow("error+stop") << 160 << "StateError|StateStop";
    QTest::newRow("only unnamed bit") << 256 << "";
    QTest::newRow("named and unnamed") << (256 | 1) << "StateWaitPreparing";
    QTest::newRow("all") << 255
                         << "StateWaitPreparing|StatePreparing|StateWorking|StatePaused|StateWaiting|"
                            "StateError|StateCompleted|StateStop";
}

void TestKXJsonConvert::stateToText()
{
    QFETCH(int, state);
    QFETCH(QString, text);
    QCOMPARE(CKXJsonConvert::taskStateToString(static_cast<TaskState>(state)), text);
}

void TestKXJsonConvert::textToState_data()
{
    QTest::addColumn<QString>("text");
    QTest::addColumn<int>("state");
    QTest::newRow("none wins") << "StateNone|StateWorking" << 0;
    QTest::newRow("no separator") << "StateErrorStateStop" << 160;
    QTest::newRow("wait preparing alone") << "StateWaitPreparing" << 1;
    QTest::newRow("waiting alone") << "StateWaiting" << 16;
    QTest::newRow("case matters") << "stateworking" << 0;
    QTest::newRow("empty") << "" << 0;
}

void TestKXJsonConvert::textToState()
{
    QFETCH(QString, text);
    QFETCH(int, state);
    QCOMPARE(int(CKXJsonConvert::stringToTaskState(text)), state);
}

QTEST_GUILESS_MAIN(TestKXJsonConvert)
#include "tst_KXJsonConvert.moc"
