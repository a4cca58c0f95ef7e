// Resumption after a crash: a client process running one chunked task is killed with SIGKILL
// part-way and started again with the same task. The second run moves only the blocks that were
// not stored as done, and the result is identical to the source.

#include "KXBlockTask.h"
#include "KXChunkedE2e.h"
#include "KXServerProcess.h"
#include "KXTFStoreManager.h"
#include "KXTestHttp.h"
#include "KXTransferDB.h"
#include "KXUtil.h"

#include <QCryptographicHash>
#include <QProcess>
#include <QTemporaryDir>
#include <QtTest>

#include <memory>

using namespace KXChunkedE2e;

namespace {

const int kWait = 120000;
const int kBlocks = 10;
const qint64 kSize = kBlocks * kBlock - 3;

// One run of the runner executable and what it printed.
class Runner
{
public:
    Runner(const QStringList& args)
    {
        m_process.setProgram(QStringLiteral(KX_BIN_DIR "/kx_chunked_runner"));
        m_process.setArguments(args);
        m_process.setProcessChannelMode(QProcess::ForwardedErrorChannel);
        m_process.start();
    }
    ~Runner()
    {
        if (m_process.state() != QProcess::NotRunning) {
            m_process.kill();
            m_process.waitForFinished();
        }
    }

    // The last "blocks_done" count printed so far.
    int blocksDone()
    {
        readLines();
        return m_blocksDone;
    }
    bool finished(int timeoutMs)
    {
        const bool ended = m_process.waitForFinished(timeoutMs);
        readLines();
        return ended && m_process.exitStatus() == QProcess::NormalExit;
    }
    void kill9()
    {
        m_process.kill(); // SIGKILL: no handler, no clean-up
        m_process.waitForFinished();
    }
    int exitCode() const { return m_process.exitCode(); }
    QString lastLine() const { return m_lastLine; }

private:
    void readLines()
    {
        while (m_process.canReadLine()) {
            m_lastLine = QString::fromUtf8(m_process.readLine()).trimmed();
            if (m_lastLine.startsWith(QLatin1String("blocks_done "))) {
                m_blocksDone = m_lastLine.mid(12).toInt();
            }
        }
    }

    QProcess m_process;
    int m_blocksDone = 0;
    QString m_lastLine;
};

QByteArray readRange(const QString& path, qint64 loc, qint64 length)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly) || !file.seek(loc)) {
        return QByteArray();
    }
    return file.read(length);
}

} // namespace

class TestChunkedResume : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void cleanup();

    void killedUploadSendsOnlyTheMissingBlocks();
    void killedDownloadKeepsItsTemporaryFile();

private:
    QStringList runnerArgs(const QString& id, const QString& local, const QString& remote,
                           bool download) const;
    // Blocks of a task stored as done, read from the database the runner writes.
    QList<CKXBlockTask*> storedDone(const QString& id);
    int stat(const char* name) { return m_server.stats().value(QLatin1String(name)).toInt(); }

    QTemporaryDir m_home;
    KXServerProcess m_server;
    std::unique_ptr<QTemporaryDir> m_dir;
};

void TestChunkedResume::initTestCase()
{
    QVERIFY(m_home.isValid());
    qputenv("XDG_DATA_HOME", m_home.path().toUtf8());
    qputenv("HOME", m_home.path().toUtf8());
    QVERIFY2(m_server.start(), qPrintable(m_server.errorString()));
    // The runner keeps its database where the engine puts it for this XDG_DATA_HOME.
    CKXTFStoreManager::inst()->setDBPath(KXUtil::getUserPath(QStringLiteral("Transfer")));
}

void TestChunkedResume::init()
{
    m_dir = std::make_unique<QTemporaryDir>();
    QVERIFY(m_dir->isValid());
    QVERIFY(m_server.resetStats());
}

void TestChunkedResume::cleanup()
{
    m_server.clearFaults();
}

QStringList TestChunkedResume::runnerArgs(const QString& id, const QString& local, const QString& remote,
                                          bool download) const
{
    QStringList args = {QStringLiteral("--base"),        m_server.baseUrl(),
                        QStringLiteral("--token"),       m_server.token(),
                        QStringLiteral("--id"),          id,
                        QStringLiteral("--local"),       local,
                        QStringLiteral("--remote"),      remote,
                        QStringLiteral("--size"),        QString::number(kSize),
                        QStringLiteral("--concurrency"), QStringLiteral("1")};
    if (download) {
        args << QStringLiteral("--download");
    }
    return args;
}

QList<CKXBlockTask*> TestChunkedResume::storedDone(const QString& id)
{
    QList<CKXBlockTask*> blocks;
    CKXTFStoreManager::inst()->db()->LoadBlockTasks(id, blocks);
    QList<CKXBlockTask*> done;
    for (CKXBlockTask* block : blocks) {
        if (block->state() == BlockTaskStateCompleted) {
            done << block;
        } else {
            delete block;
        }
    }
    return done;
}

void TestChunkedResume::killedUploadSendsOnlyTheMissingBlocks()
{
    const QString source = m_dir->filePath(QStringLiteral("resume-up.bin"));
    const QString sha = writeRandomFile(source, kSize, 11);
    const QString remote = QStringLiteral("/e2e/resume-up.bin");
    const QStringList args = runnerArgs(QStringLiteral("resume-upload"), source, remote, false);
    // Slow block answers leave time to kill the client between blocks.
    QVERIFY(m_server.armFault({{"op", "block_upload"}, {"action", "delay"}, {"ms", 100}, {"count", 100}}));
    {
        Runner first(args);
        QTRY_VERIFY_WITH_TIMEOUT(first.blocksDone() >= 3, kWait);
        first.kill9();
    }
    const QList<CKXBlockTask*> done = storedDone(QStringLiteral("resume-upload"));
    const int doneBefore = done.size();
    qDeleteAll(done);
    QVERIFY(doneBefore >= 3 && doneBefore < kBlocks);
    QCOMPARE(stat("commits"), 0);

    QVERIFY(m_server.clearFaults());
    // The killed client's last request may still be held up by the server; let it end uncounted.
    QTRY_VERIFY_WITH_TIMEOUT(stat("inflight") == 0, kWait);
    QVERIFY(m_server.resetStats());
    Runner second(args);
    QVERIFY(second.finished(kWait));
    QCOMPARE(second.exitCode(), 0);
    QCOMPARE(second.lastLine(), QStringLiteral("done 0 64"));
    // The block in flight at the kill may have reached the server; the query then finds it there.
    const int sent = stat("block_uploads");
    QVERIFY2(sent <= kBlocks - doneBefore && sent >= kBlocks - doneBefore - 1,
             qPrintable(QStringLiteral("%1 blocks sent, %2 were done").arg(sent).arg(doneBefore)));
    QCOMPARE(stat("hash_queries"), kBlocks - doneBefore);
    const TestHttpReply reply =
        CKXTestHttp::get(m_server.baseUrl() + QStringLiteral("/v1/files?path=") + CKXTestHttp::encode(remote),
                         m_server.sessionHeader());
    QCOMPARE(reply.status, 200);
    QCOMPARE(QString::fromLatin1(QCryptographicHash::hash(reply.body, QCryptographicHash::Sha256).toHex()),
             sha);
}

void TestChunkedResume::killedDownloadKeepsItsTemporaryFile()
{
    const QString source = m_dir->filePath(QStringLiteral("resume-down.src"));
    const QString sha = writeRandomFile(source, kSize, 12);
    const QString remote = QStringLiteral("/e2e/resume-down.bin");
    {
        Runner upload(runnerArgs(QStringLiteral("resume-down-upload"), source, remote, false));
        QVERIFY(upload.finished(kWait));
        QCOMPARE(upload.exitCode(), 0);
    }

    const QString target = m_dir->filePath(QStringLiteral("resume-down.bin"));
    const QString tmp = KXUtil::tmpFile(target, QStringLiteral("resume-download"));
    const QStringList args = runnerArgs(QStringLiteral("resume-download"), target, remote, true);
    QVERIFY(m_server.resetStats());
    QVERIFY(m_server.armFault({{"op", "download"}, {"action", "delay"}, {"ms", 100}, {"count", 100}}));
    {
        Runner first(args);
        QTRY_VERIFY_WITH_TIMEOUT(first.blocksDone() >= 3, kWait);
        first.kill9();
    }
    QVERIFY(QFile::exists(tmp));
    QVERIFY(!QFile::exists(target));
    const QList<CKXBlockTask*> done = storedDone(QStringLiteral("resume-download"));
    const int doneBefore = done.size();
    QVERIFY(doneBefore >= 3 && doneBefore < kBlocks);
    // What the killed run finished is in place in the temporary file.
    for (CKXBlockTask* block : done) {
        QCOMPARE(readRange(tmp, block->loc(), block->length()),
                 readRange(source, block->loc(), block->length()));
    }
    qDeleteAll(done);

    QVERIFY(m_server.clearFaults());
    // The killed client's last request may still be held up by the server; let it end uncounted.
    QTRY_VERIFY_WITH_TIMEOUT(stat("inflight") == 0, kWait);
    QVERIFY(m_server.resetStats());
    Runner second(args);
    QVERIFY(second.finished(kWait));
    QCOMPARE(second.exitCode(), 0);
    QCOMPARE(second.lastLine(), QStringLiteral("done 0 64"));
    QCOMPARE(stat("downloads"), kBlocks - doneBefore);
    QCOMPARE(fileSha256(target), sha);
    QVERIFY(!QFile::exists(tmp));
}

QTEST_GUILESS_MAIN(TestChunkedResume)
#include "tst_ChunkedResume.moc"
