// The public API against a real kxserver: whole-file transfers (up to 4 MiB), downloads from plain
// addresses (a real nginx), and cancel, delete and shutdown of every kind of transfer while its
// request is in flight, from inside the callbacks, and racing with the end of the transfer.

#include "KXApiFixture.h"
#include "KXNginxProcess.h"
#include "KXUtil.h"

#include <QDir>
#include <QFile>
#include <QJsonObject>
#include <QMutex>
#include <QRandomGenerator>
#include <QSemaphore>
#include <QTemporaryDir>
#include <QTest>
#include <QThread>

#include <atomic>
#include <memory>

namespace {

const qint64 kOneBlock = 4194304;
const qint64 kOnePiB = qint64(1) << 50;
const qint64 kWholeSize = 256 * 1024;
const qint64 kChunkedSize = kOneBlock + 1024; // two blocks
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

// True once a request stays in flight across 100 ms: the held one lasts kHeldMs, while a short
// request a transfer makes before it (a hash query, a lookup) ends within milliseconds. A single
// look could catch that one, and QTRY_VERIFY looks once more after its loop.
bool heldRequestInFlight(CKXServerProcess& server)
{
    if (statOf(server, "inflight") == 0) {
        return false;
    }
    QTest::qWait(100);
    return statOf(server, "inflight") > 0;
}

QStringList entriesOf(const QString& folder)
{
    return QDir(folder).entryList(QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot);
}

} // namespace

class TestApiTransfer : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void cleanup();

    void roundTrip_data();
    void roundTrip();
    void nameCollisions();
    void failuresLeaveNothingBehind();
    void completedTaskIsNotRunAgain();

    void downloadsAddress();
    void failedAddressLeavesNothing_data();
    void failedAddressLeavesNothing();
    void uploadMarkedTaskStillDownloads();

    void cancelOrDeleteMidRequest_data();
    void cancelOrDeleteMidRequest();
    void cancelOrDeleteFromCallbacks_data();
    void cancelOrDeleteFromCallbacks();
    void cancelRacingTheEndEndsOnce();
    void deinitLeavesRunningTasksResumable();

private:
    SubTaskInfo smallUpload(const QString& name);
    QString publish(const QString& name, const QByteArray& content);
    Prepared prepare(int kind, const QString& name, qint64 size = 0);
    void checkConsistentEnd(const Prepared& prepared, const ApiTaskRecord& record);

    QTemporaryDir m_www;
    KXNginxProcess m_nginx;
    std::unique_ptr<CKXApiFixture> m_env;
};

// One nginx serves the plain addresses of every case.
void TestApiTransfer::initTestCase()
{
    QVERIFY(m_www.isValid());
    QVERIFY2(m_nginx.start(m_www.path()), qPrintable(m_nginx.errorString()));
}

void TestApiTransfer::init()
{
    QStringList serverArgs;
    if (QByteArray(QTest::currentTestFunction()) == "uploadMarkedTaskStillDownloads") {
        // The authorisation answers this address as the data server of the upload.
        serverArgs << QStringLiteral("--public-url") << m_nginx.baseUrl() + QStringLiteral("/files/a.bin");
    }
    m_env.reset(new CKXApiFixture(serverArgs));
    QVERIFY2(m_env->setUp(), qPrintable(m_env->errorString()));
}

void TestApiTransfer::cleanup()
{
    m_env.reset();
}

// A task uploading a new local file of 1000 bytes to /small/`name`.
SubTaskInfo TestApiTransfer::smallUpload(const QString& name)
{
    const QString local = m_env->localPath(name);
    writeFile(local, randomBytes(1000));
    return CKXApiFixture::uploadTask(local, QStringLiteral("/small/") + name);
}

QString TestApiTransfer::publish(const QString& name, const QByteArray& content)
{
    return writeFile(m_www.filePath(name), content) ? m_nginx.baseUrl() + QLatin1Char('/') + name : QString();
}

void TestApiTransfer::roundTrip_data()
{
    QTest::addColumn<qint64>("size");
    QTest::newRow("empty") << qint64(0);
    QTest::newRow("exactly one block") << kOneBlock;
}

void TestApiTransfer::roundTrip()
{
    QFETCH(qint64, size);
    CKXApiFixture& env = *m_env;
    const QByteArray content = randomBytes(size, int(size));
    const QString local = env.localPath(QStringLiteral("up.bin"));
    QVERIFY(writeFile(local, content));
    const QString remote = QStringLiteral("/round/trip-%1.bin").arg(size);
    QVERIFY(env.server().resetStats());

    const SubTaskInfo up = CKXApiFixture::uploadTask(local, remote);
    ApiTaskRecord upRecord;
    KX_RUN_TO_END(env, up, &upRecord, false);
    QCOMPARE(upRecord.code, NoError);
    QCOMPARE(upRecord.task.state, StateCompleted);
    QByteArray stored;
    QVERIFY(env.readRemoteFile(remote, &stored));
    QCOMPARE(sha256Hex(stored), sha256Hex(content));
    // Even 4194304 bytes travel whole, in one request.
    QCOMPARE(statOf(env.server(), "block_uploads"), 0);
    QCOMPARE(qint64(env.server().stats().value("file_upload_bytes").toDouble()), size);
    if (size == kOneBlock) {
        QVERIFY(upRecord.progress > 0);
        QVERIFY(upRecord.lastBytes <= size);
    }
    m_env->checkReadOnce(up.subTaskId, size);
    if (QTest::currentTestFailed()) {
        return;
    }

    // Into a folder that does not exist yet.
    const QString back = env.localPath(QStringLiteral("back/down.bin"));
    const SubTaskInfo down = CKXApiFixture::downloadTask(remote, size, back);
    ApiTaskRecord downRecord;
    KX_RUN_TO_END(env, down, &downRecord, false);
    QCOMPARE(downRecord.code, NoError);
    QVERIFY(QFile::exists(back));
    QCOMPARE(sha256Hex(readFile(back)), sha256Hex(content));
    QVERIFY(!QFile::exists(KXUtil::tmpFile(back, down.subTaskId)));
    if (size == kOneBlock) {
        QVERIFY(downRecord.progress > 0);
        QCOMPARE(downRecord.lastBytes, size);
    }
    m_env->checkReadOnce(down.subTaskId, size);
}

// Without overwrite a download takes the next free numbered name, beside the local file it would
// have replaced; with overwrite an upload replaces the remote file.
void TestApiTransfer::nameCollisions()
{
    CKXApiFixture& env = *m_env;
    const QByteArray remoteContent("remote content\n");
    QVERIFY(env.putRemoteFile(QStringLiteral("/c/report.txt"), remoteContent));
    const QString local = env.localPath(QStringLiteral("report.txt"));
    QVERIFY(writeFile(local, "local original"));
    ApiTaskRecord record;
    KX_RUN_TO_END(env,
                  CKXApiFixture::downloadTask(QStringLiteral("/c/report.txt"), remoteContent.size(), local),
                  &record, false);
    QCOMPARE(record.code, NoError);
    QCOMPARE(readFile(env.localPath(QStringLiteral("report(1).txt"))), remoteContent);
    QCOMPARE(readFile(local), QByteArray("local original"));

    SubTaskInfo overwrite = CKXApiFixture::uploadTask(local, QStringLiteral("/c/report.txt"));
    overwrite.remoteFile.syncOverwrite = true;
    KX_RUN_TO_END(env, overwrite, &record, false);
    QCOMPARE(record.code, NoError);
    QByteArray stored;
    QVERIFY(env.readRemoteFile(QStringLiteral("/c/report.txt"), &stored));
    QCOMPARE(stored, QByteArray("local original"));
}

void TestApiTransfer::failuresLeaveNothingBehind()
{
    CKXApiFixture& env = *m_env;
    // Local problems are found before a request is made.
    QVERIFY(env.server().resetStats());
    ApiTaskRecord missing;
    KX_RUN_TO_END(env,
                  CKXApiFixture::uploadTask(env.localPath(QStringLiteral("nothing.bin")), "/l/nothing.bin"),
                  &missing, false);
    QCOMPARE(missing.code, LocalFileError);
    QCOMPARE(missing.task.state, StateError);

    // More than any disk holds; the check happens before a byte is asked for.
    const QString huge = env.localPath(QStringLiteral("huge.bin"));
    ApiTaskRecord noSpace;
    const SubTaskInfo hugeTask = CKXApiFixture::downloadTask(QStringLiteral("/l/huge.bin"), kOnePiB, huge);
    KX_RUN_TO_END(env, hugeTask, &noSpace, false);
    QCOMPARE(noSpace.code, NoSpace);
    QVERIFY(!QFile::exists(huge));
    QVERIFY(!QFile::exists(KXUtil::tmpFile(huge, hugeTask.subTaskId)));
    QCOMPARE(statOf(env.server(), "requests"), 0);

    // A body of another length than the task's (the file changed since its size was learnt) is not
    // published.
    const QByteArray content = randomBytes(1 << 20);
    QVERIFY(env.putRemoteFile(QStringLiteral("/f/big.bin"), content));
    const QString kept = env.localPath(QStringLiteral("kept.bin"));
    QVERIFY(writeFile(kept, "previous version"));
    SubTaskInfo stale = CKXApiFixture::downloadTask(QStringLiteral("/f/big.bin"), content.size() + 1, kept);
    stale.remoteFile.syncOverwrite = true;
    ApiTaskRecord wrongSize;
    KX_RUN_TO_END(env, stale, &wrongSize, false);
    QCOMPARE(int(wrongSize.code), int(RenameTmpFileError));
    QCOMPARE(readFile(kept), QByteArray("previous version"));
}

// The stored row of a completed task alone decides: run again, the task ends at once, not even
// noticing that its local file is gone. A task read in its final callback is gone for good: the
// finished transfer must not write the row back afterwards.
void TestApiTransfer::completedTaskIsNotRunAgain()
{
    CKXApiFixture& env = *m_env;
    const SubTaskInfo task = smallUpload(QStringLiteral("done.bin"));
    ApiTaskRecord record;
    KX_RUN_TO_END(env, task, &record, false);
    QCOMPARE(record.code, NoError);
    QVERIFY(QFile::remove(task.localFile.path));
    QVERIFY(env.server().resetStats());
    KX_RUN_TO_END(env, task, &record, false);
    QCOMPARE(record.code, NoError);
    QCOMPARE(record.task.state, StateCompleted);
    QCOMPARE(statOf(env.server(), "requests"), 0);
    m_env->checkReadOnce(task.subTaskId, 1000);

    const SubTaskInfo read = smallUpload(QStringLiteral("read.bin"));
    CKXApiFixture::readTaskInFinalCallback(true);
    KX_RUN_TO_END(env, read, &record, false);
    QCOMPARE(record.code, NoError);
    QVERIFY(record.readInFinal);
    QCOMPARE(env.dbRowState(read.subTaskId), -1);
    SubTaskInfo again;
    QVERIFY(!Transfer::taskInfo(read.subTaskId, again));
}

void TestApiTransfer::downloadsAddress()
{
    const QByteArray content = randomBytes(300 * 1024);
    const QString url = publish(QStringLiteral("files/a.bin"), content);
    QVERIFY(!url.isEmpty());
    const QString local = m_env->localPath(QStringLiteral("a.bin"));
    SubTaskInfo task = CKXApiFixture::downloadTask(QString(), 0, local);
    task.dataServerHost = url;
    // Left over from an earlier attempt and longer than the file: it must be rewritten, not
    // appended to.
    QVERIFY(writeFile(KXUtil::tmpFile(local, task.subTaskId), randomBytes(512 * 1024, 7)));

    ApiTaskRecord record;
    KX_RUN_TO_END(*m_env, task, &record, true);
    QCOMPARE(record.code, NoError);
    QCOMPARE(sha256Hex(readFile(local)), sha256Hex(content));
    QVERIFY(!QFile::exists(KXUtil::tmpFile(local, task.subTaskId)));
    // The size is learnt from the download itself.
    QCOMPARE(record.task.size, qint64(content.size()));
    QVERIFY(record.progress > 0);
    m_env->checkReadOnce(record.task.subTaskId, content.size());
}

void TestApiTransfer::failedAddressLeavesNothing_data()
{
    QTest::addColumn<QString>("address"); // "nginx" stands for that server's base
    QTest::addColumn<int>("httpCode");
    QTest::newRow("not found") << QStringLiteral("nginx/nope.bin") << 404;
    QTest::newRow("unsupported scheme") << QStringLiteral("gopher://127.0.0.1/f.bin") << 0;
}

// Nothing of a failed download stays on disk: a failed download starts from byte 0 again anyway.
void TestApiTransfer::failedAddressLeavesNothing()
{
    QFETCH(QString, address);
    QFETCH(int, httpCode);
    address.replace(QStringLiteral("nginx"), m_nginx.baseUrl());
    const QString folder = m_env->localPath(QStringLiteral("got"));
    QVERIFY(QDir().mkpath(folder));

    ApiTaskRecord record;
    KX_RUN_ADDRESS_TO_END(*m_env, address, folder + QStringLiteral("/f.bin"), &record);
    // A plain address answers without a server error code: the failure is in the record.
    QCOMPARE(record.task.state, StateError);
    QCOMPARE(record.task.httpCode, httpCode);
    QCOMPARE(entriesOf(folder), QStringList());
    QCOMPARE(record.task.subTaskId.size(),
             38); // the address form draws an id of its own
    QCOMPARE(m_env->dbRowState(record.task.subTaskId), int(StateError));
}

// An upload flag on a URL task still runs the upload checks (local file, authorisation), and the
// authorisation's data server becomes the address; then the address is downloaded.
void TestApiTransfer::uploadMarkedTaskStillDownloads()
{
    const QByteArray content = randomBytes(100 * 1024, 3);
    QVERIFY(!publish(QStringLiteral("files/a.bin"), content).isEmpty());
    const QString local = m_env->localPath(QStringLiteral("a.bin"));
    QVERIFY(writeFile(local, "older local copy"));
    SubTaskInfo task = CKXApiFixture::uploadTask(local, QStringLiteral("/u/a.bin"));
    task.remoteFile.syncOverwrite = true;
    QVERIFY(m_env->server().resetStats());

    ApiTaskRecord record;
    KX_RUN_TO_END(*m_env, task, &record, true);
    QCOMPARE(record.code, NoError);
    QCOMPARE(sha256Hex(readFile(local)), sha256Hex(content));
    const QJsonObject stats = m_env->server().stats();
    QCOMPARE(stats.value("requests").toInt(), 1);
    QCOMPARE(stats.value("file_upload_bytes").toInt(), 0);
}

// `size` 0: two blocks for a chunked kind, a quarter MiB for the others.
Prepared TestApiTransfer::prepare(int kind, const QString& name, qint64 size)
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
void TestApiTransfer::checkConsistentEnd(const Prepared& prepared, const ApiTaskRecord& record)
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

void TestApiTransfer::cancelOrDeleteMidRequest_data()
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
void TestApiTransfer::cancelOrDeleteMidRequest()
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
    QTRY_VERIFY_WITH_TIMEOUT(heldRequestInFlight(env.server()), kFinishMs);

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

void TestApiTransfer::cancelOrDeleteFromCallbacks_data()
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

void TestApiTransfer::cancelOrDeleteFromCallbacks()
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
void TestApiTransfer::cancelRacingTheEndEndsOnce()
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
void TestApiTransfer::deinitLeavesRunningTasksResumable()
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
    // Both held: the second block's hash query has been answered, so what is in flight is its
    // upload and the download.
    QVERIFY(env.server().waitForStats(
        [&](const QJsonObject& now) {
            return env.dbBlockRows(upload.task.subTaskId, kBlockDone) == 1 &&
                   now.value("hash_queries").toInt() >= 2 && now.value("inflight").toInt() == 2;
        },
        kFinishMs));

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

QTEST_GUILESS_MAIN(TestApiTransfer)
#include "tst_api_KXTransfer.moc"
