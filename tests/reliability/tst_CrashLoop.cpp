// A client killed with SIGKILL at random moments of chunked transfers, again and again: the runner
// of the chunked end-to-end tests carries one task in a process of its own, and is killed at a
// moment drawn from a fixed seed, then started again with the same task. Every file that completes
// is identical to its source, and the server never receives much more than the file: each kill
// costs at most the blocks that were in flight.

#include "KXReliabilityTest.h"
#include "KXRunnerProcess.h"
#include "KXUtil.h"

#include <QRandomGenerator>
#include <QTest>

namespace {

const qint64 kBlock = 4194304;
const qint64 kSize = 6 * kBlock + 12345; // seven blocks, about 24 MiB
const int kConcurrency = 2;
const int kKills = 20;
const int kWaitMs = 120000;
const quint32 kSeed = 20260522;
// The server holds every block request this long, so that a run lasts long enough to be cut.
const int kBlockDelayMs = 300;

// One task of the loop: a file that goes up, or comes down, under a sub-task id of its own.
struct Job
{
    bool download;
    QString id;
    QString local;
    QString remote;
    QString sha;
};

} // namespace

class TestCrashLoop : public CKXReliabilityTest
{
    Q_OBJECT

private slots:
    void killedAgainAndAgain_data();
    void killedAgainAndAgain();
    void killedWhileFinishingDownload();

private:
    Job newJob(bool download, int n);
    // The runner of `job`, with a home of its own for its database.
    QStringList runnerArgs(const Job& job)
    {
        return KXRunnerProcess::args(env().server(), job.id, job.local, job.remote, kSize, job.download,
                                     kConcurrency);
    }
    QString runnerHome() { return env().localPath(QStringLiteral("runner-home")); }
    // The job's file is complete and identical at its destination.
    void checkDone(const Job& job);
    qint64 stat(const char* name)
    {
        return qint64(env().server().stats().value(QLatin1String(name)).toDouble());
    }
};

Job TestCrashLoop::newJob(bool download, int n)
{
    const QString name = QStringLiteral("%1-%2.bin").arg(download ? "down" : "up").arg(n);
    const QByteArray content = randomBytes(kSize, int(kSeed) + n * 2 + (download ? 1 : 0));
    const Job job{download, QStringLiteral("crash-") + name, env().localPath(name),
                  QStringLiteral("/crash/") + name, sha256Hex(content)};
    const bool stored = download ? env().putRemoteFile(job.remote, content) : writeFile(job.local, content);
    return stored ? job : Job();
}

void TestCrashLoop::checkDone(const Job& job)
{
    QByteArray content;
    if (job.download) {
        content = readFile(job.local);
        QVERIFY(!QFile::exists(KXUtil::tmpFile(job.local, job.id)));
    } else {
        QVERIFY(env().readRemoteFile(job.remote, &content));
    }
    QCOMPARE(qint64(content.size()), kSize);
    QCOMPARE(sha256Hex(content), job.sha);
}

void TestCrashLoop::killedAgainAndAgain_data()
{
    QTest::addColumn<bool>("download");
    QTest::newRow("upload") << false;
    QTest::newRow("download") << true;
}

void TestCrashLoop::killedAgainAndAgain()
{
    QFETCH(bool, download);
    const char* blockOp = download ? "download" : "block_upload";
    const char* bytesStat = download ? "download_bytes" : "block_bytes";
    QVERIFY(env().server().armFault(
        {{"op", blockOp}, {"action", "delay"}, {"ms", kBlockDelayMs}, {"count", 100000}}));
    QRandomGenerator random(kSeed);
    int kills = 0;
    int completed = 0;
    int jobs = 0;
    Job job = newJob(download, jobs++);
    QVERIFY(!job.id.isEmpty());
    const qint64 bytesBefore = stat(bytesStat);

    // A job that completes between two kills is checked and replaced by a new one, so that every
    // round is killed during some chunked transfer; after the last kill the job runs to its end.
    for (;;) {
        KXRunnerProcess run(runnerArgs(job), runnerHome());
        QVERIFY(run.started(kWaitMs));
        // Anywhere from hashing the first blocks to committing or moving the file into place.
        if (kills < kKills && run.finish(int(random.bounded(20, 900))).isEmpty()) {
            run.kill9();
            ++kills;
            continue;
        }
        QCOMPARE(run.finish(kWaitMs), QStringLiteral("done 0 64"));
        checkDone(job);
        if (QTest::currentTestFailed()) {
            return;
        }
        ++completed;
        if (kills >= kKills) {
            break;
        }
        job = newJob(download, jobs++);
        QVERIFY(!job.id.isEmpty());
    }
    qInfo("%d kills, %d files completed", kills, completed);

    // The killed runs' requests may still be held by the server; their bytes count once they end.
    QTRY_COMPARE_WITH_TIMEOUT(stat("inflight"), qint64(0), kWaitMs);
    const qint64 moved = stat(bytesStat) - bytesBefore;
    const qint64 bound = qint64(kills) * kConcurrency * kBlock + qint64(completed) * kSize;
    QVERIFY2(moved <= bound,
             qPrintable(QStringLiteral("%1 bytes moved, at most %2 allowed").arg(moved).arg(bound)));
    QVERIFY(moved >= qint64(completed) * kSize);
}

void TestCrashLoop::killedWhileFinishingDownload()
{
    const Job job = newJob(true, 1000);
    QVERIFY(!job.id.isEmpty());
    QVERIFY(env().server().resetStats());
    // The download reports itself to the server after the file is in place; that report, the
    // request after the seven blocks, is held until the client is gone.
    QVERIFY(env().server().armFault({{"op", "log"}, {"action", "delay"}, {"ms", 30000}}));
    KXRunnerProcess killed(runnerArgs(job), runnerHome());
    QTRY_VERIFY_WITH_TIMEOUT(stat("requests") >= 8, kWaitMs);
    QVERIFY(QFile::exists(job.local));
    killed.kill9();
    QVERIFY(!QFile::exists(KXUtil::tmpFile(job.local, job.id)));
    // The held report no longer matters; a server started again has no faults and fresh counts.
    env().server().kill9();
    QVERIFY2(env().server().restart(), qPrintable(env().server().errorString()));

    // The next run finds the task complete and moves nothing again.
    KXRunnerProcess again(runnerArgs(job), runnerHome());
    QCOMPARE(again.finish(kWaitMs), QStringLiteral("done 0 64"));
    QCOMPARE(stat("downloads"), qint64(0));
    checkDone(job);
}

QTEST_GUILESS_MAIN(TestCrashLoop)
#include "tst_CrashLoop.moc"
