// The JSON text of a task record: what stored rows look like and how tolerant reading is.

#include "KXJsonConvert.h"
#include "KXTaskRecordSample.h"

#include <rapidjson/document.h>

#include <QtTest>

namespace {

QStringList memberNames(const rapidjson::Value& object)
{
    QStringList names;
    for (auto it = object.MemberBegin(); it != object.MemberEnd(); ++it) {
        names << QString::fromUtf8(it->name.GetString());
    }
    return names;
}

bool parse(const QString& text, rapidjson::Document& doc)
{
    const QByteArray utf8 = text.toUtf8();
    doc.Parse(utf8.constData(), static_cast<size_t>(utf8.size()));
    return !doc.HasParseError() && doc.IsObject();
}

} // namespace

class TestKXJsonConvert : public QObject
{
    Q_OBJECT

private slots:
    void roundTripKeepsEveryPersistedField();
    void writtenTextHasTheStoredLayout();
    void emptyObjectReadsMissingNumbersAsMinusOne();
    void readersAcceptOtherJsonTypes();
    void badTextLeavesRecordUntouched_data();
    void badTextLeavesRecordUntouched();
    void folderTaskHasNoLocalSize();
    void optionalKeysAreWrittenOnlyWhenMeaningful();
    void stateToText_data();
    void stateToText();
    void textToState_data();
    void textToState();
};

void TestKXJsonConvert::roundTripKeepsEveryPersistedField()
{
    const SubTaskInfo original = sampleSubTaskInfo();
    const QString text = CKXJsonConvert::SubTaskInfo2JsonString(original);

    SubTaskInfo read;
    QVERIFY(CKXJsonConvert::JsonString2SubTaskInfo(text, read));
    const QStringList diff = persistedDifferences(original, read);
    QVERIFY2(diff.isEmpty(), qPrintable(diff.join(QLatin1Char(','))));
    QCOMPARE(read.state, static_cast<TaskState>(12));

    // Fields that are not persisted come back at their defaults.
    QCOMPARE(read.reservedCount, 0LL);
    QVERIFY(read.partSizes.isEmpty());
    QVERIFY(read.remoteFile.reservedText1.isEmpty());
}

void TestKXJsonConvert::writtenTextHasTheStoredLayout()
{
    const SubTaskInfo info = sampleSubTaskInfo();
    const QString text = CKXJsonConvert::SubTaskInfo2JsonString(info);
    QCOMPARE(text.count(QStringLiteral("\"data_server\":\"dc1.example.net\"")), 2);
    QVERIFY(!text.contains(QStringLiteral("hunter2")));
    QVERIFY(!text.contains(QLatin1Char('\n')));

    rapidjson::Document doc;
    QVERIFY(parse(text, doc));
    // "data_server" comes twice, as in the rows already stored.
    const QStringList top =
        QStringLiteral("subtask_id task_id size send_bytes complete_bytes used_time complete_time priority "
                       "state error_code error_info transmethod rsyncstate task_source data_server is_upload "
                       "is_folder is_sectrans finger_mark is_main_subtask is_virus is_chunck_complete "
                       "data_server time_retry http_code retry_times new_vault_path new_metadata pass "
                       "vault_file local_file")
            .split(QLatin1Char(' '));
    QCOMPARE(memberNames(doc), top);
    const QStringList vault =
        QStringLiteral("path pathtype neid prefixneid from rev sync_overwrite isEstcrypt nEstHead "
                       "bCanDownloadVirus is_from_Url is_direct_url download_url zip_psw modify_time "
                       "isDeliveryTrans delivery_code delivery_host delivery_overwrite delivery_token "
                       "delivery_LBC delivery_url delivery_session_id delivery_S delivery_user_id "
                       "delivery_isUpload size is_dir delivery_rev delivery_is_dir delivery_bytes")
            .split(QLatin1Char(' '));
    QCOMPARE(memberNames(doc["vault_file"]), vault);
    QCOMPARE(memberNames(doc["local_file"]), (QStringList{"path", "time", "size"}));

    QVERIFY(doc["vault_file"]["is_dir"].IsInt());
    QCOMPARE(doc["vault_file"]["is_dir"].GetInt(), 1);
    QVERIFY(doc["is_upload"].IsBool());
    QCOMPARE(QString::fromUtf8(doc["state"].GetString()), QStringLiteral("StateWorking|StatePaused"));
    QCOMPARE(doc["size"].GetInt64(), 9000000001LL);
}

void TestKXJsonConvert::emptyObjectReadsMissingNumbersAsMinusOne()
{
    SubTaskInfo info = sampleSubTaskInfo();
    QVERIFY(CKXJsonConvert::JsonString2SubTaskInfo(QStringLiteral("{}"), info));

    const qint64 wide[] = {info.size,     info.sendBytes,    info.completeBytes,
                           info.usedTime, info.completeTime, info.timeRetry};
    for (qint64 v : wide) {
        QCOMPARE(v, -1LL);
    }
    QCOMPARE(info.priority, -1);
    QCOMPARE(int(info.errorCode), -1);
    QCOMPARE(info.httpCode, -1);
    QCOMPARE(info.retryTimes, -1);
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

void TestKXJsonConvert::readersAcceptOtherJsonTypes()
{
    const QString text = QStringLiteral(
        R"({"size":"2048","send_bytes":"12abc","complete_bytes":2.5,"priority":"7","retry_times":true,)"
        R"("subtask_id":42,"error_info":1.5,"task_id":null,"is_upload":1,"is_folder":0,"is_virus":0.5,)"
        R"("is_main_subtask":"true","transmethod":"5","rsyncstate":"x",)"
        R"("vault_file":{"is_dir":1,"size":"99","nEstHead":"16","isEstcrypt":true,"sync_overwrite":"1"},)"
        R"("local_file":{"size":"55"}})");
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
    QCOMPARE(info.remoteFile.size, 99LL);
    QCOMPARE(info.remoteFile.estHeadLength, 16);
    QVERIFY(info.remoteFile.isEncrypted);
    QVERIFY(!info.remoteFile.syncOverwrite);
    QCOMPARE(info.localFile.size, 55LL);

    SubTaskInfo flags;
    QVERIFY(CKXJsonConvert::JsonString2SubTaskInfo(QStringLiteral(R"({"vault_file":{"is_dir":0}})"), flags));
    QVERIFY(!flags.remoteFile.isDir);
    QVERIFY(
        CKXJsonConvert::JsonString2SubTaskInfo(QStringLiteral(R"({"vault_file":{"is_dir":true}})"), flags));
    QVERIFY(flags.remoteFile.isDir);
}

void TestKXJsonConvert::badTextLeavesRecordUntouched_data()
{
    QTest::addColumn<QString>("text");
    QTest::newRow("array") << QStringLiteral("[1,2]");
    QTest::newRow("not json") << QStringLiteral("not json");
    QTest::newRow("empty") << QString();
    QTest::newRow("string") << QStringLiteral("\"{}\"");
    QTest::newRow("number") << QStringLiteral("42");
    QTest::newRow("null") << QStringLiteral("null");
    QTest::newRow("truncated") << QStringLiteral("{\"size\":1,\"task_id\":\"a");
    QTest::newRow("trailing") << QStringLiteral("{\"size\":1} x");
}

void TestKXJsonConvert::badTextLeavesRecordUntouched()
{
    QFETCH(QString, text);
    const SubTaskInfo original = sampleSubTaskInfo();
    SubTaskInfo info = original;
    QVERIFY(!CKXJsonConvert::JsonString2SubTaskInfo(text, info));
    const QStringList diff = persistedDifferences(original, info);
    QVERIFY2(diff.isEmpty(), qPrintable(diff.join(QLatin1Char(','))));
}

void TestKXJsonConvert::folderTaskHasNoLocalSize()
{
    SubTaskInfo folder = sampleSubTaskInfo();
    folder.isFolder = true;
    folder.localFile.size = 777;
    rapidjson::Document doc;
    const QString text = CKXJsonConvert::SubTaskInfo2JsonString(folder);
    QVERIFY(parse(text, doc));
    QVERIFY(!doc["local_file"].HasMember("size"));

    SubTaskInfo read;
    read.localFile.size = 555;
    QVERIFY(CKXJsonConvert::JsonString2SubTaskInfo(text, read));
    QCOMPARE(read.localFile.size, 555LL);
    QCOMPARE(read.localFile.path, folder.localFile.path);

    // A file task whose stored text lost the size reads it as -1.
    QVERIFY(CKXJsonConvert::JsonString2SubTaskInfo(QStringLiteral(R"({"local_file":{"path":"/a"}})"), read));
    QCOMPARE(read.localFile.size, -1LL);
}

void TestKXJsonConvert::optionalKeysAreWrittenOnlyWhenMeaningful()
{
    SubTaskInfo download = sampleSubTaskInfo();
    download.isUpload = false;
    QVERIFY(!CKXJsonConvert::SubTaskInfo2JsonString(download).contains(QStringLiteral("new_metadata")));

    SubTaskInfo bare = sampleSubTaskInfo();
    bare.newMetadata.clear();
    bare.newVaultPath.clear();
    bare.password.clear();
    const QString text = CKXJsonConvert::SubTaskInfo2JsonString(bare);
    for (const char* key : {"\"new_metadata\"", "\"new_vault_path\"", "\"pass\""}) {
        QVERIFY2(!text.contains(QLatin1String(key)), key);
    }
    SubTaskInfo read;
    QVERIFY(CKXJsonConvert::JsonString2SubTaskInfo(text, read));
    QVERIFY(read.password.isEmpty());
}

void TestKXJsonConvert::stateToText_data()
{
    QTest::addColumn<int>("state");
    QTest::addColumn<QString>("text");
    QTest::newRow("none") << 0 << "StateNone";
    QTest::newRow("working+paused") << 12 << "StateWorking|StatePaused";
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
    QTest::newRow("pair") << "StateWorking|StatePaused" << 12;
    QTest::newRow("no separator") << "StateErrorStateStop" << 160;
    QTest::newRow("wait preparing alone") << "StateWaitPreparing" << 1;
    QTest::newRow("waiting alone") << "StateWaiting" << 16;
    QTest::newRow("case matters") << "stateworking" << 0;
    QTest::newRow("empty") << "" << 0;
    QTest::newRow("unknown") << "Running" << 0;
}

void TestKXJsonConvert::textToState()
{
    QFETCH(QString, text);
    QFETCH(int, state);
    QCOMPARE(int(CKXJsonConvert::stringToTaskState(text)), state);
}

QTEST_GUILESS_MAIN(TestKXJsonConvert)
#include "tst_KXJsonConvert.moc"
