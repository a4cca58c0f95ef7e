// Uploads, whole-file and chunked, through server faults over real HTTP: every task ends with one
// final callback carrying the right code, nothing is left at the remote path unless the upload
// succeeded, and the same sub-task run again after the fault is gone gives the identical file.

#include "KXFaultMatrix.h"

#include <QTest>

using namespace KXFault;

class TestUploadFaults : public CKXReliabilityTest
{
    Q_OBJECT

private slots:
    void upload_data();
    void upload();
};

void TestUploadFaults::upload_data()
{
    addColumns();
    // Requests of a whole-file upload: authorisation, then the file.
    row("whole: file answered 500", refusal("file_upload", 500, "internal"), ServerError);
    row("whole: quota refused", refusal("file_upload", 507, "space limit"), NoSpace);
    row("whole: authorisation refused, file locked", refusal("auth", 423, "file is locked"), FileLocked);
    // The library never repeats a whole-file upload, but libcurl sends a request again when a kept
    // connection dies before any answer, once per kept connection: enough drops reach the engine.
    row("whole: connection dropped mid-body", act("file_upload", "drop", 1, 20), kTransportFailure);
    row("whole: slow answer", slow("file_upload", 1), NoError);
    row("whole: server restarted", held("file_upload", 1), kTransportFailure, 2);

    // Requests of a chunked upload: authorisation, one hash query and one block upload per block
    // (three blocks at once), then the commit.
    row("chunked: block answered 500", refusal("block_upload", 500, "internal", 2), ServerError);
    row("chunked: hash query answered 500", refusal("hash", 500, "internal", 3), ServerError);
    // Block uploads are safe to repeat: one drop is absorbed by a retry, endless drops are not.
    row("chunked: one block connection dropped", act("block_upload", "drop", 2), NoError);
    row("chunked: every block connection dropped", act("block_upload", "drop", 1, 100), kTransportFailure);
    row("chunked: slow block answers", slow("block_upload", 3), NoError);
    row("chunked: wrong block hash", act("block_upload", "wrong_hash", 2), UploadHashError);
    row("chunked: commit refused, target exists", refusal("commit", 409, "target name exists"), TargetExists);
    row("chunked: commit refused, 500", refusal("commit", 500, "internal"), ServerError);
    row("chunked: commit connection dropped", act("commit", "drop", 1, 20), kTransportFailure);
    // The sixth request is the second block upload: auth, three hash queries and the first block
    // have all been sent by then.
    row("chunked: server restarted, no retries", held("block_upload", 2), kTransportFailure, 6, 0);
    row("chunked: server restarted, retries bridge it", held("block_upload", 2), NoError, 6, 8);
    row("chunked: server restarted during commit", held("commit", 1), kTransportFailure, 8);
}

void TestUploadFaults::upload()
{
    QFETCH(bool, chunked);
    QFETCH(int, expected);
    // A whole file this small goes out without waiting for "100 Continue": refusals then arrive
    // while its body is still on the way (the large file's wait is tst_ServerApi's).
    const qint64 size = chunked ? 2 * 4194304 + 4321 : (64 << 10) + 123; // three blocks, or one
    const QByteArray content = randomBytes(size, QTest::currentDataTag()[0] + int(size));
    const QString local = env().localPath(QStringLiteral("source.bin"));
    QVERIFY(writeFile(local, content));
    const QString remote = QStringLiteral("/faults/up.bin");
    const SubTaskInfo task = CKXApiFixture::uploadTask(local, remote);

    runRow(env(), task);
    if (QTest::currentTestFailed()) {
        return;
    }
    QByteArray stored;
    if (expected != NoError) {
        // A failed upload leaves nothing under the remote name, not even part of the file.
        QVERIFY(!env().readRemoteFile(remote, &stored));
        resume(env(), task);
        if (QTest::currentTestFailed()) {
            return;
        }
        QCOMPARE(readFile(local), content);
    }
    QVERIFY(env().readRemoteFile(remote, &stored));
    QCOMPARE(stored.size(), content.size());
    QCOMPARE(sha256Hex(stored), sha256Hex(content));
}

QTEST_GUILESS_MAIN(TestUploadFaults)
#include "tst_UploadFaults.moc"
