// End-to-end tests of the server-API library against the reference server on a loopback port.

#include "KXResponseRecorder.h"
#include "KXServerProcess.h"
#include "KXSilentServer.h"
#include "KXTestData.h"
#include "ServerApi.h"

#include <QCryptographicHash>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QSet>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTemporaryDir>
#include <QtTest>

#include <atomic>
#include <functional>
#include <thread>

using Recorder = std::shared_ptr<KXResponseRecorder>;

namespace {

const qint64 kBlock = 4194304;
const int kWaitMs = 60000;

QJsonObject json(const ResponseData& response)
{
    return QJsonDocument::fromJson(response.body.toUtf8()).object();
}

KXServerApiEntryModel entryAt(const QString& path)
{
    KXServerApiEntryModel entry;
    entry.path = path;
    entry.overwrite = QStringLiteral("true");
    return entry;
}

} // namespace

// Waits for the one completion of a request and checks the library kept its promises so far.
#define KX_COMPLETE(recorder)                                                                                \
    do {                                                                                                     \
        QTRY_VERIFY_WITH_TIMEOUT((recorder)->completions() > 0, kWaitMs);                                    \
        QCOMPARE((recorder)->violations(), QStringList());                                                   \
    } while (false)

#define KX_OK(recorder)                                                                                      \
    do {                                                                                                     \
        KX_COMPLETE(recorder);                                                                               \
        QVERIFY2((recorder)->response().errorCode == 0, qPrintable((recorder)->response().errorString));     \
        QVERIFY2((recorder)->response().statusCode == 200 || (recorder)->response().statusCode == 206,       \
                 qPrintable((recorder)->response().body));                                                   \
    } while (false)

class TestServerApi : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void cleanup();

    void wholeFileUploadMetadataAndDownloads();
    void chunkedUploadWithQuickTransfer();
    void plainAddressesCarryNoSession();
    void repeatedHeadersAndRedirects();
    void errorAnswersAndBadInput();
    void cancelInTheMiddleOfALargeDownload();
    void droppedConnectionCompletesOnceWithAnError();
    void hashQueriesAreRetriedAfterFaults();
    void silentServerCostsOneStall_data();
    void silentServerCostsOneStall();
    void manyThreadsManyRequests();
    void rateLimitedTransfersArriveIntact();
    void shutdownCompletesPendingRequests();
    void httpsTrustsOnlyTheGivenCertificate();

private:
    ServerApi::Config baseConfig() const;
    ResponseData uploadWhole(const QString& remotePath, const QByteArray& bytes);

    KXServerProcess m_server;
    QTemporaryDir m_dir;
};

void TestServerApi::initTestCase()
{
    QVERIFY(m_dir.isValid());
    QVERIFY2(m_server.start(), qPrintable(m_server.errorString()));
}

ServerApi::Config TestServerApi::baseConfig() const
{
    ServerApi::Config config;
    config.baseUrl = m_server.baseUrl();
    config.sessionId = m_server.token();
    config.connectTimeoutMs = 5000;
    return config;
}

void TestServerApi::init()
{
    ServerApi::configure(baseConfig());
    m_server.clearFaults();
}

void TestServerApi::cleanup()
{
    // Nothing of a test may reach into the next one: after shutdown no callback can come.
    ServerApi::shutdown();
}

ResponseData TestServerApi::uploadWhole(const QString& remotePath, const QByteArray& bytes)
{
    const QString local = m_dir.filePath(QStringLiteral("upload-%1").arg(sha256Hex(bytes).left(12)));
    if (!writeFile(local, bytes))
        return ResponseData();
    Recorder done = KXResponseRecorder::make();
    KXServerApiUploadFileModel model;
    model.entry = entryAt(remotePath);
    model.localPath = local;
    model.size = bytes.size();
    ServerApi::UploadFile(model, done->onResponse(), done->onUploadProgress());
    if (!QTest::qWaitFor([&] { return done->completions() > 0; }, kWaitMs))
        return ResponseData();
    return done->response();
}

void TestServerApi::wholeFileUploadMetadataAndDownloads()
{
    const QByteArray content = randomBytes(3 * 1024 * 1024 + 17, 1);
    const QString local = m_dir.filePath(QStringLiteral("whole.bin"));
    QVERIFY(writeFile(local, content));

    Recorder auth = KXResponseRecorder::make();
    ServerApi::AuthUpload(entryAt(QStringLiteral("/docs/whole.bin")), content.size(), auth->onResponse(),
                          QString());
    KX_OK(auth);
    const QString region = json(auth->response()).value(QStringLiteral("region")).toString();
    QVERIFY(!region.isEmpty());

    Recorder upload = KXResponseRecorder::make();
    KXServerApiUploadFileModel file;
    file.entry = entryAt(QStringLiteral("/docs/whole.bin"));
    file.entry.host = region;
    file.localPath = local;
    file.size = content.size();
    const qint64 uploadId = ServerApi::UploadFile(file, upload->onResponse(), upload->onUploadProgress());
    QVERIFY(uploadId > 0);
    KX_OK(upload);
    QCOMPARE(json(upload->response()).value(QStringLiteral("bytes")).toDouble(), double(content.size()));
    // Cumulative progress ending in one final report of the whole body.
    QVERIFY(!upload->progress().isEmpty());
    QCOMPARE(upload->progress().last(), qMakePair(qint64(content.size()), qint64(content.size())));

    Recorder meta = KXResponseRecorder::make();
    KXServerApiMetaEntryModel folder;
    folder.entry = entryAt(QStringLiteral("/docs"));
    folder.list = true;
    const qint64 metaId = ServerApi::MetaData(folder, meta->onResponse());
    QVERIFY(metaId > uploadId);
    KX_OK(meta);
    const QJsonArray children = json(meta->response()).value(QStringLiteral("contents")).toArray();
    QCOMPARE(children.size(), 1);
    QCOMPARE(children.at(0).toObject().value(QStringLiteral("path")).toString(),
             QStringLiteral("/docs/whole.bin"));

    Recorder whole = KXResponseRecorder::make();
    KXSeverApiDLRouterModel download;
    download.entry = entryAt(QStringLiteral("/docs/whole.bin"));
    ServerApi::DownloadRouter(download, whole->onData(), whole->onResponse(), whole->onDownloadProgress());
    KX_OK(whole);
    QVERIFY(whole->data() == content);
    QVERIFY(whole->response().body.isEmpty());
    QCOMPARE(whole->progress().last(), qMakePair(qint64(content.size()), qint64(content.size())));

    Recorder ranged = KXResponseRecorder::make();
    download.range = QStringLiteral("bytes=1000-2099999");
    ServerApi::DownloadRouter(download, ranged->onData(), ranged->onResponse(), ranged->onDownloadProgress());
    KX_OK(ranged);
    QCOMPARE(ranged->response().statusCode, 206);
    QVERIFY(ranged->data() == content.mid(1000, 2099000));
    QCOMPARE(ranged->response().headers.value("Content-Range"),
             QByteArray("bytes 1000-2099999/") + QByteArray::number(content.size()));
    QCOMPARE(ranged->progress().last().second, qint64(2099000));

    Recorder log = KXResponseRecorder::make();
    ServerApi::RPCServerLogging(QStringLiteral("15"), QStringLiteral("/docs"), QStringLiteral("whole.bin"),
                                QStringLiteral("self"), QString(), QString(), QString(), log->onResponse());
    KX_OK(log);
    QCOMPARE(json(log->response()).value(QStringLiteral("result")).toBool(), true);
}

void TestServerApi::chunkedUploadWithQuickTransfer()
{
    const QByteArray content = randomBytes(2 * kBlock + 5, 2);
    const QStringList hashes = {sha256Hex(content.mid(0, kBlock)), sha256Hex(content.mid(kBlock, kBlock)),
                                sha256Hex(content.mid(2 * kBlock))};

    Recorder query = KXResponseRecorder::make();
    KXServerApiQueryHashModel offer;
    offer.entry = entryAt(QStringLiteral("/big/one.bin"));
    offer.fileSize = content.size();
    offer.blockHashes = hashes;
    ServerApi::QueryHash(offer, query->onResponse(), QString());
    KX_OK(query);
    const QString uploadId = json(query->response()).value(QStringLiteral("upload_id")).toString();
    QVERIFY(!uploadId.isEmpty());
    QCOMPARE(json(query->response()).value(QStringLiteral("needed_block")).toArray().size(), 3);

    // Even blocks go from memory, odd ones are streamed from their range of the file: the server's
    // hash of each proves the range was read from the right offset and no further.
    const QString local = m_dir.filePath(QStringLiteral("blocks.bin"));
    QVERIFY(writeFile(local, content));
    for (int i = 0; i < hashes.size(); ++i) {
        Recorder block = KXResponseRecorder::make();
        KXServerApiChunkedUploadModel model;
        model.uploadId = uploadId;
        model.hash = hashes.at(i);
        model.length = content.mid(i * kBlock, kBlock).size();
        if (i % 2 == 0) {
            model.data = content.mid(i * kBlock, kBlock);
        } else {
            model.sourcePath = local;
            model.sourceOffset = i * kBlock;
        }
        ServerApi::ChunkedUpload(model, block->onResponse(), block->onUploadProgress(), QString());
        KX_OK(block);
        QCOMPARE(json(block->response()).value(QStringLiteral("hash")).toString(), hashes.at(i));
        QCOMPARE(block->progress().last().first, model.length);
    }

    Recorder commit = KXResponseRecorder::make();
    KXServerApiCommitHashModel model;
    model.entry = entryAt(QStringLiteral("/big/one.bin"));
    model.uploadId = uploadId;
    model.blockHashes = hashes;
    model.size = content.size();
    ServerApi::CommitHash(model, commit->onResponse(), QString());
    KX_OK(commit);
    QCOMPARE(json(commit->response()).value(QStringLiteral("needed_block")).toArray().size(), 0);

    // The same blocks under another name: the server already holds all of them.
    Recorder again = KXResponseRecorder::make();
    offer.entry = entryAt(QStringLiteral("/big/two.bin"));
    ServerApi::QueryHash(offer, again->onResponse(), QString());
    KX_OK(again);
    QCOMPARE(json(again->response()).value(QStringLiteral("needed_block")).toArray().size(), 0);

    Recorder back = KXResponseRecorder::make();
    KXSeverApiDLRouterModel download;
    download.entry = entryAt(QStringLiteral("/big/one.bin"));
    download.range = QStringLiteral("bytes=%1-%2").arg(kBlock - 10).arg(kBlock + 9);
    ServerApi::DownloadRouter(download, back->onData(), back->onResponse(), nullptr);
    KX_OK(back);
    QVERIFY(back->data() == content.mid(kBlock - 10, 20));
}

void TestServerApi::plainAddressesCarryNoSession()
{
    const QByteArray content = randomBytes(1024 * 1024 + 3, 4);
    const QString local = m_dir.filePath(QStringLiteral("plain.bin"));
    QVERIFY(writeFile(local, content));
    const QString address = m_server.baseUrl() + QStringLiteral("/v1/raw/self/plain/p%20q.bin");
    const QString withSession = address + QStringLiteral("?session=") + m_server.token();

    Recorder put = KXResponseRecorder::make();
    ServerApi::Upload(local, withSession, put->onResponse(), put->onUploadProgress());
    KX_OK(put);
    QCOMPARE(put->progress().last(), qMakePair(qint64(content.size()), qint64(content.size())));

    Recorder get = KXResponseRecorder::make();
    ServerApi::Download(withSession, get->onData(), get->onResponse(), get->onDownloadProgress());
    KX_OK(get);
    QVERIFY(get->data() == content);

    // The configured session would let this in; a plain address must not be given it.
    Recorder bare = KXResponseRecorder::make();
    ServerApi::Download(address, bare->onData(), bare->onResponse(), nullptr);
    KX_COMPLETE(bare);
    QCOMPARE(bare->response().statusCode, 401);
    QVERIFY(bare->data().isEmpty());
    QCOMPARE(json(bare->response()).value(QStringLiteral("code")).toString(),
             QStringLiteral("Invalid session"));
}

void TestServerApi::repeatedHeadersAndRedirects()
{
    QCOMPARE(uploadWhole(QStringLiteral("/moved/target.txt"), "moved here").statusCode, 200);
    const QByteArray target =
        (m_server.baseUrl() + QStringLiteral("/v1/raw/self/moved/target.txt?session=") + m_server.token())
            .toUtf8();
    // A scripted server on the test thread: two Set-Cookie lines, or a redirect to the real one.
    QTcpServer scripted;
    QVERIFY(scripted.listen(QHostAddress::LocalHost));
    connect(&scripted, &QTcpServer::newConnection, &scripted, [&] {
        QTcpSocket* socket = scripted.nextPendingConnection();
        connect(socket, &QTcpSocket::readyRead, socket, [socket, target] {
            const QByteArray request = socket->peek(socket->bytesAvailable());
            if (!request.contains("\r\n\r\n"))
                return;
            socket->readAll();
            if (request.startsWith("GET /cookies "))
                socket->write("HTTP/1.1 200 OK\r\nSet-Cookie: S=one; Path=/\r\nset-cookie: lower\r\n"
                              "Set-Cookie: T=two\r\nContent-Length: 2\r\nConnection: close\r\n\r\nok");
            else
                socket->write("HTTP/1.1 302 Found\r\nLocation: " + target +
                              "\r\nContent-Length: 5\r\nConnection: close\r\n\r\nmoved");
            socket->disconnectFromHost();
        });
        connect(socket, &QTcpSocket::disconnected, socket, &QObject::deleteLater);
    });
    const QString base = QStringLiteral("http://127.0.0.1:%1").arg(scripted.serverPort());

    Recorder cookies = KXResponseRecorder::make();
    ServerApi::Download(base + QStringLiteral("/cookies"), cookies->onData(), cookies->onResponse(), nullptr);
    KX_OK(cookies);
    QCOMPARE(cookies->response().headers.value("Set-Cookie"), QByteArray("S=one; Path=/\nT=two"));
    QCOMPARE(cookies->response().headers.value("set-cookie"), QByteArray("lower"));
    QCOMPARE(cookies->data(), QByteArray("ok"));

    Recorder moved = KXResponseRecorder::make();
    ServerApi::Download(base + QStringLiteral("/elsewhere"), moved->onData(), moved->onResponse(),
                        moved->onDownloadProgress());
    KX_OK(moved);
    QCOMPARE(moved->data(), QByteArray("moved here")); // the redirect's own body is not handed on
    QVERIFY(!moved->response().headers.contains("Location"));
    QCOMPARE(moved->progress().last(), qMakePair(qint64(10), qint64(10)));
}

void TestServerApi::errorAnswersAndBadInput()
{
    Recorder missing = KXResponseRecorder::make();
    KXServerApiMetaEntryModel meta;
    meta.entry = entryAt(QStringLiteral("/no/such/file"));
    ServerApi::MetaData(meta, missing->onResponse());
    KX_COMPLETE(missing);
    QCOMPARE(missing->response().statusCode, 404);
    QCOMPARE(missing->response().errorCode, 0);
    QCOMPARE(json(missing->response()).value(QStringLiteral("code")).toString(),
             QStringLiteral("nameentry_not_exist"));

    QVERIFY(uploadWhole(QStringLiteral("/err/five.txt"), "12345").statusCode == 200);
    Recorder outside = KXResponseRecorder::make();
    KXSeverApiDLRouterModel range;
    range.entry = entryAt(QStringLiteral("/err/five.txt"));
    range.range = QStringLiteral("bytes=10-20");
    ServerApi::DownloadRouter(range, outside->onData(), outside->onResponse(), nullptr);
    KX_COMPLETE(outside);
    QCOMPARE(outside->response().statusCode, 416);
    QVERIFY(outside->data().isEmpty());
    QCOMPARE(json(outside->response()).value(QStringLiteral("code")).toString(),
             QStringLiteral("invalid range"));

    // A refused whole-file upload gets the server's answer before its body is sent.
    const QString large = m_dir.filePath(QStringLiteral("refused.bin"));
    QVERIFY(writeFile(large, QByteArray(64 * 1024 * 1024, 'r')));
    Recorder exists = KXResponseRecorder::make();
    KXServerApiUploadFileModel again;
    again.entry = entryAt(QStringLiteral("/err/five.txt"));
    again.entry.overwrite = QStringLiteral("false");
    again.localPath = large;
    ServerApi::UploadFile(again, exists->onResponse(), exists->onUploadProgress());
    KX_COMPLETE(exists);
    QCOMPARE(exists->response().statusCode, 409);
    QCOMPARE(json(exists->response()).value(QStringLiteral("code")).toString(),
             QStringLiteral("target name exists"));
    QVERIFY(exists->progress().isEmpty() || exists->progress().last().first < 1024 * 1024);

    // Refused before anything is sent: each completes once with its error and no status.
    const QString grown = m_dir.filePath(QStringLiteral("grown.bin"));
    QVERIFY(writeFile(grown, "123456"));
    KXServerApiUploadFileModel changed; // the file is no longer the size the caller names
    changed.entry = entryAt(QStringLiteral("/err/grown.bin"));
    changed.localPath = grown;
    changed.size = 5;
    KXServerApiChunkedUploadModel pastEnd; // a block range past the end of its file
    pastEnd.uploadId = QStringLiteral("any");
    pastEnd.hash = sha256Hex("3456");
    pastEnd.length = 4;
    pastEnd.sourcePath = grown;
    pastEnd.sourceOffset = 3;
    KXServerApiDeliveryDataModel unwritable;
    unwritable.code = QStringLiteral("nocode");
    unwritable.localPath = m_dir.filePath(QStringLiteral("no/such/folder/file"));
    KXSeverApiDLRouterModel injected = range;
    injected.range = QStringLiteral("bytes=0-1\r\nX-Evil: 1");
    const QList<QPair<int, std::function<void(const Recorder&)>>> refusals = {
        {ServerApi::ErrorBadArgument,
         [](const Recorder& r) {
             ServerApi::MetaData(KXServerApiMetaEntryModel(), r->onResponse());
         }},
        {ServerApi::ErrorBadArgument,
         [&](const Recorder& r) {
             ServerApi::DownloadRouter(injected, r->onData(), r->onResponse(), nullptr);
         }},
        {ServerApi::ErrorLocalFile,
         [&](const Recorder& r) {
             ServerApi::Upload(m_dir.filePath(QStringLiteral("absent")), m_server.baseUrl(), r->onResponse(),
                               nullptr);
         }},
        {ServerApi::ErrorLocalFile,
         [&](const Recorder& r) {
             ServerApi::Upload(m_dir.path(), m_server.baseUrl(), r->onResponse(), nullptr);
         }},
        {ServerApi::ErrorLocalFile,
         [&](const Recorder& r) {
             ServerApi::UploadFile(changed, r->onResponse(), nullptr);
         }},
        {ServerApi::ErrorLocalFile,
         [&](const Recorder& r) {
             ServerApi::ChunkedUpload(pastEnd, r->onResponse(), nullptr, QString());
         }},
        {ServerApi::ErrorLocalFile,
         [&](const Recorder& r) {
             ServerApi::DeliveryDownloadFile(unwritable, r->onResponse(), nullptr);
         }},
    };
    for (int i = 0; i < refusals.size(); ++i) {
        Recorder refused = KXResponseRecorder::make();
        refusals.at(i).second(refused);
        KX_COMPLETE(refused);
        QVERIFY2(refused->response().errorCode == refusals.at(i).first, qPrintable(QString::number(i)));
        QCOMPARE(refused->response().statusCode, 0);
    }

    ServerApi::Config config = baseConfig();
    config.baseUrl = QStringLiteral("http://127.0.0.1:1");
    config.maxRetries = 0;
    ServerApi::configure(config);
    Recorder refused = KXResponseRecorder::make();
    ServerApi::MetaData(meta, refused->onResponse());
    KX_COMPLETE(refused);
    QCOMPARE(refused->response().statusCode, 0);
    QCOMPARE(refused->response().errorCode, 7); // could not connect
    QVERIFY(!refused->response().errorString.isEmpty());
}

void TestServerApi::cancelInTheMiddleOfALargeDownload()
{
    const qint64 size = 48 * 1024 * 1024;
    QCOMPARE(uploadWhole(QStringLiteral("/large.bin"), randomBytes(size, 5)).statusCode, 200);

    // Slow enough that the cancel surely lands while the body is still flowing.
    ServerApi::Config config = baseConfig();
    config.maxRecvBytesPerSec = 8 * 1024 * 1024;
    ServerApi::configure(config);
    Recorder download = KXResponseRecorder::make();
    KXSeverApiDLRouterModel model;
    model.entry = entryAt(QStringLiteral("/large.bin"));
    std::atomic<qint64> id{0};
    std::atomic<bool> cancelled{false};
    download->setDataHook([&](qint64 received) {
        if (received >= 1024 * 1024 && !cancelled.exchange(true))
            ServerApi::Cancel(id.load());
    });
    id = ServerApi::DownloadRouter(model, download->onData(), download->onResponse(),
                                   download->onDownloadProgress());
    KX_COMPLETE(download);
    QCOMPARE(download->response().errorCode, int(ServerApi::ErrorCancelled));
    QCOMPARE(download->response().statusCode, 0);
    QVERIFY(download->data().size() < size);
    ServerApi::Cancel(id); // a finished request: ignored

    ServerApi::shutdown();
    QCOMPARE(download->completions(), 1);
    QCOMPARE(download->violations(), QStringList());
}

void TestServerApi::droppedConnectionCompletesOnceWithAnError()
{
    QCOMPARE(uploadWhole(QStringLiteral("/drop.bin"), randomBytes(6 * 1024 * 1024, 6)).statusCode, 200);
    ServerApi::Config config = baseConfig();
    config.maxRetries = 0;
    ServerApi::configure(config);

    QVERIFY(m_server.armFault(QJsonObject{{"op", "download"}, {"nth", 1}, {"action", "drop"}}));
    Recorder download = KXResponseRecorder::make();
    KXSeverApiDLRouterModel model;
    model.entry = entryAt(QStringLiteral("/drop.bin"));
    ServerApi::DownloadRouter(model, download->onData(), download->onResponse(),
                              download->onDownloadProgress());
    KX_COMPLETE(download);
    QCOMPARE(download->response().statusCode, 0);
    QVERIFY2(download->response().errorCode != 0, qPrintable(download->response().errorString));
    QVERIFY(download->data().size() < 6 * 1024 * 1024);

    QVERIFY(m_server.armFault(QJsonObject{{"op", "file_upload"}, {"nth", 1}, {"action", "drop"}}));
    config.maxRetries = 3; // an upload is never repeated, whatever the limit
    ServerApi::configure(config);
    const QString local = m_dir.filePath(QStringLiteral("drop-up.bin"));
    QVERIFY(writeFile(local, randomBytes(2 * 1024 * 1024, 7)));
    Recorder upload = KXResponseRecorder::make();
    KXServerApiUploadFileModel file;
    file.entry = entryAt(QStringLiteral("/drop-up.bin"));
    file.localPath = local;
    ServerApi::UploadFile(file, upload->onResponse(), upload->onUploadProgress());
    KX_COMPLETE(upload);
    QVERIFY(upload->response().errorCode != 0 || upload->response().statusCode >= 500);

    ServerApi::shutdown();
    QCOMPARE(download->completions(), 1);
    QCOMPARE(upload->completions(), 1);
    QCOMPARE(download->violations() + upload->violations(), QStringList());
}

void TestServerApi::hashQueriesAreRetriedAfterFaults()
{
    KXServerApiQueryHashModel offer;
    offer.entry = entryAt(QStringLiteral("/retry/a.bin"));
    offer.fileSize = 3;
    offer.blockHashes << sha256Hex("abc");

    QVERIFY(m_server.armFault(
        QJsonObject{{"op", "hash"}, {"nth", 1}, {"count", 2}, {"action", "status"}, {"status", 503}}));
    Recorder recovered = KXResponseRecorder::make();
    ServerApi::QueryHash(offer, recovered->onResponse(), QString());
    KX_OK(recovered);
    QVERIFY(json(recovered->response()).contains(QStringLiteral("upload_id")));

    QVERIFY(m_server.armFault(QJsonObject{{"op", "hash"}, {"nth", 1}, {"action", "drop"}}));
    Recorder afterDrop = KXResponseRecorder::make();
    ServerApi::QueryHash(offer, afterDrop->onResponse(), QString());
    KX_OK(afterDrop);

    // More faults than retries: the last answer is what the caller gets.
    QVERIFY(m_server.armFault(
        QJsonObject{{"op", "hash"}, {"nth", 1}, {"count", 10}, {"action", "status"}, {"status", 503}}));
    ServerApi::Config config = baseConfig();
    config.maxRetries = 2;
    ServerApi::configure(config);
    m_server.resetStats();
    Recorder exhausted = KXResponseRecorder::make();
    ServerApi::QueryHash(offer, exhausted->onResponse(), QString());
    KX_COMPLETE(exhausted);
    QCOMPARE(exhausted->response().statusCode, 503);
    QCOMPARE(m_server.stats().value(QStringLiteral("requests")).toInt(), 3);

    // A commit is not safe to repeat: one attempt only.
    m_server.clearFaults();
    QVERIFY(
        m_server.armFault(QJsonObject{{"op", "commit"}, {"nth", 1}, {"action", "status"}, {"status", 503}}));
    m_server.resetStats();
    Recorder commit = KXResponseRecorder::make();
    KXServerApiCommitHashModel model;
    model.entry = offer.entry;
    model.blockHashes = offer.blockHashes;
    model.size = 3;
    ServerApi::CommitHash(model, commit->onResponse(), QString());
    KX_COMPLETE(commit);
    QCOMPARE(commit->response().statusCode, 503);
    QCOMPARE(m_server.stats().value(QStringLiteral("requests")).toInt(), 1);
}

void TestServerApi::silentServerCostsOneStall_data()
{
    QTest::addColumn<int>("budgetMs");
    QTest::addColumn<int>("retries");
    QTest::addColumn<int>("attempts");
    QTest::newRow("budget spent by the first stall") << 1000 << 3 << 1;
    QTest::newRow("no budget: every retry stalls") << 0 << 2 << 3;
}

// A server that accepts and never answers ends a retryable request after one no-progress
// period: the retries do not multiply it.
void TestServerApi::silentServerCostsOneStall()
{
    QFETCH(int, budgetMs);
    QFETCH(int, retries);
    QFETCH(int, attempts);
    KXSilentServer silent;
    QVERIFY(silent.isListening());
    ServerApi::Config config = baseConfig();
    config.baseUrl = silent.baseUrl();
    config.lowSpeedTimeSec = 1;
    config.maxRetries = retries;
    config.retryBudgetMs = budgetMs;
    ServerApi::configure(config);

    Recorder meta = KXResponseRecorder::make();
    KXServerApiMetaEntryModel model;
    model.entry = entryAt(QStringLiteral("/silent.bin"));
    ServerApi::MetaData(model, meta->onResponse());
    KX_COMPLETE(meta);
    QCOMPARE(meta->response().statusCode, 0);
    QCOMPARE(meta->response().errorCode, 28); // libcurl: operation timed out
    QCOMPARE(silent.takeConnections(), attempts);
}

void TestServerApi::manyThreadsManyRequests()
{
    QCOMPARE(uploadWhole(QStringLiteral("/many/file.bin"), randomBytes(200 * 1024, 8)).statusCode, 200);
    const int threads = 6;
    const int perThread = 30;
    QVector<QVector<qint64>> ids(threads);
    QVector<QVector<Recorder>> recorders(threads);
    std::vector<std::thread> workers;
    for (int t = 0; t < threads; ++t) {
        workers.emplace_back([&, t] {
            for (int i = 0; i < perThread; ++i) {
                Recorder r = KXResponseRecorder::make();
                recorders[t] << r;
                if (i % 2 == 0) {
                    KXServerApiMetaEntryModel meta;
                    meta.entry = entryAt(QStringLiteral("/many/file.bin"));
                    ids[t] << ServerApi::MetaData(meta, r->onResponse());
                } else {
                    KXSeverApiDLRouterModel get;
                    get.entry = entryAt(QStringLiteral("/many/file.bin"));
                    ids[t] << ServerApi::DownloadRouter(get, r->onData(), r->onResponse(),
                                                        r->onDownloadProgress());
                }
            }
        });
    }
    for (std::thread& worker : workers)
        worker.join();

    QSet<qint64> unique;
    for (const QVector<qint64>& list : ids) {
        for (qint64 id : list) {
            QVERIFY(id > 0);
            unique.insert(id);
        }
    }
    QCOMPARE(unique.size(), threads * perThread);
    for (const QVector<Recorder>& list : recorders) {
        for (const Recorder& r : list)
            KX_OK(r);
    }
    ServerApi::shutdown();
    for (const QVector<Recorder>& list : recorders) {
        for (const Recorder& r : list) {
            QCOMPARE(r->completions(), 1);
            QCOMPARE(r->violations(), QStringList());
        }
    }
}

void TestServerApi::rateLimitedTransfersArriveIntact()
{
    // Paused and resumed many times over by the shared limit, every body must still arrive whole.
    ServerApi::Config config = baseConfig();
    config.maxSendBytesPerSec = 12 * 1024 * 1024;
    config.maxRecvBytesPerSec = 12 * 1024 * 1024;
    ServerApi::configure(config);
    QVector<QByteArray> contents;
    QVector<Recorder> uploads;
    for (int i = 0; i < 3; ++i) {
        contents << randomBytes(3 * 1024 * 1024 + i, 20 + i);
        KXServerApiUploadFileModel file;
        file.entry = entryAt(QStringLiteral("/limited/%1.bin").arg(i));
        file.localPath = m_dir.filePath(QStringLiteral("limited-%1.bin").arg(i));
        QVERIFY(writeFile(file.localPath, contents.last()));
        uploads << KXResponseRecorder::make();
        ServerApi::UploadFile(file, uploads.last()->onResponse(), uploads.last()->onUploadProgress());
    }
    for (const Recorder& r : uploads)
        KX_OK(r);

    QVector<Recorder> downloads;
    for (int i = 0; i < 3; ++i) {
        KXSeverApiDLRouterModel get;
        get.entry = entryAt(QStringLiteral("/limited/%1.bin").arg(i));
        downloads << KXResponseRecorder::make();
        ServerApi::DownloadRouter(get, downloads.last()->onData(), downloads.last()->onResponse(),
                                  downloads.last()->onDownloadProgress());
    }
    for (int i = 0; i < 3; ++i) {
        KX_OK(downloads.at(i));
        QVERIFY(downloads.at(i)->data() == contents.at(i));
    }
}

void TestServerApi::shutdownCompletesPendingRequests()
{
    QVERIFY(m_server.armFault(
        QJsonObject{{"op", "metadata"}, {"nth", 1}, {"count", 5}, {"action", "delay"}, {"ms", 20000}}));
    QVector<Recorder> pending;
    for (int i = 0; i < 5; ++i) {
        Recorder r = KXResponseRecorder::make();
        KXServerApiMetaEntryModel meta;
        meta.entry = entryAt(QStringLiteral("/"));
        ServerApi::MetaData(meta, r->onResponse());
        pending << r;
    }
    ServerApi::shutdown();
    for (const Recorder& r : pending) {
        QCOMPARE(r->completions(), 1);
        QCOMPARE(r->response().errorCode, int(ServerApi::ErrorShutdown));
        QCOMPARE(r->violations(), QStringList());
    }

    m_server.clearFaults();
    // Shut down from a completion callback: the library cannot wait for its own thread there,
    // and must not hang; the next shutdown from outside collects that thread.
    std::atomic<bool> returned{false};
    KXServerApiMetaEntryModel top;
    top.entry = entryAt(QStringLiteral("/"));
    ServerApi::MetaData(top, [&returned](const ResponseData&) {
        ServerApi::shutdown();
        returned = true;
    });
    QTRY_VERIFY_WITH_TIMEOUT(returned.load(), kWaitMs);
    ServerApi::shutdown();

    // The next request starts the library again.
    Recorder later = KXResponseRecorder::make();
    KXServerApiMetaEntryModel root;
    root.entry = entryAt(QStringLiteral("/"));
    ServerApi::MetaData(root, later->onResponse());
    KX_OK(later);
}

void TestServerApi::httpsTrustsOnlyTheGivenCertificate()
{
    const QString cert = m_dir.filePath(QStringLiteral("cert.pem"));
    const QString key = m_dir.filePath(QStringLiteral("key.pem"));
    QProcess openssl;
    openssl.start(QStringLiteral("openssl"),
                  {"req", "-x509", "-newkey", "rsa:2048", "-nodes", "-days", "2", "-subj", "/CN=127.0.0.1",
                   "-addext", "subjectAltName=IP:127.0.0.1", "-keyout", key, "-out", cert});
    QVERIFY(openssl.waitForFinished(60000));
    QCOMPARE(openssl.exitCode(), 0);

    KXServerProcess tls({"--tls-cert", cert, "--tls-key", key});
    QVERIFY2(tls.start(), qPrintable(tls.errorString()));
    QVERIFY(tls.baseUrl().startsWith(QStringLiteral("https://")));

    ServerApi::Config config = baseConfig();
    config.baseUrl = tls.baseUrl();
    config.sessionId = tls.token();
    config.maxRetries = 0;
    ServerApi::configure(config);
    KXServerApiMetaEntryModel root;
    root.entry = entryAt(QStringLiteral("/"));
    Recorder untrusted = KXResponseRecorder::make();
    ServerApi::MetaData(root, untrusted->onResponse());
    KX_COMPLETE(untrusted);
    QCOMPARE(untrusted->response().statusCode, 0);
    QCOMPARE(untrusted->response().errorCode, 60); // peer certificate not trusted

    config.caFile = cert;
    ServerApi::configure(config);
    Recorder trusted = KXResponseRecorder::make();
    ServerApi::MetaData(root, trusted->onResponse());
    KX_OK(trusted);
    QCOMPARE(json(trusted->response()).value(QStringLiteral("is_dir")).toBool(), true);
    // The refused handshake never became a request; the admin call goes over TLS as well.
    QCOMPARE(tls.stats().value(QStringLiteral("requests")).toInt(), 1);
    ServerApi::shutdown(); // closes the kept-alive connection before this server stops
}

QTEST_GUILESS_MAIN(TestServerApi)
#include "tst_ServerApi.moc"
