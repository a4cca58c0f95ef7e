// Cancel, delete and shutdown of every kind of transfer while its request is in flight, from inside
// the callbacks, and racing with the end of the transfer, through the public API against kxserver.

#include "KXApiFixture.h"

#include <QDir>
#include <QFile>
#include <QJsonObject>
#include <QMutex>
#include <QRandomGenerator>
#include <QSemaphore>
#include <QTest>
#include <QThread>

#include <atomic>
#include <memory>

namespace {

const qint64 kWholeSize = 256 * 1024;
const qint64 kChunkedSize = 4194304 + 1024; // two blocks
const qint64 kRaceSize = 32 * 1024;
const int kBlockDone = 16;
const int kHeldMs = 2000;         // far longer than an aborted request takes to end
const int kErrorCancelled = 1001; // the server-API library's code of an aborted request

// A transfer's kind as flags: a download of the account's own space when none is set.
const int kUpload = 1;
const int kChunked = 2;
const int kLink = 4;
const int kAddress = 8;

// The server operation that carries the file's bytes for `kind`.
QString bytesOp(int kind)
{
    if (!(kind & kUpload)) {
        return QStringLiteral("download");
    }
    return (kind & kChunked) ? QStringLiteral("block_upload") : QStringLiteral("file_upload");
}

// A task ready to start, and for a download the folder that only its target may end up in.
struct Prepared
{
    SubTaskInfo task;
    bool isUrl = false;
    QString folder;
    QString target;
    QByteArray content;
};

int statOf(CKXServerProcess& server, const char* name)
{
    return server.stats().value(QLatin1String(name)).toInt();
}

QStringList entriesOf(const QString& folder)
{
    return QDir(folder).entryList(QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot);
}

} // namespace

class TestApiCancel : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();

    void cancelOrDeleteMidRequest_data();
    void cancelOrDeleteMidRequest();
    void cancelOrDeleteFromCallbacks_data();
    void cancelOrDeleteFromCallbacks();
    void cancelRacingTheEndEndsOnce();
    void deinitLeavesRunningTasksResumable();

private:
    Prepared prepare(int kind, const QString& name, qint64 size = 0);
    void checkConsistentEnd(const Prepared& prepared, const ApiTaskRecord& record);

    std::unique_ptr<CKXApiFixture> m_env;
};

void TestApiCancel::init()
{
    m_env.reset(new CKXApiFixture);
    QVERIFY2(m_env->setUp(), qPrintable(m_env->errorString()));
}

void TestApiCancel::cleanup()
{
    m_env.reset();
}

// `size` 0: two blocks for a chunked kind, a quarter MiB for the others.
Prepared TestApiCancel::prepare(int kind, const QString& name, qint64 size)
{
    CKXApiFixture& env = *m_env;
    Prepared prepared;
    if (size == 0) {
        size = (kind & kChunked) ? kChunkedSize : kWholeSize;
    }
    prepared.content = randomBytes(size, int(qHash(name)));
    const QString remote = QStringLiteral("/c/") + name;
    QString code;
    if (kind & kUpload) {
        const QString local = env.localPath(QStringLiteral("up/") + name);
        writeFile(local, prepared.content);
        if (kind & kLink) {
            code = env.server().createShare(QStringLiteral("/shared"), true);
        }
        prepared.task = CKXApiFixture::uploadTask(local, remote);
    } else {
        env.putRemoteFile(remote, prepared.content);
        prepared.folder = env.localPath(QStringLiteral("down-") + name);
        QDir().mkpath(prepared.folder);
        prepared.target = prepared.folder + QStringLiteral("/") + name;
        if (kind & kLink) {
            code = env.server().createShare(QStringLiteral("/c"), false);
        }
        prepared.task = CKXApiFixture::downloadTask((kind & kLink) ? QStringLiteral("/") + name : remote,
                                                    prepared.content.size(), prepared.target);
    }
    if (kind & kLink) {
        prepared.task.remoteFile.isDeliveryTrans = true;
        prepared.task.remoteFile.delivery.code = code;
    }
    if (kind == kAddress) {
        prepared.isUrl = true;
        prepared.task.dataServerHost = env.server().baseUrl() + QStringLiteral("/v1/raw/self") + remote +
                                       QStringLiteral("?session=") + env.server().token();
    }
    return prepared;
}

// A task that ended successfully has its file in place; any other leaves no whole-file download
// behind, neither the target nor its temporary file.
void TestApiCancel::checkConsistentEnd(const Prepared& prepared, const ApiTaskRecord& record)
{
    QCOMPARE(record.finals, 1);
    const bool done = record.code == NoError && (record.task.state & StateCompleted);
    if (done) {
        if (!prepared.target.isEmpty()) {
            QCOMPARE(sha256Hex(readFile(prepared.target)), sha256Hex(prepared.content));
        }
        return;
    }
    QVERIFY(!(record.task.state & StateCompleted));
    if (!prepared.folder.isEmpty()) {
        QCOMPARE(entriesOf(prepared.folder), QStringList());
    }
}

void TestApiCancel::cancelOrDeleteMidRequest_data()
{
    QTest::addColumn<int>("kind");
    QTest::addColumn<bool>("del");
    const QList<QPair<const char*, int>> kinds = {
        {"whole upload", kUpload},
        {"whole download", 0},
        {"chunked upload", kUpload | kChunked},
        {"chunked download", kChunked},
        {"link whole upload", kLink | kUpload},
        {"link whole download", kLink},
        {"link chunked upload", kLink | kUpload | kChunked},
        {"link chunked download", kLink | kChunked},
        {"address download", kAddress},
    };
    for (const auto& kind : kinds) {
        QTest::addRow("cancel %s", kind.first) << kind.second << false;
        QTest::addRow("del %s", kind.first) << kind.second << true;
    }
}

// The server holds the request: only an aborted request ends with the cancelled code, and a request
// that was not aborted would finish the task once the server lets it go. A deleted task's final
// callback is held, so that its transfer certainly has not finished when it is counted.
void TestApiCancel::cancelOrDeleteMidRequest()
{
    QFETCH(int, kind);
    QFETCH(bool, del);
    CKXApiFixture& env = *m_env;
    const Prepared prepared = prepare(kind, QStringLiteral("f.bin"));
    const QString id = prepared.task.subTaskId;
    QVERIFY(
        env.server().armFault({{"op", bytesOp(kind)}, {"action", "delay"}, {"ms", kHeldMs}, {"count", 10}}));
    QSemaphore finalHeld;
    QSemaphore release;
    CKXApiFixture::setCallbackHook([&](long long, bool final) {
        if (final && del) {
            finalHeld.release();
            release.acquire();
        }
    });
    const long long handle = CKXApiFixture::start(prepared.task, prepared.isUrl);
    QTRY_VERIFY_WITH_TIMEOUT(statOf(env.server(), "inflight") > 0, kFinishMs);

    if (del) {
        Transfer::del(handle);
        QVERIFY(finalHeld.tryAcquire(1, kFinishMs));
        // Unlike cancel(), del() leaves the handle to the finishing thread.
        const int running = Transfer::transferCount();
        release.release();
        QCOMPARE(running, 1);
    } else {
        Transfer::cancel(handle);
        QCOMPARE(Transfer::transferCount(), 0);
    }
    QTRY_VERIFY_WITH_TIMEOUT(CKXApiFixture::record(handle).finals > 0, kFinishMs);
    // Waits for every transfer to be gone: nothing can change on disk or in the database after it.
    Transfer::deinit();

    const ApiTaskRecord record = CKXApiFixture::record(handle);
    QCOMPARE(record.finals, 1);
    if (kind & kChunked) {
        QCOMPARE(record.code, NoError);
        QCOMPARE(record.task.state, StatePaused);
    } else {
        QCOMPARE(int(record.code), kErrorCancelled);
        QCOMPARE(record.task.state, StateError);
    }
    QCOMPARE(env.dbRowState(id), del ? -1 : int(record.task.state));
    QCOMPARE(env.dbBlockRows(id), (kind & kChunked) && !del ? 2 : 0);
    if ((kind & kChunked) && !(kind & kUpload) && !del) {
        // The temporary file stays for the resumed run; the target is not there yet.
        const QStringList left = entriesOf(prepared.folder);
        QCOMPARE(left.size(), 1);
        QVERIFY(!left.contains(QStringLiteral("f.bin")));
    } else if (!(kind & kUpload)) {
        QCOMPARE(entriesOf(prepared.folder), QStringList());
    }
    // A graceful stop would wait out the held answers, which nobody reads any more.
    env.server().kill9();
}

void TestApiCancel::cancelOrDeleteFromCallbacks_data()
{
    QTest::addColumn<int>("kind");
    QTest::addColumn<bool>("del");
    QTest::addColumn<bool>("fromFinal");
    QTest::addColumn<bool>("lockHeld");
    // In the callback: the client calls the engine from the engine's own thread (or, for whole-file
    // progress, the server library's). Lock held: the client calls while holding a lock that the
    // callback is waiting for.
    QTest::newRow("cancel in progress, whole download") << 0 << false << false << false;
    QTest::newRow("del in progress, whole upload") << kUpload << true << false << false;
    QTest::newRow("cancel in progress, chunked upload") << (kUpload | kChunked) << false << false << false;
    QTest::newRow("del in final, chunked download") << kChunked << true << true << false;
    QTest::newRow("cancel in final, address") << kAddress << false << true << false;
    QTest::newRow("cancel, lock in progress, whole download") << 0 << false << false << true;
    QTest::newRow("cancel, lock in progress, chunked upload")
        << (kUpload | kChunked) << false << false << true;
    QTest::newRow("cancel, lock in final, chunked upload") << (kUpload | kChunked) << false << true << true;
    QTest::newRow("del, lock in final, link chunked download") << (kLink | kChunked) << true << true << true;
    QTest::newRow("del, lock in progress, address") << kAddress << true << false << true;
}

void TestApiCancel::cancelOrDeleteFromCallbacks()
{
    QFETCH(int, kind);
    QFETCH(bool, del);
    QFETCH(bool, fromFinal);
    QFETCH(bool, lockHeld);
    const Prepared prepared = prepare(kind, QStringLiteral("f.bin"));
    const auto stop = [del](long long handle) {
        del ? Transfer::del(handle) : Transfer::cancel(handle);
    };

    QMutex clientLock;
    std::atomic<bool> entered{false};
    CKXApiFixture::setCallbackHook([&](long long reporting, bool final) {
        if (final != fromFinal || entered.exchange(true)) {
            return;
        }
        if (lockHeld) {
            QMutexLocker locker(&clientLock);
        } else {
            stop(reporting);
        }
    });
    if (lockHeld) {
        clientLock.lock();
    }
    const long long handle = CKXApiFixture::start(prepared.task, prepared.isUrl);
    if (lockHeld) {
        QTRY_VERIFY_WITH_TIMEOUT(entered.load(), kFinishMs);
        // Must come back although the callback waits for the lock this thread holds.
        stop(handle);
        clientLock.unlock();
    }
    QTRY_VERIFY_WITH_TIMEOUT(CKXApiFixture::record(handle).finals > 0, kFinishMs);
    Transfer::deinit();
    QVERIFY(entered.load());
    checkConsistentEnd(prepared, CKXApiFixture::record(handle));
}

// Cancels at random moments around the end of small transfers: each ends exactly once, and as what
// it reports. The seed of the moments goes to the test's output.
void TestApiCancel::cancelRacingTheEndEndsOnce()
{
    // Each round is a task of its own; in a hundred of them some cancels land before the end and
    // most after it, on a quiet machine and more so on a loaded one.
    const int rounds = 100;
    const int kinds[] = {kUpload, 0, kAddress};
    QList<Prepared> prepared;
    QList<long long> handles;
    const quint32 seed = QRandomGenerator::global()->generate();
    qInfo("seed %u", seed);
    QRandomGenerator random(seed);
    int completed = 0;
    for (int i = 0; i < rounds; ++i) {
        const int kind = kinds[i % 3];
        prepared << prepare(kind, QStringLiteral("r%1.bin").arg(i), kRaceSize);
        const long long handle = CKXApiFixture::start(prepared.last().task, prepared.last().isUrl);
        QThread::usleep(random.bounded(8000));
        Transfer::cancel(handle);
        handles << handle;
        QTRY_VERIFY_WITH_TIMEOUT(CKXApiFixture::record(handle).finals > 0, kFinishMs);
    }
    Transfer::deinit();
    for (int i = 0; i < rounds; ++i) {
        const ApiTaskRecord record = CKXApiFixture::record(handles[i]);
        checkConsistentEnd(prepared[i], record);
        if (QTest::currentTestFailed()) {
            qWarning("round %d", i);
            return;
        }
        if (record.code == NoError) {
            ++completed;
        } else {
            QCOMPARE(int(record.code), kErrorCancelled);
        }
    }
    qInfo("%d of %d rounds completed before the cancel took hold", completed, rounds);
}

// Shutting the engine down while transfers are running stops them: the whole-file download without
// a trace, the chunked upload paused, and started again it sends only the block it did not have.
void TestApiCancel::deinitLeavesRunningTasksResumable()
{
    CKXApiFixture& env = *m_env;
    const Prepared upload = prepare(kUpload | kChunked, QStringLiteral("big.bin"));
    const Prepared download = prepare(0, QStringLiteral("small.bin"));
    // The first block goes through; the second, and the download, are held.
    QVERIFY(
        env.server().armFault({{"op", "block_upload"}, {"nth", 2}, {"action", "delay"}, {"ms", kHeldMs}}));
    QVERIFY(env.server().armFault({{"op", "download"}, {"action", "delay"}, {"ms", kHeldMs}}));
    Transfer::setConfig(TransferConfigMaxConcurrentCount, QStringLiteral("1"));
    const long long uploadHandle = CKXApiFixture::start(upload.task);
    const long long downloadHandle = CKXApiFixture::start(download.task);
    QTRY_VERIFY_WITH_TIMEOUT(env.dbBlockRows(upload.task.subTaskId, kBlockDone) == 1 &&
                                 statOf(env.server(), "inflight") == 2,
                             kFinishMs);

    Transfer::deinit();
    QCOMPARE(CKXApiFixture::record(uploadHandle).finals, 1);
    QCOMPARE(CKXApiFixture::record(uploadHandle).task.state, StatePaused);
    QCOMPARE(CKXApiFixture::record(downloadHandle).finals, 1);
    QCOMPARE(env.dbRowState(upload.task.subTaskId), int(StatePaused));
    QCOMPARE(entriesOf(download.folder), QStringList());

    // Started again, the upload sends only the block it did not have.
    QVERIFY(env.server().clearFaults());
    QVERIFY(env.server().resetStats());
    Transfer::setConfig(TransferConfigUserPath, QString());
    Transfer::setConfig(TransferConfigMaxConcurrentCount, QStringLiteral("4"));
    ApiTaskRecord resumed;
    KX_RUN_TO_END(env, upload.task, &resumed, false);
    QCOMPARE(resumed.code, NoError);
    QCOMPARE(statOf(env.server(), "block_uploads"), 1);

    // The answers held before the shutdown are still being waited out by the server.
    env.server().kill9();
}

QTEST_GUILESS_MAIN(TestApiCancel)
#include "tst_api_KXCancel.moc"
