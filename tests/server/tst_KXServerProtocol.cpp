// Every operation of the storage protocol against a running kxserver, over real HTTP.

#include "KXServerProcess.h"
#include "KXServerTestUtil.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QProcess>
#include <QtTest>

using namespace KXServerTest;

namespace {

const QByteArray kSession = "X-ORBALA-SESS-ID: kx-dev-token";

// `request` is the method and the tail of the address, as in "GET /v1/metadata?path=/".
TestHttpReply send(const Client& http, const QString& request, const QByteArray& body,
                   const QList<QByteArray>& headers)
{
    TestHttpRequest sent;
    sent.method = request.section(QLatin1Char(' '), 0, 0).toLatin1();
    sent.url = http.url(request.section(QLatin1Char(' '), 1));
    sent.body = body;
    sent.headers = headers;
    return CKXTestHttp::send(sent);
}

} // namespace

class TestKXServerProtocol : public QObject
{
    Q_OBJECT

private:
    CKXServerProcess m_server{{"--token", "other-token", "--deny-suffix", ".exe"}};
    const Client m_http{m_server};
    QString m_errUploadId;

private slots:
    void initTestCase();
    void wholeFileOperations();
    void chunkedUploadAndCommit();
    void deduplicationAcrossFiles();
    void rangesAcrossBlocks_data();
    void rangesAcrossBlocks();
    void errorCodes_data();
    void errorCodes();
    void shareLinks();
    void sharePasswordGuessesAreLimited();
    void ambiguousBodiesRefused_data();
    void ambiguousBodiesRefused();
    void requestsBackToBack_data();
    void requestsBackToBack();
    void malformedBodiesGetClearErrors();
    void faultInjection();
};

void TestKXServerProtocol::initTestCase()
{
    QVERIFY2(m_server.start(), qPrintable(m_server.errorString()));
    // Fixtures of the error table.
    for (const QString name : {"/err/file.txt", "/rootfile.txt", "/err/locked.txt", "/err/virus.txt"})
        QCOMPARE(m_http.put("/v1/files?path=" + name, "file").status, 200);
    QCOMPARE(m_http.post("/v1/folder", {{"path", "/err/dir"}}).status, 200);
    QVERIFY(m_server.setLocked("/err/locked.txt", true));
    QVERIFY(m_server.flagVirus("/err/virus.txt"));
    m_errUploadId = m_http.open(fileOf("/err/up.bin", {"tiny"}));
    QVERIFY(!m_errUploadId.isEmpty());
}

void TestKXServerProtocol::wholeFileOperations()
{
    TestHttpReply up = m_http.put("/v1/files?path=/docs/a.txt&pathtype=self&mtime=1763766000", "hello");
    QCOMPARE(up.status, 200);
    const QJsonObject meta = up.json();
    const QByteArray neid = meta.value("neid").toString().toUtf8();
    QVERIFY(!neid.isEmpty());
    // These fields and no others.
    QCOMPARE(QJsonDocument(meta).toJson(QJsonDocument::Compact),
             R"({"blocks":1,"bytes":5,"is_dir":false,"modified":1763766000,"neid":")" + neid +
                 R"(","path":"/docs/a.txt","rev":"1"})");
    QCOMPARE(m_http.get("/v1/metadata?path=/docs/a.txt").json(), meta);

    QJsonObject listing = m_http.get("/v1/metadata?path=/docs&list=1").json();
    QCOMPARE(listing.value("is_dir").toBool(), true);
    QCOMPARE(listing.value("contents").toArray(), QJsonArray{meta});
    QCOMPARE(m_http.get("/v1/metadata?path=/docs&list=1&include_files=0").json().value("contents"),
             QJsonValue(QJsonArray()));

    TestHttpReply down = m_http.get("/v1/files?path=/docs/a.txt");
    QCOMPARE(down.body, QByteArray("hello"));
    QCOMPARE(down.headers.value("accept-ranges"), QByteArray("bytes"));
    QCOMPARE(down.headers.value("etag"), QByteArray("\"1\""));

    QJsonObject replaced = m_http.put("/v1/files?path=/docs/a.txt&overwrite=true", "hello world").json();
    QCOMPARE(replaced.value("rev").toString(), QStringLiteral("2"));
    QCOMPARE(replaced.value("neid"), meta.value("neid"));
    QCOMPARE(m_http.get("/v1/files?path=/docs/a.txt&rev=1").code(), QStringLiteral("nameentry_not_exist"));
    QCOMPARE(m_http.get("/v1/files?path=/docs/a.txt&rev=2").body, QByteArray("hello world"));
    // The cookie S carries the session as well as the header.
    const QByteArray cookie = "Cookie: x=1; S=" + m_server.token().toUtf8();
    QCOMPARE(CKXTestHttp::get(m_http.url("/v1/files?path=/docs/a.txt"), {cookie}).status, 200);
}

void TestKXServerProtocol::chunkedUploadAndCommit()
{
    // The document's example size: two full blocks and one byte.
    QList<QByteArray> blocks{randomBytes(kBlock, 1), randomBytes(kBlock, 2), "x"};
    QStringList hashes = hashesOf(blocks);
    QJsonObject query = fileOf("/big.bin", blocks);
    query.insert("overwrite", "false");
    TestHttpReply answer = m_http.post("/v1/upload/hash", query);
    QString id = answer.json().value("upload_id").toString();
    QCOMPARE(id.size(), 32);
    QCOMPARE(needed(answer), hashes);

    for (int i = 0; i < 2; ++i)
        QCOMPARE(m_http.putBlock(id, blocks[i]).json(),
                 QJsonObject({{"upload_id", id}, {"hash", hashes[i]}, {"status", "ok"}}));

    QJsonObject commit = query;
    commit.insert("upload_id", id);
    commit.insert("make_parents", true);
    TestHttpReply partial = m_http.post("/v1/upload/commit", commit);
    QCOMPARE(partial.status, 200);
    QCOMPARE(needed(partial), QStringList{hashes[2]});
    QCOMPARE(m_http.get("/v1/metadata?path=/big.bin").code(), QStringLiteral("nameentry_not_exist"));
    QCOMPARE(m_http.putBlock(id, blocks[2]).status, 200);
    // The upload id of the same file with another size still names the session: the sizes refuse it.
    QJsonObject oversized = commit;
    oversized.insert("size", 8388610);
    QCOMPARE(m_http.post("/v1/upload/commit", oversized).code(), QStringLiteral("content_hash_error"));

    QJsonObject done = m_http.post("/v1/upload/commit", commit).json();
    QCOMPARE(done.value("needed_block").toArray().size(), 0);
    QCOMPARE(done.value("upload_id").toString(), id);
    QJsonObject meta = done.value("metadata").toObject();
    QCOMPARE(meta.value("bytes").toDouble(), 8388609.0);
    QCOMPARE(meta.value("blocks").toInt(), 3);

    commit.insert("overwrite", "true");
    QCOMPARE(m_http.post("/v1/upload/commit", commit).json().value("metadata").toObject(), meta);
    commit.remove("upload_id");
    commit.insert("path", "/copy/big.bin");
    TestHttpReply copy = m_http.post("/v1/upload/commit", commit);
    QVERIFY(!copy.json().value("upload_id").toString().isEmpty());
    QCOMPARE(m_http.get("/v1/metadata?path=/copy").json().value("is_dir").toBool(), true);
    commit.insert("path", "/nowhere/big.bin");
    commit.insert("make_parents", false);
    QCOMPARE(m_http.post("/v1/upload/commit", commit).code(), QStringLiteral("nameentry_not_exist"));
}

void TestKXServerProtocol::deduplicationAcrossFiles()
{
    QByteArray shared = randomBytes(kBlock, 10);
    QByteArray ownA = randomBytes(1000, 11);
    QCOMPARE(m_http.uploadChunked("/dedup/a.bin", {shared, ownA}).status, 200);
    QVERIFY(m_server.resetStats());

    // A whole-file upload of known content is cut into the same blocks and stores none anew.
    QCOMPARE(m_http.put("/v1/files?path=/dedup/c.bin", shared + ownA).status, 200);
    QJsonObject stats = m_server.stats();
    QCOMPARE(stats.value("blocks_stored").toInt(), 0);
    QCOMPARE(stats.value("blocks_deduplicated").toInt(), 2);
    QVERIFY(m_http.stored(sha256Hex(shared)));
    QCOMPARE(m_http.get("/v1/files?path=/dedup/c.bin").body, shared + ownA);

    // Another account knowing the hash proves nothing: it cannot commit the block unsent, and
    // sends it once (the store still keeps one copy).
    const Client other(m_server, {"X-ORBALA-SESS-ID: other-token"});
    const QJsonObject theirs = fileOf("/theirs.bin", {shared});
    QCOMPARE(needed(other.post("/v1/upload/commit", theirs)), QStringList{sha256Hex(shared)});
    QCOMPARE(other.get("/v1/metadata?path=/theirs.bin").status, 404);
    QCOMPARE(needed(other.post("/v1/upload/hash", theirs)), QStringList{sha256Hex(shared)});
    QCOMPARE(other.uploadChunked("/theirs.bin", {shared}).json().value("metadata").toObject().value("bytes"),
             QJsonValue(kBlock));
    QCOMPARE(m_server.stats().value("blocks_stored").toInt(), 0);
}

void TestKXServerProtocol::rangesAcrossBlocks_data()
{
    QTest::addColumn<QString>("range");
    QTest::addColumn<int>("status");
    QTest::addColumn<qint64>("start");
    QTest::addColumn<qint64>("length");
    // 416 rows: whether the range parsed but lies outside the file (then Content-Range names the size)
    QTest::addColumn<bool>("outside");
    const qint64 size = kBlock + 100;
    QTest::newRow("across the block boundary")
        << "bytes=4194300-4194310" << 206 << 4194300LL << 11LL << false;
    QTest::newRow("first byte") << "bytes=0-0" << 206 << 0LL << 1LL << false;
    QTest::newRow("open end") << "bytes=4194304-" << 206 << 4194304LL << 100LL << false;
    QTest::newRow("suffix") << "bytes=-150" << 206 << size - 150 << 150LL << false;
    QTest::newRow("end clamped to the file") << "bytes=4194400-99999999" << 206 << 4194400LL << 4LL << false;
    QTest::newRow("whole file") << "" << 200 << 0LL << size << false;
    QTest::newRow("start at the end") << "bytes=4194404-" << 416 << 0LL << 0LL << true;
    QTest::newRow("start past the end") << "bytes=5000000-5000001" << 416 << 0LL << 0LL << true;
    QTest::newRow("reversed") << "bytes=5-2" << 416 << 0LL << 0LL << false;
    QTest::newRow("two ranges") << "bytes=0-1,5-6" << 416 << 0LL << 0LL << false;
    QTest::newRow("empty suffix") << "bytes=-0" << 416 << 0LL << 0LL << false;
    QTest::newRow("not bytes") << "lines=1-2" << 416 << 0LL << 0LL << false;
}

void TestKXServerProtocol::rangesAcrossBlocks()
{
    QFETCH(QString, range);
    QFETCH(int, status);
    QFETCH(qint64, start);
    QFETCH(qint64, length);
    QFETCH(bool, outside);
    static const QByteArray data = randomBytes(kBlock, 20) + randomBytes(100, 21);
    if (m_http.get("/v1/metadata?path=/ranges.bin").status != 200)
        QCOMPARE(m_http.put("/v1/files?path=/ranges.bin", data).json().value("blocks").toInt(), 2);
    TestHttpReply reply =
        m_http.get("/v1/files?path=/ranges.bin",
                   range.isEmpty() ? QList<QByteArray>() : QList<QByteArray>{"Range: " + range.toLatin1()});
    QCOMPARE(reply.status, status);
    if (status == 416) {
        QCOMPARE(reply.code(), QStringLiteral("invalid range"));
        if (outside)
            QCOMPARE(reply.headers.value("content-range"), QByteArray("bytes */4194404"));
        return;
    }
    QCOMPARE(reply.body, data.mid(static_cast<int>(start), static_cast<int>(length)));
    if (status == 206) {
        QCOMPARE(
            reply.headers.value("content-range"),
            QStringLiteral("bytes %1-%2/%3").arg(start).arg(start + length - 1).arg(data.size()).toLatin1());
    }
}

void TestKXServerProtocol::errorCodes_data()
{
    QTest::addColumn<QString>("request");
    QTest::addColumn<QByteArray>("body");
    QTest::addColumn<QByteArray>("session");
    QTest::addColumn<int>("status");
    QTest::addColumn<QString>("code");
    auto row = [](const char* name, const QString& request, const QByteArray& body, int status,
                  const QString& code, const QByteArray& session = kSession) {
        QTest::newRow(name) << request << body << session << status << code;
    };
    const QString block = "PUT /v1/upload/block?upload_id=" + m_errUploadId + "&hash=";
    const QByteArray commit =
        R"({"path":"/err/c.bin","size":3,"hashes":[")" + sha256Hex("file").toLatin1() + R"("]})";
    row("no session", "GET /v1/metadata?path=/", "", 401, "Invalid session", "");
    row("unknown session", "GET /v1/metadata?path=/", "", 401, "Invalid session", "X-ORBALA-SESS-ID: nope");
    row("folder exists", "POST /v1/folder", R"({"path":"/err/dir"})", 409, "folder_already_existed");
    row("no such entry", "GET /v1/metadata?path=/err/none", "", 404, "nameentry_not_exist");
    row("long component", "GET /v1/metadata?path=/" + QString(256, 'a'), "", 400, "path_too_long");
    row("locked", "PUT /v1/files?path=/err/locked.txt&overwrite=true", "x", 423, "file is locked");
    row("unknown space", "GET /v1/metadata?path=/&pathtype=team", "", 403, "private dc not allowed");
    row("block hash mismatch", block + sha256Hex("tiny"), "tinx", 400, "invalid.hash");
    row("sizes do not add up", "POST /v1/upload/commit", commit, 400, "content_hash_error");
    row("first component a file", "PUT /v1/files?path=/rootfile.txt/x.txt", "x", 409,
        "root parent folder conflict with file");
    row("deeper ancestor a file", "PUT /v1/files?path=/err/file.txt/x.txt", "x", 409,
        "parent folder conflict with file");
    row("target a folder", "PUT /v1/files?path=/err/dir&overwrite=true", "x", 409, "conflict with folder");
    row("download of a folder", "GET /v1/files?path=/err/dir", "", 409, "conflict with folder");
    row("folder where a file is", "POST /v1/folder", R"({"path":"/err/file.txt"})", 409,
        "conflict with file");
    row("refused suffix", "PUT /v1/files?path=/err/tool.EXE", "x", 415, "file type limit");
    row("virus", "GET /v1/files?path=/err/virus.txt", "", 403, "download_file_VirusF");
    row("block sent whole", block + sha256Hex("tiny"), QByteArray(kBlock + 1, 'b'), 413, "block too large");
    row("unknown route", "GET /v1/nothing", "", 404, "not found");
    // Paths that would leave the space, in every spelling: nothing is created, nothing read.
    const QString raw = "?session=kx-dev-token";
    row("dot-dot", "GET /v1/metadata?path=/a/../b", "", 403, "forbidden");
    row("encoded dot-dot", "GET /v1/metadata?path=/a/%2e%2e/b", "", 403, "forbidden");
    row("double-encoded dot-dot", "GET /v1/metadata?path=/a/%252e%252e/b", "", 403, "forbidden");
    row("relative escape", "GET /v1/metadata?path=..%2Fetc%2Fpasswd", "", 403, "forbidden");
    row("double slash", "GET /v1/metadata?path=//etc/passwd", "", 403, "forbidden");
    row("backslash", "GET /v1/metadata?path=/a%5C..%5Cb", "", 403, "forbidden");
    row("NUL", "GET /v1/metadata?path=/a%00b", "", 403, "forbidden");
    row("dot", "PUT /v1/files?path=/./a.txt", "escape", 403, "forbidden");
    row("raw dot-dot", "GET /v1/raw/self/../a.txt" + raw, "", 403, "forbidden");
    row("raw encoded dot-dot", "PUT /v1/raw/self/%2E%2E/a.txt" + raw, "escape", 403, "forbidden");
    row("raw encoded slash", "PUT /v1/raw/self/a%2Fb.txt" + raw, "escape", 403, "forbidden");
    row("raw absolute", "GET /v1/raw/self//etc/passwd" + raw, "", 403, "forbidden");
    row("too long", "GET /v1/metadata?path=/" + QString(1024, 'a'), "", 400, "path_too_long");
}

void TestKXServerProtocol::errorCodes()
{
    QFETCH(QString, request);
    QFETCH(QByteArray, body);
    QFETCH(QByteArray, session);
    QFETCH(int, status);
    QFETCH(QString, code);
    TestHttpReply reply =
        send(m_http, request, body, session.isEmpty() ? QList<QByteArray>() : QList<QByteArray>{session});
    QCOMPARE(reply.status, status);
    QJsonObject error = reply.json();
    QCOMPARE(error.value("code").toString(), code);
    QCOMPARE(error.value("state").toInt(), status);
    QCOMPARE(error.value("type").toString(), QStringLiteral("error"));
    QVERIFY(!error.value("message").toString().isEmpty() || status == 404);
    // Refusals change nothing: the fixtures are as they were, no escape left a file.
    QCOMPARE(m_http.get("/v1/files?path=/err/file.txt").body, QByteArray("file"));
    QCOMPARE(m_http.get("/v1/metadata?path=/a.txt").status, 404);
}

void TestKXServerProtocol::shareLinks()
{
    QString code = m_server.createShare("/shared", true, "pw");
    QVERIFY(!code.isEmpty());
    QString share = m_http.url("/v1/share/" + code);
    QJsonObject auth{{"token", "pw"}, {"path", ""}, {"name", "a.txt"}, {"size", 5}, {"overwrite", "false"}};
    TestHttpReply opened = CKXTestHttp::post(share + "/auth", auth);
    QString session = opened.json().value("session_id").toString();
    QVERIFY(!session.isEmpty());
    QVERIFY(opened.headers.value("set-cookie").startsWith("S=" + session.toLatin1() + ";"));

    // The session travels in a header or the cookie; the link is the root of the paths.
    const Client viaLink(m_server, {"Cookie: S=" + session.toLatin1()}, "/v1/share/" + code + "/upload");
    QCOMPARE(CKXTestHttp::put(share + "/files?path=/sub/a.txt", "hello",
                              {"X-Share-Session: " + session.toLatin1()})
                 .json()
                 .value("path"),
             QJsonValue("/shared/sub/a.txt"));
    const TestHttpReply committed = viaLink.uploadChunked("/sub/big.bin", {randomBytes(kBlock, 30), "tail"});
    QCOMPARE(committed.json().value("metadata").toObject().value("path"), QJsonValue("/shared/sub/big.bin"));
    QList<QByteArray> password{"X-Share-Token: pw"};
    QCOMPARE(CKXTestHttp::get(share + "/files?path=/sub/a.txt", password).body, QByteArray("hello"));

    QCOMPARE(CKXTestHttp::get(share + "/files?path=/sub/a.txt").code(), QStringLiteral("token is not exist"));
    QCOMPARE(CKXTestHttp::get(share + "/files?path=/none.txt", password).code(),
             QStringLiteral("file/folder not found"));
    QCOMPARE(CKXTestHttp::get(share + "/files?path=/../err/file.txt", password).code(),
             QStringLiteral("forbidden"));
    QCOMPARE(CKXTestHttp::put(share + "/files?path=/b.txt", "x", {"X-Share-Session: other-token"}).code(),
             QStringLiteral("forbidden"));
    QCOMPARE(CKXTestHttp::put(share + "/files?path=/b.txt", "x", {"X-Share-Session: kx-dev-token"}).status,
             200);

    // The offline command writes a link into the running server's store.
    QProcess command;
    command.start(KX_BIN_DIR "/kxserver", {"share", "--root", m_server.rootPath(), "--path", "/shared/sub"});
    QVERIFY(command.waitForFinished(15000));
    QCOMPARE(command.exitCode(), 0);
    QString offline = QString::fromLatin1(command.readAllStandardOutput()).trimmed();
    QCOMPARE(CKXTestHttp::get(m_http.url("/v1/share/" + offline + "/files?path=/a.txt")).body,
             QByteArray("hello"));
}

void TestKXServerProtocol::sharePasswordGuessesAreLimited()
{
    QCOMPARE(m_http.put("/v1/files?path=/guarded/a.txt", "guarded").status, 200);
    QString code = m_server.createShare("/guarded", false, "secret");
    auto attempt = [&](const QByteArray& password, const char* source) {
        const QByteArray request = "GET /v1/share/" + code.toLatin1() +
                                   "/files?path=/a.txt HTTP/1.1\r\nHost: kx\r\n" +
                                   "X-Share-Token: " + password + "\r\nConnection: close\r\n\r\n";
        return rawExchange(m_server, request, QHostAddress(QString::fromLatin1(source)));
    };
    for (int i = 0; i < 10; ++i)
        QCOMPARE(attempt("guess" + QByteArray::number(i), "127.0.0.2").status, 401);
    RawReply limited = attempt("secret", "127.0.0.2");
    QCOMPARE(limited.status, 429);
    QCOMPARE(limited.code(), QStringLiteral("too many attempts"));
    QVERIFY(limited.header("Retry-After").toInt() > 0);
    // Per address: another one still gets in; per link: guesses spread over addresses add up.
    QCOMPARE(attempt("secret", "127.0.0.3").body, QByteArray("guarded"));
    for (const char* source : {"127.0.0.3", "127.0.0.4"}) {
        for (int i = 0; i < 10; ++i)
            QCOMPARE(attempt("guess", source).status, 401);
    }
    QCOMPARE(attempt("secret", "127.0.0.5").status, 429);
    const QByteArray lines = readFile(m_server.logPath());
    QVERIFY(lines.contains("share " + code.toLatin1() + ": wrong password from 127.0.0.4"));
    QVERIFY(lines.contains("share " + code.toLatin1() + ": password attempt from 127.0.0.5 refused"));
}

void TestKXServerProtocol::ambiguousBodiesRefused_data()
{
    QTest::addColumn<QByteArray>("request");
    QTest::addColumn<int>("status");
    QTest::addColumn<QString>("code");
    const QByteArray hash = "POST /v1/upload/hash HTTP/1.1\r\nHost: kx\r\n" + kSession + "\r\n";
    const QByteArray block = "PUT /v1/upload/block?upload_id=" + m_errUploadId.toLatin1() +
                             "&hash=" + sha256Hex("tiny").toLatin1() + " HTTP/1.1\r\nHost: kx\r\n" +
                             kSession + "\r\n";
    // What follows a refused head is never taken for a request of its own.
    QTest::newRow("two lengths") << hash + "Content-Length: 0\r\nContent-Length: 60\r\n\r\n" +
                                        "GET /v1/metadata?path=/ HTTP/1.1\r\nHost: kx\r\n\r\n"
                                 << 400 << "bad request";
    QTest::newRow("length and chunked")
        << hash + "Content-Length: 2\r\nTransfer-Encoding: chunked\r\n\r\n2\r\n{}\r\n0\r\n\r\n"
        << 400 << "bad request";
    QTest::newRow("unknown coding") << hash + "Transfer-Encoding: gzip, chunked\r\n\r\n"
                                    << 400 << "bad request";
    QTest::newRow("block without a length") << block + "\r\ntiny" << 411 << "bad request";
    // The bodies below are never sent: the answer must come from the headers alone.
    QTest::newRow("block over 4 MiB") << block + "Content-Length: 5000000\r\n\r\n"
                                      << 413 << "block too large";
    QTest::newRow("JSON beyond the hashes of 1 TiB") << hash + "Content-Length: 20000000\r\n\r\n"
                                                     << 413 << "request too large";
}

void TestKXServerProtocol::ambiguousBodiesRefused()
{
    QFETCH(QByteArray, request);
    QFETCH(int, status);
    QFETCH(QString, code);
    RawReply reply = rawExchange(m_server, request);
    QCOMPARE(reply.status, status);
    QCOMPARE(reply.code(), code);
    QCOMPARE(reply.header("Connection"), QByteArray("close"));
    QCOMPARE(reply.head.toLower().count("content-length:"), 1);
    QVERIFY(!reply.body.contains("HTTP/1.1"));
}

void TestKXServerProtocol::requestsBackToBack_data()
{
    QTest::addColumn<int>("size");
    QTest::newRow("body within one read") << 5;
    QTest::newRow("body across reads, next request in the same read") << 300 * 1024 + 7;
}

// A client may send its next request before the answer to the last one: whatever the server
// read past the end of one request belongs to the next.
void TestKXServerProtocol::requestsBackToBack()
{
    QFETCH(int, size);
    QByteArray content(size, '\0');
    for (int i = 0; i < size; ++i)
        content[i] = static_cast<char>((static_cast<quint32>(i) * 7919u) >> 3);
    const QByteArray path = "/pipelined/" + QByteArray::number(size) + ".bin";
    const QByteArray put = "PUT /v1/files?path=" + path + " HTTP/1.1\r\nHost: kx\r\n" + kSession +
                           "\r\nContent-Length: " + QByteArray::number(size) + "\r\n\r\n" + content;
    const QByteArray get = "GET /v1/files?path=" + path + " HTTP/1.1\r\nHost: kx\r\n" + kSession +
                           "\r\nConnection: close\r\n\r\n";
    RawReply first = rawExchange(m_server, put + get);
    QCOMPARE(first.status, 200);
    const int length = first.header("Content-Length").toInt();
    QCOMPARE(QJsonDocument::fromJson(first.body.left(length)).object().value("bytes").toInt(), size);
    const QByteArray rest = first.body.mid(length);
    const int end = rest.indexOf("\r\n\r\n");
    QVERIFY2(rest.startsWith("HTTP/1.1 200 ") && end > 0, rest.left(200).constData());
    QCOMPARE(rest.mid(end + 4), content);
}

void TestKXServerProtocol::malformedBodiesGetClearErrors()
{
    const QList<QByteArray> bodies{"{not json",
                                   "[1,2]",
                                   "",
                                   R"({"path":"/m.bin","hashes":[]})",
                                   R"({"path":"/m.bin","size":-1,"hashes":[]})",
                                   R"({"path":"/m.bin","size":1,"hashes":["zz"]})",
                                   R"({"path":5,"size":1,"hashes":[]})"};
    for (const QString operation : {"/v1/upload/hash", "/v1/upload/commit", "/v1/upload/auth"}) {
        for (const QByteArray& body : bodies) {
            TestHttpReply reply = send(m_http, "POST " + operation, body, m_server.sessionHeader());
            if (operation == QLatin1String("/v1/upload/auth") && body.contains("\"hashes\":[\"zz\"]")) {
                QCOMPARE(reply.status, 200); // the authorisation does not read hashes
                continue;
            }
            QVERIFY2(reply.status == 400, qPrintable(operation + ": " + body));
            QCOMPARE(reply.code(), QStringLiteral("bad request"));
            QVERIFY(!reply.json().value("message").toString().isEmpty());
        }
    }
    QCOMPARE(m_http.get("/v1/metadata?path=/m.bin").status, 404);
}

// The hooks the fault tables of the other suites rely on (whose rows prove that a fault hits the
// request it names, passes its code on and goes when cleared): a block cut off on its way stores
// nothing, and only the admin may arm a hook, and only one that names a known operation.
void TestKXServerProtocol::faultInjection()
{
    const QString id = m_http.open(fileOf("/faults.bin", {"four"}));
    QVERIFY(m_server.armFault({{"op", "block_upload"}, {"action", "drop"}}));
    const QByteArray block = randomBytes(kBlock, 40);
    QVERIFY(m_http.putBlock(id, block).curlCode != 0);
    QVERIFY(!m_http.stored(sha256Hex(block)));
    QCOMPARE(m_server.admin("POST", "/admin/faults", {{"op", "teleport"}, {"action", "drop"}}).status, 400);
    QCOMPARE(CKXTestHttp::get(m_http.url("/admin/stats"), {"X-KX-Admin: wrong"}).code(),
             QStringLiteral("forbidden"));
}

QTEST_GUILESS_MAIN(TestKXServerProtocol)
#include "tst_KXServerProtocol.moc"
