// Resumption after a crash: a client process running one chunked task is killed with SIGKILL
// part-way and started again with the same task. The second run moves only the blocks that were
// not stored as done, and the result is identical to the source.

#include "KXE2eTest.h"
#include "KXTFStoreManager.h"
#include "KXUtil.h"

#include <QtTest>

using namespace KXChunkedE2e;

namespace {

const int kBlocks = 10;
const qint64 kSize = kBlocks * kBlock - 3;

QByteArray readRange(const QString& path, qint64 loc, qint64 length)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly) || !file.seek(loc)) {
        return QByteArray();
    }
    return file.read(length);
}

} // namespace

class TestChunkedResume : public KXE2eTest
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void cleanup();

    void killedUploadSendsOnlyTheMissingBlocks();
    void killedDownloadKeepsItsTemporaryFile();

private:
    QStringList taskArgs(const QString& id, const QString& local, const QString& remote, bool download) const
    {
        QStringList list = runnerArgs(id, local, remote, kSize);
        return download ? list << QStringLiteral("--download") : list;
    }
};

void TestChunkedResume::initTestCase()
{
    setUpWorld();
    // The runner keeps its database where the engine puts it for this XDG_DATA_HOME.
    CKXTFStoreManager::inst()->setDBPath(KXUtil::getUserPath(QStringLiteral("Transfer")));
}

void TestChunkedResume::init()
{
    setUpCase();
}

void TestChunkedResume::cleanup()
{
    m_server.clearFaults();
}

void TestChunkedResume::killedUploadSendsOnlyTheMissingBlocks()
{
    const QString source = m_dir->filePath(QStringLiteral("resume-up.bin"));
    const QString sha = writeRandomFile(source, kSize, 11);
    const QString remote = QStringLiteral("/e2e/resume-up.bin");
    const QStringList args = taskArgs(QStringLiteral("resume-upload"), source, remote, false);
    // Slow block answers leave time to kill the client between blocks.
    QVERIFY(m_server.armFault({{"op", "block_upload"}, {"action", "delay"}, {"ms", 100}, {"count", 100}}));
    {
        KXRunnerProcess first(args);
        QTRY_VERIFY_WITH_TIMEOUT(first.blocksDone() >= 3, kWait);
        first.kill9();
    }
    const int doneBefore = StoredBlocks(QStringLiteral("resume-upload")).withState(BlockTaskStateCompleted);
    QVERIFY(doneBefore >= 3 && doneBefore < kBlocks);
    QCOMPARE(stat("commits"), 0);

    QVERIFY(m_server.clearFaults());
    // The killed client's last request may still be held up by the server; let it end uncounted.
    QTRY_VERIFY_WITH_TIMEOUT(stat("inflight") == 0, kWait);
    QVERIFY(m_server.resetStats());
    KXRunnerProcess second(args);
    QCOMPARE(second.finish(), 0);
    QCOMPARE(second.lastLine(), QStringLiteral("done 0 64"));
    // The block in flight at the kill may have reached the server; the query then finds it there.
    const int sent = stat("block_uploads");
    QVERIFY2(sent <= kBlocks - doneBefore && sent >= kBlocks - doneBefore - 1,
             qPrintable(QStringLiteral("%1 blocks sent, %2 were done").arg(sent).arg(doneBefore)));
    QCOMPARE(stat("hash_queries"), kBlocks - doneBefore);
    QCOMPARE(serverSha256(remote), sha);
}

void TestChunkedResume::killedDownloadKeepsItsTemporaryFile()
{
    const QString source = m_dir->filePath(QStringLiteral("resume-down.src"));
    const QString sha = writeRandomFile(source, kSize, 12);
    const QString remote = QStringLiteral("/e2e/resume-down.bin");
    {
        KXRunnerProcess upload(taskArgs(QStringLiteral("resume-down-upload"), source, remote, false));
        QCOMPARE(upload.finish(), 0);
    }

    const QString target = m_dir->filePath(QStringLiteral("resume-down.bin"));
    const QString tmp = KXUtil::tmpFile(target, QStringLiteral("resume-download"));
    const QStringList args = taskArgs(QStringLiteral("resume-download"), target, remote, true);
    QVERIFY(m_server.resetStats());
    QVERIFY(m_server.armFault({{"op", "download"}, {"action", "delay"}, {"ms", 100}, {"count", 100}}));
    {
        KXRunnerProcess first(args);
        QTRY_VERIFY_WITH_TIMEOUT(first.blocksDone() >= 3, kWait);
        first.kill9();
    }
    QVERIFY(QFile::exists(tmp));
    QVERIFY(!QFile::exists(target));
    const StoredBlocks stored(QStringLiteral("resume-download"));
    const int doneBefore = stored.withState(BlockTaskStateCompleted);
    QVERIFY(doneBefore >= 3 && doneBefore < kBlocks);
    // What the killed run finished is in place in the temporary file.
    for (CKXBlockTask* block : stored.list) {
        if (block->state() == BlockTaskStateCompleted) {
            QCOMPARE(readRange(tmp, block->loc(), block->length()),
                     readRange(source, block->loc(), block->length()));
        }
    }

    QVERIFY(m_server.clearFaults());
    // The killed client's last request may still be held up by the server; let it end uncounted.
    QTRY_VERIFY_WITH_TIMEOUT(stat("inflight") == 0, kWait);
    QVERIFY(m_server.resetStats());
    KXRunnerProcess second(args);
    QCOMPARE(second.finish(), 0);
    QCOMPARE(second.lastLine(), QStringLiteral("done 0 64"));
    QCOMPARE(stat("downloads"), kBlocks - doneBefore);
    QCOMPARE(fileSha256(target), sha);
    QVERIFY(!QFile::exists(tmp));
}

QTEST_GUILESS_MAIN(TestChunkedResume)
#include "tst_ChunkedResume.moc"
