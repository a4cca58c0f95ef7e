// Downloads, whole-file and chunked, through server faults over real HTTP: every task ends with one
// final callback carrying the right code, the file at the destination is either the old one or the
// complete new one and never a part, and the same sub-task run again after the fault is gone gives
// the identical file.

#include "KXFaultMatrix.h"
#include "KXUtil.h"

#include <QTest>

using namespace KXFault;

class TestDownloadFaults : public CKXReliabilityTest
{
    Q_OBJECT

private slots:
    void download_data();
    void download();
};

void TestDownloadFaults::download_data()
{
    addColumns();
    const char* op = "download";
    // A whole-file download reports the HTTP status of an error answer as its code.
    row("whole: answered 500", refusal(op, 500, "internal"), 500);
    row("whole: answered 403, virus", refusal(op, 403, "download_file_VirusF"), 403);
    // Half of the body arrives: the library cannot repeat a download it has handed bytes on from.
    row("whole: connection dropped mid-body", act(op, "drop"), kTransportFailure);
    row("whole: slow answer", slow(op, 1), NoError);
    row("whole: server restarted, no retries", held(op, 1), kTransportFailure, 1, 0);
    row("whole: server restarted, retries bridge it", held(op, 1), NoError, 1, 8);

    // A chunked download fetches its three blocks at once, each with a ranged request.
    row("chunked: block answered 500", refusal(op, 500, "internal", 2), ServerError);
    row("chunked: block answered 404", refusal(op, 404, "nameentry_not_exist", 3), SourceNotFound);
    row("chunked: block connection dropped mid-body", act(op, "drop", 2), kTransportFailure);
    row("chunked: slow block answers", slow(op, 3), NoError);
    row("chunked: server restarted, no retries", held(op, 2), kTransportFailure, 2, 0);
    row("chunked: server restarted, retries bridge it", held(op, 2), NoError, 2, 8);
}

void TestDownloadFaults::download()
{
    QFETCH(bool, chunked);
    QFETCH(int, expected);
    const qint64 size = chunked ? 2 * 4194304 + 4321 : (1 << 20) + 123; // three blocks, or one
    const QByteArray content = randomBytes(size, QTest::currentDataTag()[0] + int(size));
    const QString remote = QStringLiteral("/faults/down.bin");
    QVERIFY(env().putRemoteFile(remote, content));
    const QString folder = env().localPath(QStringLiteral("into"));
    const QString local = folder + QStringLiteral("/down.bin");
    const QByteArray oldVersion("the previous version of the file\n");
    QVERIFY(writeFile(local, oldVersion));
    SubTaskInfo task = CKXApiFixture::downloadTask(remote, size, local);
    task.remoteFile.syncOverwrite = true;

    runRow(env(), task);
    if (QTest::currentTestFailed()) {
        return;
    }
    if (expected != NoError) {
        // The old file stands untouched; the part that arrived is only ever in the temporary file.
        QCOMPARE(readFile(local), oldVersion);
        const QStringList left = filesIn(folder);
        QVERIFY2(left.size() <= 2, qPrintable(left.join(QLatin1Char(' '))));
        if (left.size() == 2) {
            QCOMPARE(left.last(), KXUtil::fileName(KXUtil::tmpFile(local, task.subTaskId)));
        }
        resume(env(), task);
        if (QTest::currentTestFailed()) {
            return;
        }
    }
    const QByteArray got = readFile(local);
    QCOMPARE(got.size(), content.size());
    QCOMPARE(sha256Hex(got), sha256Hex(content));
    QCOMPARE(filesIn(folder), QStringList{QStringLiteral("down.bin")});
}

QTEST_GUILESS_MAIN(TestDownloadFaults)
#include "tst_DownloadFaults.moc"
