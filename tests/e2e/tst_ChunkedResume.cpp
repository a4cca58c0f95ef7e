// Resumption after a crash: a client process running one chunked task, straight or through a
// share link, is killed with SIGKILL part-way and started again with the same task. The second
// run moves only the blocks that were not stored as done, and the result is identical to the
// source.

#include "KXE2eTest.h"
#include "KXUtil.h"

#include <QtTest>

using namespace KXChunkedE2e;

class TestChunkedResume : public KXE2eTest
{
    Q_OBJECT

private slots:
    void killedRunMovesOnlyTheMissingBlocks_data();
    void killedRunMovesOnlyTheMissingBlocks();
};

void TestChunkedResume::killedRunMovesOnlyTheMissingBlocks_data()
{
    QTest::addColumn<bool>("upload");
    QTest::addColumn<bool>("link");
    QTest::newRow("upload") << true << false;
    QTest::newRow("download") << false << false;
    QTest::newRow("upload through a share link") << true << true;
}

void TestChunkedResume::killedRunMovesOnlyTheMissingBlocks()
{
    QFETCH(bool, upload);
    QFETCH(bool, link);
    const int blocks = 8;
    const qint64 size = blocks * kBlock - 3;
    const QString source = m_dir->filePath(QStringLiteral("source.bin"));
    const QString sha = writeRandomFile(source, size, qHash(QString(QTest::currentDataTag())));
    const QString code =
        link ? m_server.createShare(QStringLiteral("/resume"), true, QStringLiteral("pw")) : QString();
    // The server's path, and the task's: the path inside the link for a link's task.
    const QString onServer = QStringLiteral("/resume/in/%1.bin").arg(link ? "link" : "plain");
    const QString remote = link ? QStringLiteral("/in/link.bin") : onServer;
    const QString target = m_dir->filePath(QStringLiteral("target.bin"));
    const QString id = newId();
    QStringList args = runnerArgs(id, upload ? source : target, remote, size);
    if (link) {
        args << QStringLiteral("--share") << code << QStringLiteral("--password") << QStringLiteral("pw");
    } else if (!upload) {
        QVERIFY(putRemote(remote, readFile(source)));
        args << QStringLiteral("--download");
    }
    // Slow block answers leave time to kill the client between blocks.
    QVERIFY(m_server.armFault(
        {{"op", upload ? "block_upload" : "download"}, {"action", "delay"}, {"ms", 100}, {"count", 100}}));
    {
        KXRunnerProcess first(args);
        QTRY_VERIFY_WITH_TIMEOUT(first.blocksDone() >= 3, kWait);
        first.kill9();
    }
    const StoredBlocks stored(id);
    const int doneBefore = stored.withState(BlockTaskStateCompleted);
    QVERIFY2(doneBefore >= 3 && doneBefore < blocks, qPrintable(QString::number(doneBefore)));
    QCOMPARE(stat("commits"), 0);
    const QString tmp = KXUtil::tmpFile(target, id);
    if (!upload) {
        QVERIFY(QFile::exists(tmp) && !QFile::exists(target));
        // What the killed run finished is in place in the temporary file.
        const QByteArray sourceBytes = readFile(source);
        const QByteArray tmpBytes = readFile(tmp);
        for (CKXBlockTask* block : stored.list) {
            if (block->state() == BlockTaskStateCompleted) {
                QCOMPARE(tmpBytes.mid(block->loc(), block->length()),
                         sourceBytes.mid(block->loc(), block->length()));
            }
        }
    }

    QVERIFY(m_server.clearFaults());
    // The killed client's last request may still be held up by the server; let it end uncounted.
    QTRY_VERIFY_WITH_TIMEOUT(stat("inflight") == 0, kWait);
    QVERIFY(m_server.resetStats());
    KXRunnerProcess second(args);
    QCOMPARE(second.finish(), QStringLiteral("done 0 64"));
    if (upload) {
        // The block in flight at the kill may have reached the server; its hash query then finds it.
        const int sent = stat("block_uploads");
        QVERIFY2(sent <= blocks - doneBefore && sent >= blocks - doneBefore - 1,
                 qPrintable(QStringLiteral("%1 blocks sent, %2 were done").arg(sent).arg(doneBefore)));
        QCOMPARE(stat("hash_queries"), blocks - doneBefore);
        QCOMPARE(stat("commits"), 1);
        QCOMPARE(serverSha256(onServer), sha);
    } else {
        QCOMPARE(stat("downloads"), blocks - doneBefore);
        QCOMPARE(sha256Hex(readFile(target)), sha);
        QVERIFY(!QFile::exists(tmp));
    }
}

QTEST_GUILESS_MAIN(TestChunkedResume)
#include "tst_ChunkedResume.moc"
