// Quotes, percent signs with digits ("%1", "%2"), Chinese and emoji in every local path, remote
// path, task id and error message, end to end: a failed upload is stored with them and resumes
// from the stored row, the file comes back down under its odd name, and a server error naming the
// path reaches the client unchanged.

#include "KXReliabilityTest.h"
#include "KXUtil.h"

#include <QFile>
#include <QTest>

const qint64 kWholeSize = 3000;
const qint64 kChunkedSize = 4194304 + 4321;

class TestOddNames : public CKXReliabilityTest
{
    Q_OBJECT

private slots:
    void roundTrip_data();
    void roundTrip();

private:
    void runFailingThenResumed(const SubTaskInfo& task, const QJsonObject& fault);
    void missingFileNamed(const QString& missing, const QString& id, bool chunked, const QString& local);
};

void TestOddNames::roundTrip_data()
{
    QTest::addColumn<QString>("folder"); // local and remote folder
    QTest::addColumn<QString>("name");   // file name
    QTest::addColumn<QString>("id");     // sub-task id; the database refuses ids with a quote
    QTest::addColumn<bool>("chunked");
    const QString quotes = QStringLiteral("it's \"quoted\"");
    const QString percent = QStringLiteral("%2 then %1, 100% %%3");
    const QString chinese = QStringLiteral("文件夹 报告");
    const QString emoji = QStringLiteral("🙂 party 🎉");
    for (bool chunked : {false, true}) {
        const QString kind = chunked ? QStringLiteral("chunked") : QStringLiteral("whole");
        const auto row = [&](const char* tag, const QString& folder, const QString& name, const QString& id) {
            QTest::newRow(qPrintable(kind + QStringLiteral(": ") + QLatin1String(tag)))
                << folder << name << id + QLatin1Char('-') + kind << chunked;
        };
        row("quotes", quotes, QStringLiteral("o'neil \"x\".bin"), QStringLiteral("sub-quotes"));
        row("percent", percent, QStringLiteral("%1%2 %n.bin"), QStringLiteral("sub-%1-%2"));
        row("chinese", chinese, QStringLiteral("年度报告（终稿）.bin"), QStringLiteral("任务-一"));
        row("emoji", emoji, QStringLiteral("🎂 cake.bin"), QStringLiteral("sub-🙂"));
        row("all at once", quotes + QLatin1Char(' ') + percent + QLatin1Char(' ') + chinese + emoji,
            QStringLiteral("'%1' \"%2\" 文件 🙂.bin"), QStringLiteral("子任务 %1 🙂"));
    }
}

void TestOddNames::runFailingThenResumed(const SubTaskInfo& task, const QJsonObject& fault)
{
    QVERIFY(env().server().armFault(fault));
    ApiTaskRecord failed;
    KX_RUN_TO_END(env(), task, &failed, false);
    QCOMPARE(int(failed.code), int(ServerError));
    QCOMPARE(env().dbRowState(task.subTaskId), int(StateError));
    QVERIFY(env().server().clearFaults());

    ApiTaskRecord resumed;
    KX_RUN_TO_END(env(), task, &resumed, false);
    QCOMPARE(resumed.code, NoError);
    QCOMPARE(resumed.task.subTaskId, task.subTaskId);
    QCOMPARE(resumed.task.localFile.path, task.localFile.path);
    QCOMPARE(resumed.task.remoteFile.path, task.remoteFile.path);
    SubTaskInfo stored;
    QVERIFY(Transfer::taskInfo(task.subTaskId, stored));
    QCOMPARE(stored.localFile.path, task.localFile.path);
    QCOMPARE(stored.remoteFile.path, task.remoteFile.path);
}

void TestOddNames::missingFileNamed(const QString& missing, const QString& id, bool chunked,
                                    const QString& local)
{
    // The server's message names the odd path; it reaches the client and the store unchanged.
    SubTaskInfo lost = CKXApiFixture::downloadTask(missing, chunked ? kChunkedSize : kWholeSize, local);
    lost.subTaskId = id;
    ApiTaskRecord record;
    KX_RUN_TO_END(env(), lost, &record, false);
    QCOMPARE(int(record.code), chunked ? int(SourceNotFound) : 404);
    QVERIFY2(record.task.errorInfo.contains(missing), qPrintable(record.task.errorInfo));
    SubTaskInfo failedInfo;
    QVERIFY(Transfer::taskInfo(id, failedInfo));
    QCOMPARE(failedInfo.errorInfo, record.task.errorInfo);
    QCOMPARE(env().dbRowState(id), int(StateError));
    QVERIFY(!QFile::exists(local));
}

void TestOddNames::roundTrip()
{
    QFETCH(QString, folder);
    QFETCH(QString, name);
    QFETCH(QString, id);
    QFETCH(bool, chunked);
    const QByteArray content = randomBytes(chunked ? kChunkedSize : kWholeSize, int(qHash(id)));
    const QString local = env().localPath(folder + QLatin1Char('/') + name);
    QVERIFY(writeFile(local, content));
    const QString remote = QLatin1Char('/') + folder + QLatin1Char('/') + name;

    // Up, failing once so that the task is stored and read back from its row.
    SubTaskInfo up = CKXApiFixture::uploadTask(local, remote);
    up.subTaskId = id + QStringLiteral("-up");
    const QJsonObject fault = chunked ? QJsonObject{{"op", "block_upload"}, {"action", "status"}, {"nth", 2}}
                                      : QJsonObject{{"op", "file_upload"}, {"action", "status"}};
    runFailingThenResumed(up, fault);
    if (QTest::currentTestFailed()) {
        return;
    }
    QByteArray stored;
    QVERIFY(env().readRemoteFile(remote, &stored));
    QCOMPARE(sha256Hex(stored), sha256Hex(content));

    // Down again into another odd folder.
    const QString back = env().localPath(QStringLiteral("back ") + folder + QLatin1Char('/') + name);
    SubTaskInfo down = CKXApiFixture::downloadTask(remote, content.size(), back);
    down.subTaskId = id + QStringLiteral("-down");
    ApiTaskRecord record;
    KX_RUN_TO_END(env(), down, &record, false);
    QCOMPARE(record.code, NoError);
    QCOMPARE(sha256Hex(readFile(back)), sha256Hex(content));
    QVERIFY(!QFile::exists(KXUtil::tmpFile(back, down.subTaskId)));

    missingFileNamed(remote + QStringLiteral(" %1 missing"), id + QStringLiteral("-lost"), chunked,
                     back + QStringLiteral(".lost"));
}

QTEST_GUILESS_MAIN(TestOddNames)
#include "tst_OddNames.moc"
