// End-to-end tests of the server-API library against the reference server on a loopback port.

#include "KXServerProcess.h"
#include "KXSilentServer.h"
#include "KXTestData.h"
#include "ServerApi.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTemporaryDir>
#include <QtTest>

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>

namespace {

const qint64 kBlock = 4194304;
const int kWaitMs = 60000;
const QString kShared = QStringLiteral("/docs/shared.bin");

// Collects what the library calls back for one request and notes each broken promise: a callback
// on the caller's thread or after the completion, progress that goes back. Shared with the
// callbacks, so a test that fails early never leaves the library writing into a dead object.
class Recorder : public std::enable_shared_from_this<Recorder>
{
public:
    struct Seen
    {
        int completions = 0;
        ResponseData response;
        QByteArray data;
        QList<QPair<qint64, qint64>> progress; // (done, total) in order
        QStringList violations;
    };

    // Set before the request starts; called on the library thread after each piece is recorded.
    std::function<void(qint64 received)> afterData;

    ServerApi::ResponseCallback onResponse()
    {
        return [self = shared_from_this()](const ResponseData& response) {
            self->saw("completion", [&](Seen& seen) {
                ++seen.completions;
                seen.response = response;
            });
        };
    }
    ServerApi::DataCallback onData()
    {
        return [self = shared_from_this()](const QByteArray& piece) {
            qint64 received = 0;
            self->saw("data", [&](Seen& seen) {
                seen.data += piece;
                received = seen.data.size();
            });
            if (self->afterData)
                self->afterData(received);
        };
    }
    ServerApi::DownloadProgressCallback onDownloadProgress()
    {
        return [self = shared_from_this()](const DownloadProgressData& p) {
            self->sawProgress(p.bytesReceived, p.bytesTotal);
        };
    }
    ServerApi::UploadProgressCallback onUploadProgress()
    {
        return [self = shared_from_this()](const UploadProgressData& p) {
            self->sawProgress(p.bytesSent, p.bytesTotal);
        };
    }
    Seen seen() const
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_seen;
    }

private:
    template <typename Change> void saw(const char* kind, Change change)
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (QThread::currentThread() == m_callerThread)
            m_seen.violations
                << QStringLiteral("%1 callback on the caller's thread").arg(QLatin1String(kind));
        if (m_seen.completions > 0)
            m_seen.violations << QStringLiteral("%1 callback after the completion").arg(QLatin1String(kind));
        change(m_seen);
    }
    void sawProgress(qint64 done, qint64 total)
    {
        saw("progress", [&](Seen& seen) {
            if (!seen.progress.isEmpty() && done < seen.progress.last().first)
                seen.violations << QStringLiteral("progress went back to %1").arg(done);
            seen.progress << qMakePair(done, total);
        });
    }

    QThread* const m_callerThread = QThread::currentThread();
    mutable std::mutex m_mutex; // guards m_seen
    Seen m_seen;
};

using Rec = std::shared_ptr<Recorder>;

// Waits for the completion of `r`. Empty when the library kept its promises and, if `mustSucceed`,
// the request succeeded; otherwise what went wrong.
QString await(const Rec& r, bool mustSucceed = true)
{
    if (!QTest::qWaitFor([&] { return r->seen().completions > 0; }, kWaitMs))
        return QStringLiteral("no completion");
    const Recorder::Seen seen = r->seen();
    const ResponseData& response = seen.response;
    if (!seen.violations.isEmpty())
        return seen.violations.join(QLatin1Char('\n'));
    if (mustSucceed &&
        (response.errorCode != 0 || (response.statusCode != 200 && response.statusCode != 206)))
        return QStringLiteral("%1 %2 %3").arg(response.statusCode).arg(response.errorString, response.body);
    return QString();
}

// "status error" of the completion of `r`, or what went wrong with it.
QString outcome(const Rec& r)
{
    const QString problem = await(r, false);
    const ResponseData response = r->seen().response;
    return problem.isEmpty() ? QStringLiteral("%1 %2").arg(response.statusCode).arg(response.errorCode)
                             : problem;
}

// The outcome of a request `send` starts for a new recorder.
QString outcome(const std::function<void(const Rec&)>& send)
{
    Rec r = std::make_shared<Recorder>();
    send(r);
    return outcome(r);
}

QJsonObject json(const Rec& r)
{
    return QJsonDocument::fromJson(r->seen().response.body.toUtf8()).object();
}

// The last progress report, (-1, -1) when there was none.
QPair<qint64, qint64> lastProgress(const Rec& r)
{
    const Recorder::Seen seen = r->seen();
    return seen.progress.isEmpty() ? qMakePair(qint64(-1), qint64(-1)) : seen.progress.last();
}

KXServerApiEntryModel entryAt(const QString& path)
{
    KXServerApiEntryModel entry;
    entry.path = path;
    entry.overwrite = QStringLiteral("true");
    return entry;
}

Rec metaData(const QString& path, bool list = false)
{
    Rec r = std::make_shared<Recorder>();
    KXServerApiMetaEntryModel model;
    model.entry = entryAt(path);
    model.list = list;
    ServerApi::MetaData(model, r->onResponse());
    return r;
}

Rec downloadRouter(const QString& path, const QString& range = QString())
{
    Rec r = std::make_shared<Recorder>();
    KXSeverApiDLRouterModel model;
    model.entry = entryAt(path);
    model.range = range;
    ServerApi::DownloadRouter(model, r->onData(), r->onResponse(), r->onDownloadProgress());
    return r;
}

Rec uploadFile(const KXServerApiUploadFileModel& model)
{
    Rec r = std::make_shared<Recorder>();
    ServerApi::UploadFile(model, r->onResponse(), r->onUploadProgress());
    return r;
}

} // namespace

class TestServerApi : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void cleanup();

    void listingRangesAndEvents();
    void chunkedUploadFromMemory();
    void plainAddressesAndRedirects();
    void errorAnswersAndBadInput();
    void cancelInTheMiddleOfALargeDownload();
    void faultsAndRetries_data();
    void faultsAndRetries();
    void transportFailures_data();
    void transportFailures();
    void shutdownCompletesPendingRequests();
    void httpsTrustsOnlyTheGivenCertificate();

private:
    ServerApi::Config baseConfig() const;
    // A whole-file upload of `bytes`, written to a local file of their own first.
    KXServerApiUploadFileModel fileModel(const QString& remotePath, const QByteArray& bytes);

    KXServerProcess m_server;
    QTemporaryDir m_dir;
    const QByteArray m_shared = randomBytes(512 * 1024, 3); // kShared on the server
};

void TestServerApi::initTestCase()
{
    QVERIFY(m_dir.isValid());
    QVERIFY2(m_server.start(), qPrintable(m_server.errorString()));
    ServerApi::configure(baseConfig());
    // As the engine sends a whole file: its authorisation names the host that takes the body.
    Rec auth = std::make_shared<Recorder>();
    ServerApi::AuthUpload(entryAt(kShared), m_shared.size(), auth->onResponse(), QString());
    QCOMPARE(await(auth), QString());
    KXServerApiUploadFileModel file = fileModel(kShared, m_shared);
    file.entry.host = json(auth).value(QStringLiteral("region")).toString();
    QVERIFY(!file.entry.host.isEmpty());
    Rec upload = uploadFile(file);
    QCOMPARE(await(upload), QString());
    QCOMPARE(json(upload).value(QStringLiteral("bytes")).toDouble(), double(m_shared.size()));
    // Cumulative progress ending in one final report of the whole body.
    QCOMPARE(lastProgress(upload), qMakePair(qint64(m_shared.size()), qint64(m_shared.size())));
}

ServerApi::Config TestServerApi::baseConfig() const
{
    ServerApi::Config config;
    config.baseUrl = m_server.baseUrl();
    config.sessionId = m_server.token();
    config.connectTimeoutMs = 5000;
    return config;
}

KXServerApiUploadFileModel TestServerApi::fileModel(const QString& remotePath, const QByteArray& bytes)
{
    KXServerApiUploadFileModel model;
    model.entry = entryAt(remotePath);
    model.localPath = m_dir.filePath(sha256Hex(bytes).left(12));
    model.size = bytes.size();
    if (!writeFile(model.localPath, bytes))
        qWarning("could not write %s", qPrintable(model.localPath));
    return model;
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

void TestServerApi::listingRangesAndEvents()
{
    Rec meta = metaData(QStringLiteral("/docs"), true);
    QCOMPARE(await(meta), QString());
    const QJsonArray children = json(meta).value(QStringLiteral("contents")).toArray();
    QCOMPARE(children.size(), 1);
    QCOMPARE(children.at(0).toObject().value(QStringLiteral("path")).toString(), kShared);

    Rec ranged = downloadRouter(kShared, QStringLiteral("bytes=1000-209999"));
    QCOMPARE(await(ranged), QString());
    QCOMPARE(ranged->seen().response.statusCode, 206);
    QVERIFY(ranged->seen().data == m_shared.mid(1000, 209000));
    QVERIFY(ranged->seen().response.body.isEmpty());
    QCOMPARE(ranged->seen().response.headers.value("Content-Range"),
             QByteArray("bytes 1000-209999/") + QByteArray::number(m_shared.size()));
    QCOMPARE(lastProgress(ranged).second, qint64(209000));

    Rec log = std::make_shared<Recorder>();
    ServerApi::RPCServerLogging(QStringLiteral("15"), QStringLiteral("/docs"), QStringLiteral("shared.bin"),
                                QStringLiteral("self"), QString(), QString(), QString(), log->onResponse());
    QCOMPARE(await(log), QString());
    QCOMPARE(json(log).value(QStringLiteral("result")).toBool(), true);
    const QByteArray events = readFile(m_server.rootPath() + QStringLiteral("/events.log"));
    const QJsonObject logged = QJsonDocument::fromJson(events.trimmed().split('\n').last()).object();
    QCOMPARE(logged.value(QStringLiteral("event")).toString(), QStringLiteral("15"));
    QCOMPARE(logged.value(QStringLiteral("name")).toString(), QStringLiteral("shared.bin"));
}

void TestServerApi::chunkedUploadFromMemory()
{
    const QByteArray content = randomBytes(2 * kBlock + 5, 2);
    KXServerApiQueryHashModel offer;
    offer.entry = entryAt(QStringLiteral("/big/one.bin"));
    offer.fileSize = content.size();
    for (qint64 at = 0; at < content.size(); at += kBlock)
        offer.blockHashes << sha256Hex(content.mid(at, kBlock));
    Rec query = std::make_shared<Recorder>();
    ServerApi::QueryHash(offer, query->onResponse(), QString());
    QCOMPARE(await(query), QString());
    QCOMPARE(json(query).value(QStringLiteral("needed_block")).toArray().size(), 3);

    // From memory: every chunked upload of the engine streams its blocks from their range of the file.
    for (int i = 0; i < offer.blockHashes.size(); ++i) {
        KXServerApiChunkedUploadModel model;
        model.uploadId = json(query).value(QStringLiteral("upload_id")).toString();
        model.hash = offer.blockHashes.at(i);
        model.length = content.mid(i * kBlock, kBlock).size();
        model.data = content.mid(i * kBlock, kBlock);
        Rec block = std::make_shared<Recorder>();
        ServerApi::ChunkedUpload(model, block->onResponse(), block->onUploadProgress(), QString());
        QCOMPARE(await(block), QString());
        QCOMPARE(json(block).value(QStringLiteral("hash")).toString(), model.hash);
        QCOMPARE(lastProgress(block).first, model.length);
    }
}

void TestServerApi::plainAddressesAndRedirects()
{
    const QByteArray content = randomBytes(1024 * 1024 + 3, 4);
    const QString local = m_dir.filePath(QStringLiteral("plain.bin"));
    QVERIFY(writeFile(local, content));
    const QString withSession =
        m_server.baseUrl() + QStringLiteral("/v1/raw/self/plain/p%20q.bin?session=") + m_server.token();

    Rec put = std::make_shared<Recorder>();
    ServerApi::Upload(local, withSession, put->onResponse(), put->onUploadProgress());
    QCOMPARE(await(put), QString());
    QCOMPARE(lastProgress(put), qMakePair(qint64(content.size()), qint64(content.size())));

    Rec get = std::make_shared<Recorder>();
    ServerApi::Download(withSession, get->onData(), get->onResponse(), get->onDownloadProgress());
    QCOMPARE(await(get), QString());
    QVERIFY(get->seen().data == content);

    // A scripted server on the test thread: two Set-Cookie lines, or a redirect to the real one.
    QTcpServer scripted;
    QVERIFY(scripted.listen(QHostAddress::LocalHost));
    connect(&scripted, &QTcpServer::newConnection, &scripted, [&] {
        QTcpSocket* socket = scripted.nextPendingConnection();
        connect(socket, &QTcpSocket::readyRead, socket, [socket, target = withSession.toUtf8()] {
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

    Rec cookies = std::make_shared<Recorder>();
    ServerApi::Download(base + QStringLiteral("/cookies"), cookies->onData(), cookies->onResponse(), nullptr);
    QCOMPARE(await(cookies), QString());
    QCOMPARE(cookies->seen().response.headers.value("Set-Cookie"), QByteArray("S=one; Path=/\nT=two"));
    QCOMPARE(cookies->seen().response.headers.value("set-cookie"), QByteArray("lower"));
    QCOMPARE(cookies->seen().data, QByteArray("ok"));

    Rec moved = std::make_shared<Recorder>();
    ServerApi::Download(base + QStringLiteral("/elsewhere"), moved->onData(), moved->onResponse(),
                        moved->onDownloadProgress());
    QCOMPARE(await(moved), QString());
    QVERIFY(moved->seen().data == content); // the redirect's own body is not handed on
    QVERIFY(!moved->seen().response.headers.contains("Location"));
    QCOMPARE(lastProgress(moved), qMakePair(qint64(content.size()), qint64(content.size())));
}

void TestServerApi::errorAnswersAndBadInput()
{
    // A refused whole-file upload gets the server's answer before its body is sent.
    KXServerApiUploadFileModel exists = fileModel(kShared, QByteArray(16 << 20, 'r'));
    exists.entry.overwrite = QStringLiteral("false");
    Rec refusedUpload = uploadFile(exists);
    QCOMPARE(outcome(refusedUpload), QStringLiteral("409 0"));
    QCOMPARE(json(refusedUpload).value(QStringLiteral("code")).toString(),
             QStringLiteral("target name exists"));
    QVERIFY(lastProgress(refusedUpload).first < 1024 * 1024);

    // Refused before anything is sent: each completes once with its error and no status.
    KXServerApiUploadFileModel changed = fileModel(QStringLiteral("/err/grown.bin"), "123456");
    changed.size = 5;                      // the file is no longer the size the caller names
    KXServerApiChunkedUploadModel pastEnd; // a block range past the end of its file
    pastEnd.uploadId = QStringLiteral("any");
    pastEnd.hash = sha256Hex("3456");
    pastEnd.length = 4;
    pastEnd.sourcePath = changed.localPath;
    pastEnd.sourceOffset = 3;
    KXServerApiDeliveryDataModel unwritable;
    unwritable.code = QStringLiteral("nocode");
    unwritable.localPath = m_dir.filePath(QStringLiteral("no/such/folder/file"));
    KXSeverApiDLRouterModel injected;
    injected.entry = entryAt(kShared);
    injected.range = QStringLiteral("bytes=0-1\r\nX-Evil: 1");
    const QString absent = m_dir.filePath(QStringLiteral("absent"));
    const QList<std::function<void(const Rec&)>> refused{
        [](const Rec& r) { ServerApi::MetaData(KXServerApiMetaEntryModel(), r->onResponse()); },
        [&](const Rec& r) { ServerApi::DownloadRouter(injected, r->onData(), r->onResponse(), nullptr); },
        [&](const Rec& r) { ServerApi::Upload(absent, m_server.baseUrl(), r->onResponse(), nullptr); },
        [&](const Rec& r) { ServerApi::Upload(m_dir.path(), m_server.baseUrl(), r->onResponse(), nullptr); },
        [&](const Rec& r) { ServerApi::UploadFile(changed, r->onResponse(), nullptr); },
        [&](const Rec& r) { ServerApi::ChunkedUpload(pastEnd, r->onResponse(), nullptr, QString()); },
        [&](const Rec& r) { ServerApi::DeliveryDownloadFile(unwritable, r->onResponse(), nullptr); },
    };
    // The first two are bad arguments, the others name local files that cannot be used.
    for (int i = 0; i < refused.size(); ++i) {
        const int code = i < 2 ? ServerApi::ErrorBadArgument : ServerApi::ErrorLocalFile;
        QCOMPARE(outcome(refused.at(i)), QStringLiteral("0 %1").arg(code));
    }
}

void TestServerApi::cancelInTheMiddleOfALargeDownload()
{
    const QByteArray content = randomBytes(8 * 1024 * 1024, 5);
    QCOMPARE(await(uploadFile(fileModel(QStringLiteral("/large.bin"), content))), QString());

    // Slow enough that the cancel surely lands while the body is still flowing.
    ServerApi::Config config = baseConfig();
    config.maxRecvBytesPerSec = 2 * 1024 * 1024;
    ServerApi::configure(config);
    Rec download = std::make_shared<Recorder>();
    std::atomic<qint64> id{0};
    std::atomic<bool> cancelled{false};
    download->afterData = [&](qint64 received) {
        if (received >= 256 * 1024 && !cancelled.exchange(true))
            ServerApi::Cancel(id.load());
    };
    KXSeverApiDLRouterModel model;
    model.entry = entryAt(QStringLiteral("/large.bin"));
    id = ServerApi::DownloadRouter(model, download->onData(), download->onResponse(),
                                   download->onDownloadProgress());
    QCOMPARE(outcome(download), QStringLiteral("0 %1").arg(ServerApi::ErrorCancelled));
    // Paused and resumed by the receive limit, what arrived is the start of the file.
    QVERIFY(download->seen().data.size() < content.size() && content.startsWith(download->seen().data));
    ServerApi::Cancel(id); // a finished request: ignored

    ServerApi::shutdown();
    QCOMPARE(download->seen().completions, 1);
    QCOMPARE(download->seen().violations, QStringList());
}

void TestServerApi::faultsAndRetries_data()
{
    QTest::addColumn<QString>("op"); // the operation the fault hits and the test calls
    QTest::addColumn<QJsonObject>("fault");
    QTest::addColumn<int>("maxRetries");
    QTest::addColumn<int>("status"); // 0: a transport error
    QTest::addColumn<int>("requests");
    const QJsonObject unavailable{{"action", "status"}, {"status", 503}};
    const QJsonObject drop{{"action", "drop"}};
    QJsonObject twice = unavailable;
    twice.insert("count", 2);
    QJsonObject always = unavailable;
    always.insert("count", 10);
    QTest::newRow("hash: two 503s, retried") << "hash" << twice << 3 << 200 << 3;
    QTest::newRow("hash: dropped, retried") << "hash" << drop << 3 << 200 << 2;
    // More faults than retries: the last answer is what the caller gets.
    QTest::newRow("hash: more 503s than retries") << "hash" << always << 2 << 503 << 3;
    // Neither a commit nor an upload is safe to repeat: one attempt only.
    QTest::newRow("commit: 503 not repeated") << "commit" << unavailable << 3 << 503 << 1;
    QTest::newRow("upload: dropped, not repeated") << "file_upload" << drop << 3 << 0 << 1;
}

void TestServerApi::faultsAndRetries()
{
    QFETCH(QString, op);
    QFETCH(QJsonObject, fault);
    QFETCH(int, maxRetries);
    QFETCH(int, status);
    QFETCH(int, requests);
    ServerApi::Config config = baseConfig();
    config.maxRetries = maxRetries;
    ServerApi::configure(config);
    fault.insert("op", op);
    QVERIFY(m_server.armFault(fault));
    QVERIFY(m_server.resetStats());

    Rec r = std::make_shared<Recorder>();
    KXServerApiQueryHashModel offer;
    offer.entry = entryAt(QStringLiteral("/retry/a.bin"));
    offer.fileSize = 3;
    offer.blockHashes << sha256Hex("abc");
    if (op == QLatin1String("hash")) {
        ServerApi::QueryHash(offer, r->onResponse(), QString());
    } else if (op == QLatin1String("commit")) {
        KXServerApiCommitHashModel commit;
        commit.entry = offer.entry;
        commit.blockHashes = offer.blockHashes;
        commit.size = offer.fileSize;
        ServerApi::CommitHash(commit, r->onResponse(), QString());
    } else {
        r = uploadFile(fileModel(QStringLiteral("/retry/b.bin"), randomBytes(256 * 1024, 7)));
    }
    QCOMPARE(await(r, false), QString());
    QCOMPARE(r->seen().response.statusCode, status);
    QCOMPARE(r->seen().response.errorCode != 0, status == 0);
    QCOMPARE(m_server.stats().value(QStringLiteral("requests")).toInt(), requests);
    ServerApi::shutdown();
    QCOMPARE(r->seen().completions, 1);
}

void TestServerApi::transportFailures_data()
{
    QTest::addColumn<bool>("closedPort"); // else a server that accepts and never answers
    QTest::addColumn<int>("maxRetries");
    QTest::addColumn<int>("budgetMs");
    QTest::addColumn<int>("curlCode"); // 7: could not connect, 28: timed out
    QTest::addColumn<int>("attempts");
    QTest::newRow("nothing listens") << true << 0 << 0 << 7 << 0;
    // A silent server ends a retryable request after one no-progress period: the retries do not
    // multiply it.
    QTest::newRow("budget spent by the first stall") << false << 1 << 1000 << 28 << 1;
    QTest::newRow("no budget: every retry stalls") << false << 1 << 0 << 28 << 2;
}

void TestServerApi::transportFailures()
{
    QFETCH(bool, closedPort);
    QFETCH(int, maxRetries);
    QFETCH(int, budgetMs);
    QFETCH(int, curlCode);
    QFETCH(int, attempts);
    KXSilentServer silent;
    QVERIFY(silent.isListening());
    ServerApi::Config config = baseConfig();
    config.baseUrl = closedPort ? QStringLiteral("http://127.0.0.1:1") : silent.baseUrl();
    config.lowSpeedTimeSec = 1;
    config.maxRetries = maxRetries;
    config.retryBudgetMs = budgetMs;
    ServerApi::configure(config);

    Rec meta = metaData(QStringLiteral("/silent.bin"));
    QCOMPARE(outcome(meta), QStringLiteral("0 %1").arg(curlCode));
    QVERIFY(!meta->seen().response.errorString.isEmpty());
    QCOMPARE(silent.takeConnections(), attempts);
}

void TestServerApi::shutdownCompletesPendingRequests()
{
    // A server that never answers keeps them pending for as long as it takes.
    KXSilentServer silent;
    QVERIFY(silent.isListening());
    ServerApi::Config config = baseConfig();
    config.baseUrl = silent.baseUrl();
    ServerApi::configure(config);
    QVector<Rec> pending;
    for (int i = 0; i < 5; ++i)
        pending << metaData(QStringLiteral("/"));
    ServerApi::shutdown();
    for (const Rec& r : pending) {
        QCOMPARE(r->seen().completions, 1);
        QCOMPARE(outcome(r), QStringLiteral("0 %1").arg(ServerApi::ErrorShutdown));
    }

    ServerApi::configure(baseConfig());
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
    QCOMPARE(await(metaData(QStringLiteral("/"))), QString());
}

void TestServerApi::httpsTrustsOnlyTheGivenCertificate()
{
    const QString cert = m_dir.filePath(QStringLiteral("cert.pem"));
    const QString key = m_dir.filePath(QStringLiteral("key.pem"));
    QProcess openssl;
    openssl.start(QStringLiteral("openssl"),
                  {"req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1", "-nodes",
                   "-days", "2", "-subj", "/CN=127.0.0.1", "-addext", "subjectAltName=IP:127.0.0.1",
                   "-keyout", key, "-out", cert});
    QVERIFY(openssl.waitForFinished(60000));
    QCOMPARE(openssl.exitCode(), 0);
    KXServerProcess tls({"--tls-cert", cert, "--tls-key", key});
    QVERIFY2(tls.start(), qPrintable(tls.errorString()));

    ServerApi::Config config = baseConfig();
    config.baseUrl = tls.baseUrl();
    config.sessionId = tls.token();
    config.maxRetries = 0;
    ServerApi::configure(config);
    QCOMPARE(outcome(metaData(QStringLiteral("/"))), QStringLiteral("0 60")); // peer certificate not trusted

    config.caFile = cert;
    ServerApi::configure(config);
    Rec trusted = metaData(QStringLiteral("/"));
    QCOMPARE(await(trusted), QString());
    QCOMPARE(json(trusted).value(QStringLiteral("is_dir")).toBool(), true);
    // The refused handshake never became a request; the admin call goes over TLS as well.
    QCOMPARE(tls.stats().value(QStringLiteral("requests")).toInt(), 1);
    ServerApi::shutdown(); // closes the kept-alive connection before this server stops
}

QTEST_GUILESS_MAIN(TestServerApi)
#include "tst_ServerApi.moc"
