// Two hundred tasks of mixed sizes started at once through the public API: most are small
// whole-file transfers, a few are chunked. Every task ends with exactly one final callback and the
// right file, the manager empties, and once the engine and the server library are shut down no
// thread is left and the memory is back near where it started.

#include "KXReliabilityTest.h"
#include "ServerApiConfig.h"

#include <QDir>
#include <QRandomGenerator>
#include <QRegularExpression>
#include <QTest>

#include <malloc.h>

namespace {

const int kTasks = 200;
const int kChunked = 12; // half up, half down
const qint64 kMiB = 1024 * 1024;
// The allocator keeps much of what 200 threads freed in its arenas (they grow by some megabytes
// with every such burst), so the resident size gets a generous bound; the bytes still allocated get
// a tight one, which a task that leaked its block buffers would exceed many times over.
const qint64 kRssSlack = 128 * kMiB;
const qint64 kHeapSlack = 4 * kMiB;
const int kLoadMs = 300000;

// gcc says so with a macro, clang with a feature test.
#ifndef __has_feature
#define __has_feature(feature) 0
#endif
constexpr bool kAddressSanitizer =
#if defined(__SANITIZE_ADDRESS__) || __has_feature(address_sanitizer)
    true;
#else
    false;
#endif

int threadCount()
{
    return QDir(QStringLiteral("/proc/self/task")).entryList(QDir::Dirs | QDir::NoDotAndDotDot).size();
}

// Memory the process has freed but the allocator still holds is given back before measuring.
qint64 settledResidentBytes()
{
    ::malloc_trim(0);
    const QRegularExpression vmRss(QStringLiteral("VmRSS:\\s*(\\d+) kB"));
    const QRegularExpressionMatch match = vmRss.match(QString::fromLatin1(readFile("/proc/self/status")));
    return match.hasMatch() ? match.captured(1).toLongLong() * 1024 : -1;
}

// One task of the load and what it should produce.
struct LoadTask
{
    SubTaskInfo task;
    QString sha;
    long long handle = 0;
};

} // namespace

class TestLoad : public CKXReliabilityTest
{
    Q_OBJECT

private slots:
    void twoHundredAtOnce();

private:
    QList<LoadTask> prepare();
    // Each task reported once, with code 0, and its file arrived intact.
    void checkOutcomes(const QList<LoadTask>& tasks);
};

QList<LoadTask> TestLoad::prepare()
{
    QRandomGenerator random(4242);
    QList<LoadTask> tasks;
    for (int i = 0; i < kTasks; ++i) {
        const qint64 size = i < kChunked ? 5 * kMiB + qint64(random.bounded(4 * int(kMiB)))
                                         : qint64(random.bounded(256 * 1024));
        const QByteArray content = randomBytes(size, 1000 + i);
        const QString name = QStringLiteral("load-%1.bin").arg(i);
        const QString remote = QStringLiteral("/load/") + name;
        LoadTask load;
        load.sha = sha256Hex(content);
        const QString local = env().localPath(QStringLiteral("local/") + name);
        const bool upload = i % 2 == 0;
        load.task = upload ? CKXApiFixture::uploadTask(local, remote)
                           : CKXApiFixture::downloadTask(remote, size, local);
        if (!(upload ? writeFile(local, content) : env().putRemoteFile(remote, content))) {
            return {};
        }
        tasks << load;
    }
    return tasks;
}

void TestLoad::checkOutcomes(const QList<LoadTask>& tasks)
{
    for (const LoadTask& load : tasks) {
        const ApiTaskRecord record = CKXApiFixture::record(load.handle);
        const QString what = load.task.remoteFile.path;
        QVERIFY2(record.finals == 1,
                 qPrintable(QStringLiteral("%1: %2 final callbacks").arg(what).arg(record.finals)));
        checkCode(record, NoError);
        QByteArray content;
        if (load.task.isUpload) {
            QVERIFY(env().readRemoteFile(what, &content));
        } else {
            content = readFile(load.task.localFile.path);
        }
        QVERIFY2(sha256Hex(content) == load.sha, qPrintable(what));
    }
}

void TestLoad::twoHundredAtOnce()
{
    QList<LoadTask> tasks = prepare();
    QCOMPARE(tasks.size(), kTasks);

    // One task first, so that what the engine and Qt set up once for good is in the baseline.
    const QString warm = env().localPath(QStringLiteral("warm.bin"));
    QVERIFY(writeFile(warm, randomBytes(5 * kMiB, 7)));
    ApiTaskRecord warmed;
    KX_RUN_TO_END(env(), CKXApiFixture::uploadTask(warm, QStringLiteral("/warm.bin")), &warmed, false);
    QCOMPARE(warmed.code, NoError);
    Transfer::deinit();
    ServerApi::shutdown();
    const int threadsBefore = threadCount();
    const qint64 rssBefore = settledResidentBytes();
    const qint64 heapBefore = qint64(::mallinfo2().uordblks);
    Transfer::setConfig(TransferConfigUserPath, QString());
    Transfer::setConfig(TransferConfigMaxConcurrentCount, QStringLiteral("4"));
    env().configureServerApi(env().server().token());

    for (LoadTask& load : tasks) {
        load.handle = CKXApiFixture::init(load.task);
        QVERIFY(load.handle != 0);
    }
    QCOMPARE(Transfer::transferCount(), kTasks);
    for (const LoadTask& load : qAsConst(tasks)) {
        Transfer::start(load.handle);
    }
    QTRY_COMPARE_WITH_TIMEOUT(Transfer::transferCount(), 0, kLoadMs);

    checkOutcomes(tasks);
    if (QTest::currentTestFailed()) {
        return;
    }

    Transfer::deinit();
    ServerApi::shutdown();
    QTRY_VERIFY2_WITH_TIMEOUT(
        threadCount() <= threadsBefore,
        qPrintable(QStringLiteral("%1 threads, %2 before").arg(threadCount()).arg(threadsBefore)), 10000);
    if (kAddressSanitizer) {
        QSKIP("AddressSanitizer's allocator keeps a quarantine; memory is checked in the normal build");
    }
    const qint64 rssAfter = settledResidentBytes();
    const qint64 heapAfter = qint64(::mallinfo2().uordblks);
    qInfo("resident %lld KiB before, %lld KiB after; allocated %lld KiB before, %lld KiB after",
          rssBefore / 1024, rssAfter / 1024, heapBefore / 1024, heapAfter / 1024);
    QVERIFY2(rssAfter <= rssBefore + kRssSlack,
             qPrintable(QStringLiteral("%1 bytes resident, %2 before").arg(rssAfter).arg(rssBefore)));
    QVERIFY2(heapAfter <= heapBefore + kHeapSlack,
             qPrintable(QStringLiteral("%1 bytes allocated, %2 before").arg(heapAfter).arg(heapBefore)));
}

QTEST_GUILESS_MAIN(TestLoad)
#include "tst_Load.moc"
