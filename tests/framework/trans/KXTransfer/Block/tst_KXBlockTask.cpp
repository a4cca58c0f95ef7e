// The block record's stored JSON form (asymmetric on purpose) and its state texts.

#include "../KXTaskRecordSample.h"
#include "KXBlockJsonConvert.h"
#include "KXBlockTask.h"

#include <QtTest>

namespace {

BlockTaskInfo sampleBlock()
{
    BlockTaskInfo b;
    b.sent = 1024;
    b.total = 4194304;
    b.errorCode = BlockIndexError;
    b.errorMsg = QStringLiteral("分块序号错误 \"idx\"");
    b.statusCode = 503;
    b.length = 4194304;
    b.loc = 8388608;
    b.idx = 2;
    b.hash = QStringLiteral("9f86d081884c7d659a2feaa0c55ad015a3bf4f1b2b0b822cd15d6c15b0f00a08");
    b.subTaskId = QStringLiteral("sub-01");
    b.taskId = QStringLiteral("6f1c2c1e-4a3b-4c1d-9e2f-0a1b2c3d4e5f");
    b.isUpload = true;
    b.quickTrans = true;
    b.state = static_cast<BlockTaskState>(BlockTaskStateWorking | BlockTaskStateError);
    b.subTaskInfo = sampleSubTaskInfo();
    return b;
}

} // namespace

class TestKXBlockTask : public QObject
{
    Q_OBJECT

private slots:
    void jsonRoundTripKeepsAllButTheMessage();
    void uploadFlagIsReadFromOneKeyOnly();
    void missingKeysReadAsMinusOne();
    void badTextLeavesBlockUntouched_data();
    void badTextLeavesBlockUntouched();
    void stateToText_data();
    void stateToText();
    void textToState_data();
    void textToState();
};

// The stored layout, and a round trip that loses only what the text does not carry back.
void TestKXBlockTask::jsonRoundTripKeepsAllButTheMessage()
{
    const QString text = CKXBlockJsonConvert::BlockInfo2JsonString(sampleBlock());
    QCOMPARE(text,
             QStringLiteral(
                 R"({"id":"6f1c2c1e-4a3b-4c1d-9e2f-0a1b2c3d4e5f","sub_task_id":"sub-01","isupload":true,)"
                 R"("is_quick_trans":true,"state":"BlockTaskStateWorking|BlockTaskStateError",)"
                 R"("length":4194304,"loc":8388608,"idx":2,)"
                 R"("hash":"9f86d081884c7d659a2feaa0c55ad015a3bf4f1b2b0b822cd15d6c15b0f00a08",)"
                 R"("error_code":20104,"error_info":"分块序号错误 \"idx\"","sent":1024,"total":4194304,)"
                 R"("is_upload":true})"));
    BlockTaskInfo read;
    QVERIFY(CKXBlockJsonConvert::JsonString2BlockInfo(text, read));
    // Written as "error_info", read from "error_msg": the message never comes back.
    QVERIFY(read.errorMsg.isEmpty());
    // Neither the status nor the task record is in the text.
    QCOMPARE(read.statusCode, 0);
    QVERIFY(read.subTaskInfo.subTaskId.isEmpty());
    read.errorMsg = sampleBlock().errorMsg;
    QCOMPARE(CKXBlockJsonConvert::BlockInfo2JsonString(read), text);
}

void TestKXBlockTask::uploadFlagIsReadFromOneKeyOnly()
{
    BlockTaskInfo b;
    QVERIFY(CKXBlockJsonConvert::JsonString2BlockInfo(QStringLiteral(R"({"isupload":true})"), b));
    QVERIFY(!b.isUpload);
    QVERIFY(CKXBlockJsonConvert::JsonString2BlockInfo(QStringLiteral(R"({"is_upload":1})"), b));
    QVERIFY(b.isUpload);
    QVERIFY(CKXBlockJsonConvert::JsonString2BlockInfo(QStringLiteral(R"({"error_msg":"坏块"})"), b));
    QCOMPARE(b.errorMsg, QStringLiteral("坏块"));
}

void TestKXBlockTask::missingKeysReadAsMinusOne()
{
    BlockTaskInfo b = sampleBlock();
    QVERIFY(CKXBlockJsonConvert::JsonString2BlockInfo(QStringLiteral("{}"), b));
    QCOMPARE(b.idx, -1);
    QCOMPARE(b.length, -1LL);
    QCOMPARE(b.loc, -1LL);
    QCOMPARE(b.sent, -1LL);
    QCOMPARE(b.total, -1LL);
    QCOMPARE(b.errorCode, -1);
    QCOMPARE(int(b.state), 0);
    QVERIFY(b.taskId.isEmpty() && b.hash.isEmpty());
    QVERIFY(!b.isUpload && !b.quickTrans);
}

void TestKXBlockTask::badTextLeavesBlockUntouched_data()
{
    QTest::addColumn<QString>("text");
    QTest::newRow("array") << QStringLiteral("[]");
    QTest::newRow("empty") << QString();
    QTest::newRow("word") << QStringLiteral("abc");
    QTest::newRow("truncated") << QStringLiteral("{\"id\":\"x\"");
}

void TestKXBlockTask::badTextLeavesBlockUntouched()
{
    QFETCH(QString, text);
    CKXBlockTask block(sampleBlock());
    QVERIFY(!block.FromJson(text));
    const BlockTaskInfo b = block.getBlockTaskInfo();
    QCOMPARE(b.taskId, sampleBlock().taskId);
    QCOMPARE(b.idx, 2);
    QCOMPARE(b.errorMsg, sampleBlock().errorMsg);
    QCOMPARE(b.statusCode, 503);
    QCOMPARE(persisted(block.info()), sampleTaskText());
    QCOMPARE(block.info().partSizes, sampleSubTaskInfo().partSizes);

    // A good text replaces the whole record, the task record included.
    QVERIFY(block.FromJson(QStringLiteral(R"({"id":"b2","idx":7})")));
    QCOMPARE(block.taskId(), QStringLiteral("b2"));
    QCOMPARE(block.idx(), 7);
    QVERIFY(block.info().subTaskId.isEmpty());
}

void TestKXBlockTask::stateToText_data()
{
    QTest::addColumn<int>("state");
    QTest::addColumn<QString>("text");
    QTest::newRow("none") << 1 << "BlockTaskStateNone";
    QTest::newRow("working+error") << 10 << "BlockTaskStateWorking|BlockTaskStateError";
    QTest::newRow("completed") << 16 << "BlockTaskStateCompleted";
    QTest::newRow("zero") << 0 << "";
    QTest::newRow("none bit in a set") << 3 << "BlockTaskStateWorking";
    QTest::newRow("all") << 31
                         << "BlockTaskStateWorking|BlockTaskStatePaused|BlockTaskStateError|"
                            "BlockTaskStateCompleted";
}

void TestKXBlockTask::stateToText()
{
    QFETCH(int, state);
    QFETCH(QString, text);
    QCOMPARE(CKXBlockJsonConvert::taskStateToString(static_cast<BlockTaskState>(state)), text);
}

void TestKXBlockTask::textToState_data()
{
    QTest::addColumn<QString>("text");
    QTest::addColumn<int>("state");
    QTest::newRow("pair") << "BlockTaskStateWorking|BlockTaskStateError" << 10;
    QTest::newRow("none wins") << "BlockTaskStateCompleted|BlockTaskStateNone" << 1;
    QTest::newRow("no separator") << "BlockTaskStatePausedBlockTaskStateCompleted" << 20;
    QTest::newRow("task state text") << "StateWorking" << 0;
    QTest::newRow("empty") << "" << 0;
}

void TestKXBlockTask::textToState()
{
    QFETCH(QString, text);
    QFETCH(int, state);
    QCOMPARE(int(CKXBlockJsonConvert::stringToTaskState(text)), state);
}

QTEST_GUILESS_MAIN(TestKXBlockTask)
#include "tst_KXBlockTask.moc"
