// Every operation of the storage protocol against a running kxserver, over real HTTP.

#include "KXServerProcess.h"
#include "KXServerTestUtil.h"

#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QProcess>
#include <QtTest>

using namespace KXServerTest;

class TestKXServerProtocol : public QObject
{
    Q_OBJECT

private:
    CKXServerProcess m_server{{"--token", "other-token", "--deny-suffix", ".exe"}};
    QString m_errUploadId;

    QString url(const QString& tail) const { return m_server.baseUrl() + tail; }
    TestHttpReply get(const QString& tail, QList<QByteArray> headers = {}) const
    {
        return CKXTestHttp::get(url(tail), headers.isEmpty() ? m_server.sessionHeader() : headers);
    }
    TestHttpReply post(const QString& tail, const QJsonObject& body) const
    {
        return CKXTestHttp::post(url(tail), body, m_server.sessionHeader());
    }
    TestHttpReply put(const QString& tail, const QByteArray& body) const
    {
        return CKXTestHttp::put(url(tail), body, m_server.sessionHeader());
    }

private slots:
    void initTestCase();
    void wholeFileOperations();
    void chunkedUploadAndCommit();
    void deduplicationAcrossFiles();
    void rangesAcrossBlocks_data();
    void rangesAcrossBlocks();
    void errorCodes_data();
    void errorCodes();
    void pathEscapesRefused_data();
    void pathEscapesRefused();
    void shareLinks();
    void sharePasswordGuessesAreLimited();
    void ambiguousBodiesRefused_data();
    void ambiguousBodiesRefused();
    void quotaRefusesBeforeBytes();
    void malformedBodiesGetClearErrors();
    void faultInjection();
};

void TestKXServerProtocol::initTestCase()
{
    QVERIFY2(m_server.start(), qPrintable(m_server.errorString()));
    // Fixtures of the error table.
    QCOMPARE(put("/v1/files?path=/err/file.txt", "file").status, 200);
    QCOMPARE(put("/v1/files?path=/rootfile.txt", "file").status, 200);
    QCOMPARE(put("/v1/files?path=/err/locked.txt", "locked").status, 200);
    QCOMPARE(put("/v1/files?path=/err/virus.txt", "virus").status, 200);
    QCOMPARE(post("/v1/folder", {{"path", "/err/dir"}}).status, 200);
    QVERIFY(m_server.setLocked("/err/locked.txt", true));
    QVERIFY(m_server.flagVirus("/err/virus.txt"));
    QJsonObject query{{"path", "/err/up.bin"}, {"size", 4}, {"hashes", QJsonArray{sha256Hex("tiny")}}};
    m_errUploadId = post("/v1/upload/hash", query).json().value("upload_id").toString();
    QVERIFY(!m_errUploadId.isEmpty());
}

void TestKXServerProtocol::wholeFileOperations()
{
    TestHttpReply up = put("/v1/files?path=/docs/a.txt&pathtype=self&mtime=1763766000", "hello");
    QCOMPARE(up.status, 200);
    QJsonObject meta = up.json();
    QCOMPARE(meta.value("path").toString(), QStringLiteral("/docs/a.txt"));
    QCOMPARE(meta.value("is_dir").toBool(true), false);
    QCOMPARE(meta.value("bytes").toInt(), 5);
    QCOMPARE(meta.value("rev").toString(), QStringLiteral("1"));
    QVERIFY(!meta.value("neid").toString().isEmpty());
    QCOMPARE(meta.value("modified").toDouble(), 1763766000.0);
    QCOMPARE(meta.value("blocks").toInt(), 1);
    QCOMPARE(get("/v1/metadata?path=/docs/a.txt").json(), meta);

    QJsonObject listing = get("/v1/metadata?path=/docs&list=1").json();
    QCOMPARE(listing.value("is_dir").toBool(), true);
    QCOMPARE(listing.value("contents").toArray(), QJsonArray{meta});
    QCOMPARE(get("/v1/metadata?path=/docs&list=1&include_files=0").json().value("contents").toArray().size(),
             0);

    TestHttpReply down = get("/v1/files?path=/docs/a.txt");
    QCOMPARE(down.status, 200);
    QCOMPARE(down.body, QByteArray("hello"));
    QCOMPARE(down.headers.value("accept-ranges"), QByteArray("bytes"));
    QCOMPARE(down.headers.value("etag"), QByteArray("\"1\""));

    QCOMPARE(put("/v1/files?path=/docs/a.txt", "hello world").code(), QStringLiteral("target name exists"));
    QJsonObject replaced = put("/v1/files?path=/docs/a.txt&overwrite=true", "hello world").json();
    QCOMPARE(replaced.value("rev").toString(), QStringLiteral("2"));
    QCOMPARE(replaced.value("neid"), meta.value("neid"));
    QCOMPARE(get("/v1/files?path=/docs/a.txt&rev=1").code(), QStringLiteral("nameentry_not_exist"));
    QCOMPARE(get("/v1/files?path=/docs/a.txt&rev=2").body, QByteArray("hello world"));
    // The cookie S carries the session as well as the header.
    QCOMPARE(get("/v1/files?path=/docs/a.txt", {"Cookie: x=1; S=" + m_server.token().toUtf8()}).status, 200);

    QJsonObject auth = post("/v1/upload/auth", {{"path", "/docs/b.txt"},
                                                {"pathtype", "self"},
                                                {"size", 5},
                                                {"overwrite", "false"},
                                                {"route", ""}})
                           .json();
    QCOMPARE(auth.value("region").toString(), m_server.baseUrl());
    QCOMPARE(auth.value("X-ORBALA-SESS-ID").toString(), m_server.token());
    QCOMPARE(auth.value("path").toString(), QStringLiteral("/docs/b.txt"));

    QJsonObject event{{"event", "15"}, {"folder", "/docs"}, {"name", "a.txt"}, {"pathtype", "self"},
                      {"neid", "17"},  {"extra1", ""},      {"extra2", ""}};
    QCOMPARE(post("/v1/log", event).json(), QJsonObject({{"result", true}}));
    QFile log(m_server.rootPath() + "/events.log");
    QVERIFY(log.open(QIODevice::ReadOnly));
    QJsonObject logged = QJsonDocument::fromJson(log.readAll().trimmed().split('\n').last()).object();
    QCOMPARE(logged.value("event").toString(), QStringLiteral("15"));
    QCOMPARE(logged.value("name").toString(), QStringLiteral("a.txt"));

    // Plain addresses: the session travels in the query, never in a header.
    QString raw = "/v1/raw/self/docs/raw%20file.txt?session=" + m_server.token();
    QCOMPARE(CKXTestHttp::put(url(raw), "raw bytes").json().value("path").toString(),
             QStringLiteral("/docs/raw file.txt"));
    QCOMPARE(CKXTestHttp::get(url(raw)).body, QByteArray("raw bytes"));
    QCOMPARE(CKXTestHttp::get(url(raw), {"Range: bytes=4-"}).body, QByteArray("bytes"));
}

void TestKXServerProtocol::chunkedUploadAndCommit()
{
    // The document's example size: two full blocks and one byte.
    QList<QByteArray> blocks{randomBytes(kBlock, 1), randomBytes(kBlock, 2), "x"};
    QStringList hashes = hashesOf(blocks);
    QJsonObject query{{"path", "/big.bin"}, {"pathtype", "self"},
                      {"size", 8388609},    {"overwrite", "false"},
                      {"route", ""},        {"hashes", QJsonArray::fromStringList(hashes)}};
    TestHttpReply answer = post("/v1/upload/hash", query);
    QCOMPARE(answer.status, 200);
    QString id = answer.json().value("upload_id").toString();
    QCOMPARE(id.size(), 32);
    QCOMPARE(needed(answer), hashes);
    QCOMPARE(post("/v1/upload/hash", query).json().value("upload_id").toString(), id);

    TestHttpReply wrong =
        CKXTestHttp::put(blockUrl(m_server, id, hashes[0]), blocks[1], m_server.sessionHeader());
    QCOMPARE(wrong.status, 400);
    QCOMPARE(wrong.code(), QStringLiteral("invalid.hash"));
    for (int i = 0; i < 2; ++i) {
        QJsonObject sent =
            CKXTestHttp::put(blockUrl(m_server, id, hashes[i]), blocks[i], m_server.sessionHeader()).json();
        QCOMPARE(sent, QJsonObject({{"upload_id", id}, {"hash", hashes[i]}, {"status", "ok"}}));
    }

    QJsonObject commit{
        {"path", "/big.bin"}, {"pathtype", "self"},   {"upload_id", id},
        {"size", 8388609},    {"overwrite", "false"}, {"make_parents", true},
        {"verify", true},     {"source", "sync"},     {"hashes", QJsonArray::fromStringList(hashes)}};
    TestHttpReply partial = post("/v1/upload/commit", commit);
    QCOMPARE(partial.status, 200);
    QCOMPARE(needed(partial), QStringList{hashes[2]});
    QCOMPARE(get("/v1/metadata?path=/big.bin").code(), QStringLiteral("nameentry_not_exist"));
    QCOMPARE(needed(post("/v1/upload/hash", query)), QStringList{hashes[2]});
    QCOMPARE(CKXTestHttp::put(blockUrl(m_server, id, hashes[2]), blocks[2], m_server.sessionHeader()).status,
             200);

    QJsonObject oversized = commit;
    oversized.insert("size", 8388610);
    QCOMPARE(post("/v1/upload/commit", oversized).code(), QStringLiteral("content_hash_error"));
    QJsonObject done = post("/v1/upload/commit", commit).json();
    QCOMPARE(done.value("needed_block").toArray().size(), 0);
    QCOMPARE(done.value("upload_id").toString(), id);
    QJsonObject meta = done.value("metadata").toObject();
    QCOMPARE(meta.value("bytes").toDouble(), 8388609.0);
    QCOMPARE(meta.value("blocks").toInt(), 3);
    QCOMPARE(sha256Hex(get("/v1/files?path=/big.bin").body), sha256Hex(blocks[0] + blocks[1] + blocks[2]));

    commit.insert("overwrite", "true");
    QCOMPARE(post("/v1/upload/commit", commit).json().value("metadata").toObject(), meta);
    commit.remove("upload_id");
    commit.insert("path", "/copy/big.bin");
    TestHttpReply copy = post("/v1/upload/commit", commit);
    QCOMPARE(copy.status, 200);
    QVERIFY(!copy.json().value("upload_id").toString().isEmpty());
    QCOMPARE(get("/v1/metadata?path=/copy").json().value("is_dir").toBool(), true);
    commit.insert("path", "/nowhere/big.bin");
    commit.insert("make_parents", false);
    QCOMPARE(post("/v1/upload/commit", commit).code(), QStringLiteral("nameentry_not_exist"));
}

void TestKXServerProtocol::deduplicationAcrossFiles()
{
    QByteArray shared = randomBytes(kBlock, 10);
    QByteArray ownA = randomBytes(1000, 11);
    QByteArray ownB = randomBytes(2000, 12);
    QVERIFY(m_server.resetStats());
    QCOMPARE(uploadChunked(m_server, "/dedup/a.bin", {shared, ownA}).status, 200);
    QCOMPARE(m_server.stats().value("blocks_stored").toInt(), 2);

    QJsonObject query{{"path", "/dedup/b.bin"},
                      {"size", kBlock + 2000},
                      {"hashes", QJsonArray{sha256Hex(shared), sha256Hex(ownB)}}};
    QCOMPARE(needed(post("/v1/upload/hash", query)), QStringList{sha256Hex(ownB)});
    QCOMPARE(uploadChunked(m_server, "/dedup/b.bin", {shared, ownB}).status, 200);
    QJsonObject stats = m_server.stats();
    QCOMPARE(stats.value("blocks_stored").toInt(), 3);
    QCOMPARE(stats.value("block_uploads").toInt(), 3);
    QCOMPARE(stats.value("commits").toInt(), 2);

    // A whole-file upload of known content is cut into the same blocks and stores none anew.
    QCOMPARE(put("/v1/files?path=/dedup/c.bin", shared + ownA).status, 200);
    stats = m_server.stats();
    QCOMPARE(stats.value("blocks_stored").toInt(), 3);
    QCOMPARE(stats.value("blocks_deduplicated").toInt(), 2);
    QString stored =
        m_server.rootPath() + "/blocks/" + sha256Hex(shared).left(2) + "/" + sha256Hex(shared).mid(2);
    QVERIFY(QFile::exists(stored));
    QCOMPARE(get("/v1/files?path=/dedup/c.bin").body, shared + ownA);

    // Another account knowing the hash proves nothing: it cannot commit the block unsent, and
    // sends it once (the store still keeps one copy).
    const QList<QByteArray> other{"X-ORBALA-SESS-ID: other-token"};
    QJsonObject theirs{{"path", "/theirs.bin"}, {"size", kBlock}, {"hashes", QJsonArray{sha256Hex(shared)}}};
    QCOMPARE(needed(CKXTestHttp::post(url("/v1/upload/commit"), theirs, other)),
             QStringList{sha256Hex(shared)});
    QCOMPARE(CKXTestHttp::get(url("/v1/metadata?path=/theirs.bin"), other).status, 404);
    TestHttpReply asked = CKXTestHttp::post(url("/v1/upload/hash"), theirs, other);
    QCOMPARE(needed(asked), QStringList{sha256Hex(shared)});
    QString id = asked.json().value("upload_id").toString();
    QCOMPARE(CKXTestHttp::put(blockUrl(m_server, id, sha256Hex(shared)), shared, other).status, 200);
    QCOMPARE(CKXTestHttp::post(url("/v1/upload/commit"), theirs, other)
                 .json()
                 .value("metadata")
                 .toObject()
                 .value("bytes")
                 .toInt(),
             kBlock);
    QCOMPARE(m_server.stats().value("blocks_stored").toInt(), 3);
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
    if (get("/v1/metadata?path=/ranges.bin").status != 200) {
        QCOMPARE(put("/v1/files?path=/ranges.bin", data).json().value("blocks").toInt(), 2);
    }
    QList<QByteArray> headers = m_server.sessionHeader();
    if (!range.isEmpty()) {
        headers << "Range: " + range.toLatin1();
    }
    TestHttpReply reply = get("/v1/files?path=/ranges.bin", headers);
    QCOMPARE(reply.status, status);
    if (status == 416) {
        QCOMPARE(reply.code(), QStringLiteral("invalid range"));
        if (outside) {
            QCOMPARE(reply.headers.value("content-range"), QByteArray("bytes */4194404"));
        }
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
    QTest::addColumn<QByteArray>("method");
    QTest::addColumn<QString>("tail");
    QTest::addColumn<QByteArray>("body");
    QTest::addColumn<QByteArray>("session");
    QTest::addColumn<int>("status");
    QTest::addColumn<QString>("code");
    const QByteArray me = "X-ORBALA-SESS-ID: kx-dev-token";
    const QString block = "/v1/upload/block?upload_id=" + m_errUploadId + "&hash=";
    const QByteArray commit =
        R"({"path":"/err/c.bin","size":3,"hashes":[")" + sha256Hex("file").toLatin1() + R"("]})";
    QTest::newRow("no session") << QByteArray("GET") << "/v1/metadata?path=/" << QByteArray() << QByteArray()
                                << 401 << "Invalid session";
    QTest::newRow("unknown session") << QByteArray("GET") << "/v1/metadata?path=/" << QByteArray()
                                     << QByteArray("X-ORBALA-SESS-ID: nope") << 401 << "Invalid session";
    QTest::newRow("name exists") << QByteArray("PUT") << "/v1/files?path=/err/file.txt" << QByteArray("x")
                                 << me << 409 << "target name exists";
    QTest::newRow("folder exists") << QByteArray("POST") << "/v1/folder"
                                   << QByteArray(R"({"path":"/err/dir"})") << me << 409
                                   << "folder_already_existed";
    QTest::newRow("unknown upload session")
        << QByteArray("PUT")
        << "/v1/upload/block?upload_id=00000000000000000000000000000000&hash=" + sha256Hex("tiny")
        << QByteArray("tiny") << me << 404 << "source not found";
    QTest::newRow("no such entry") << QByteArray("GET") << "/v1/metadata?path=/err/none" << QByteArray() << me
                                   << 404 << "nameentry_not_exist";
    QTest::newRow("long component") << QByteArray("GET") << "/v1/metadata?path=/" + QString(256, 'a')
                                    << QByteArray() << me << 400 << "path_too_long";
    QTest::newRow("locked") << QByteArray("PUT") << "/v1/files?path=/err/locked.txt&overwrite=true"
                            << QByteArray("x") << me << 423 << "file is locked";
    QTest::newRow("unknown space") << QByteArray("GET") << "/v1/metadata?path=/&pathtype=team" << QByteArray()
                                   << me << 403 << "private dc not allowed";
    QTest::newRow("block hash mismatch") << QByteArray("PUT") << block + sha256Hex("tiny")
                                         << QByteArray("tinx") << me << 400 << "invalid.hash";
    QTest::newRow("sizes do not add up")
        << QByteArray("POST") << "/v1/upload/commit" << commit << me << 400 << "content_hash_error";
    QTest::newRow("first component a file")
        << QByteArray("PUT") << "/v1/files?path=/rootfile.txt/x.txt" << QByteArray("x") << me << 409
        << "root parent folder conflict with file";
    QTest::newRow("deeper ancestor a file")
        << QByteArray("PUT") << "/v1/files?path=/err/file.txt/x.txt" << QByteArray("x") << me << 409
        << "parent folder conflict with file";
    QTest::newRow("target a folder") << QByteArray("PUT") << "/v1/files?path=/err/dir&overwrite=true"
                                     << QByteArray("x") << me << 409 << "conflict with folder";
    QTest::newRow("download of a folder") << QByteArray("GET") << "/v1/files?path=/err/dir" << QByteArray()
                                          << me << 409 << "conflict with folder";
    QTest::newRow("folder where a file is")
        << QByteArray("POST") << "/v1/folder" << QByteArray(R"({"path":"/err/file.txt"})") << me << 409
        << "conflict with file";
    QTest::newRow("refused suffix") << QByteArray("PUT") << "/v1/files?path=/err/tool.EXE" << QByteArray("x")
                                    << me << 415 << "file type limit";
    QTest::newRow("virus") << QByteArray("GET") << "/v1/files?path=/err/virus.txt" << QByteArray() << me
                           << 403 << "download_file_VirusF";
    QTest::newRow("block never offered") << QByteArray("PUT") << block + sha256Hex("other")
                                         << QByteArray("other") << me << 400 << "bad request";
    QTest::newRow("block too large") << QByteArray("PUT") << block + sha256Hex("tiny")
                                     << QByteArray(kBlock + 1, 'b') << me << 413 << "block too large";
    QTest::newRow("whole upload without session")
        << QByteArray("PUT") << "/v1/files?path=/err/new.txt" << QByteArray("x") << QByteArray() << 401
        << "Invalid session";
    QTest::newRow("unknown route") << QByteArray("GET") << "/v1/nothing" << QByteArray() << me << 404
                                   << "not found";
}

void TestKXServerProtocol::errorCodes()
{
    QFETCH(QByteArray, method);
    QFETCH(QString, tail);
    QFETCH(QByteArray, body);
    QFETCH(QByteArray, session);
    QFETCH(int, status);
    QFETCH(QString, code);
    TestHttpRequest request;
    request.method = method;
    request.url = url(tail);
    request.body = body;
    if (!session.isEmpty()) {
        request.headers << session;
    }
    TestHttpReply reply = CKXTestHttp::send(request);
    QCOMPARE(reply.status, status);
    QJsonObject error = reply.json();
    QCOMPARE(error.value("code").toString(), code);
    QCOMPARE(error.value("state").toInt(), status);
    QCOMPARE(error.value("type").toString(), QStringLiteral("error"));
    QVERIFY(!error.value("message").toString().isEmpty() || status == 404);
    // Refusals change nothing: the fixtures are as they were.
    QCOMPARE(get("/v1/files?path=/err/file.txt").body, QByteArray("file"));
}

void TestKXServerProtocol::pathEscapesRefused_data()
{
    QTest::addColumn<QByteArray>("method");
    QTest::addColumn<QString>("tail");
    QTest::addColumn<QString>("code");
    const QString raw = "?session=kx-dev-token";
    QTest::newRow("dot-dot") << QByteArray("GET") << "/v1/metadata?path=/a/../b"
                             << "forbidden";
    QTest::newRow("encoded dot-dot") << QByteArray("GET") << "/v1/metadata?path=/a/%2e%2e/b"
                                     << "forbidden";
    QTest::newRow("double-encoded dot-dot") << QByteArray("GET") << "/v1/metadata?path=/a/%252e%252e/b"
                                            << "forbidden";
    QTest::newRow("relative escape") << QByteArray("GET") << "/v1/metadata?path=..%2Fetc%2Fpasswd"
                                     << "forbidden";
    QTest::newRow("double slash") << QByteArray("GET") << "/v1/metadata?path=//etc/passwd"
                                  << "forbidden";
    QTest::newRow("backslash") << QByteArray("GET") << "/v1/metadata?path=/a%5C..%5Cb"
                               << "forbidden";
    QTest::newRow("NUL") << QByteArray("GET") << "/v1/metadata?path=/a%00b"
                         << "forbidden";
    QTest::newRow("dot") << QByteArray("PUT") << "/v1/files?path=/./a.txt"
                         << "forbidden";
    QTest::newRow("upload dot-dot") << QByteArray("PUT") << "/v1/files?path=/x/../../a.txt"
                                    << "forbidden";
    QTest::newRow("raw dot-dot") << QByteArray("GET") << "/v1/raw/self/../a.txt" + raw << "forbidden";
    QTest::newRow("raw encoded dot-dot")
        << QByteArray("PUT") << "/v1/raw/self/%2E%2E/a.txt" + raw << "forbidden";
    QTest::newRow("raw encoded slash") << QByteArray("PUT") << "/v1/raw/self/a%2Fb.txt" + raw << "forbidden";
    QTest::newRow("raw absolute") << QByteArray("GET") << "/v1/raw/self//etc/passwd" + raw << "forbidden";
    QTest::newRow("too long") << QByteArray("GET") << "/v1/metadata?path=/" + QString(1024, 'a')
                              << "path_too_long";
}

void TestKXServerProtocol::pathEscapesRefused()
{
    QFETCH(QByteArray, method);
    QFETCH(QString, tail);
    QFETCH(QString, code);
    TestHttpRequest request;
    request.method = method;
    request.url = url(tail);
    request.body = method == "PUT" ? QByteArray("escape") : QByteArray();
    request.headers = m_server.sessionHeader();
    TestHttpReply reply = CKXTestHttp::send(request);
    QCOMPARE(reply.code(), code);
    QCOMPARE(reply.status, code == "forbidden" ? 403 : 400);
    QCOMPARE(get("/v1/metadata?path=/a.txt").status, 404);
    QCOMPARE(get("/v1/metadata?path=/b").status, 404);
}

void TestKXServerProtocol::shareLinks()
{
    QString code = m_server.createShare("/shared", true, "pw");
    QVERIFY(!code.isEmpty());
    QString share = url("/v1/share/" + code);
    QJsonObject auth{{"token", "pw"}, {"path", ""}, {"name", "a.txt"}, {"size", 5}, {"overwrite", "false"}};
    TestHttpReply opened = CKXTestHttp::post(share + "/auth", auth);
    QCOMPARE(opened.status, 200);
    QString session = opened.json().value("session_id").toString();
    QVERIFY(!session.isEmpty());
    QCOMPARE(opened.json().value("result").toBool(), true);
    QCOMPARE(opened.json().value("upload_url").toString(), m_server.baseUrl());
    QVERIFY(!opened.json().value("LBC").toString().isEmpty());
    QVERIFY(opened.headers.value("set-cookie").startsWith("S=" + session.toLatin1() + ";"));

    QList<QByteArray> viaSession{"X-Share-Session: " + session.toLatin1()};
    TestHttpReply whole = CKXTestHttp::put(share + "/files?path=/a.txt", "hello", viaSession);
    QCOMPARE(whole.json().value("path").toString(), QStringLiteral("/shared/a.txt"));
    QList<QByteArray> blocks{randomBytes(kBlock, 30), "tail"};
    QJsonObject query{{"path", "/sub/big.bin"},
                      {"size", kBlock + 4},
                      {"overwrite", "false"},
                      {"hashes", QJsonArray::fromStringList(hashesOf(blocks))}};
    TestHttpReply asked =
        CKXTestHttp::post(share + "/upload/hash", query, {"Cookie: S=" + session.toLatin1()});
    QCOMPARE(needed(asked), hashesOf(blocks));
    QString id = asked.json().value("upload_id").toString();
    for (int i = 0; i < 2; ++i) {
        QString tail = "/upload/block?upload_id=" + id + "&hash=" + sha256Hex(blocks[i]);
        QCOMPARE(CKXTestHttp::put(share + tail, blocks[i], viaSession).json().value("hash").toString(),
                 sha256Hex(blocks[i]));
    }
    query.insert("upload_id", id);
    TestHttpReply committed = CKXTestHttp::post(share + "/upload/commit", query, viaSession);
    QCOMPARE(committed.json().value("metadata").toObject().value("path").toString(),
             QStringLiteral("/shared/sub/big.bin"));

    QList<QByteArray> password{"X-Share-Token: pw"};
    QCOMPARE(CKXTestHttp::get(share + "/files?path=/a.txt", password).body, QByteArray("hello"));
    TestHttpReply ranged = CKXTestHttp::get(share + "/files?path=/sub/big.bin",
                                            password + QList<QByteArray>{"Range: bytes=4194302-"});
    QCOMPARE(ranged.status, 206);
    QCOMPARE(ranged.body, blocks[0].right(2) + "tail");

    auth.insert("token", "wrong");
    QCOMPARE(CKXTestHttp::post(share + "/auth", auth).code(), QStringLiteral("token is not exist"));
    QCOMPARE(CKXTestHttp::get(share + "/files?path=/a.txt").code(), QStringLiteral("token is not exist"));
    QCOMPARE(CKXTestHttp::get(share + "/files?path=/none.txt", password).code(),
             QStringLiteral("file/folder not found"));
    QCOMPARE(CKXTestHttp::get(share + "/files?path=/../err/file.txt", password).code(),
             QStringLiteral("forbidden"));
    QCOMPARE(CKXTestHttp::get(url("/v1/share/0123456789abcdef/files?path=/a.txt")).code(),
             QStringLiteral("source not found"));
    QCOMPARE(CKXTestHttp::put(share + "/files?path=/b.txt", "x").code(), QStringLiteral("Invalid session"));
    QCOMPARE(CKXTestHttp::put(share + "/files?path=/b.txt", "x", {"X-Share-Session: other-token"}).code(),
             QStringLiteral("forbidden"));
    QCOMPARE(CKXTestHttp::put(share + "/files?path=/b.txt", "x", {"X-Share-Session: kx-dev-token"}).status,
             200);

    QString readOnly = m_server.createShare("/shared", false);
    auth.insert("token", "");
    QCOMPARE(CKXTestHttp::post(url("/v1/share/" + readOnly + "/auth"), auth).code(),
             QStringLiteral("forbidden"));
    QCOMPARE(CKXTestHttp::get(url("/v1/share/" + readOnly + "/files?path=/a.txt")).body, QByteArray("hello"));

    // The offline command writes a link into the running server's store.
    QProcess command;
    command.start(KX_BIN_DIR "/kxserver", {"share", "--root", m_server.rootPath(), "--path", "/shared/sub"});
    QVERIFY(command.waitForFinished(15000));
    QCOMPARE(command.exitCode(), 0);
    QString offline = QString::fromLatin1(command.readAllStandardOutput()).trimmed();
    QCOMPARE(CKXTestHttp::get(url("/v1/share/" + offline + "/files?path=/big.bin")).body.size(), kBlock + 4);
}

void TestKXServerProtocol::sharePasswordGuessesAreLimited()
{
    QCOMPARE(put("/v1/files?path=/guarded/a.txt", "guarded").status, 200);
    QString code = m_server.createShare("/guarded", false, "secret");
    auto attempt = [&](const QByteArray& password, const char* source) {
        return rawExchange(m_server,
                           "GET /v1/share/" + code.toLatin1() +
                               "/files?path=/a.txt HTTP/1.1\r\nHost: kx\r\n" + "X-Share-Token: " + password +
                               "\r\nConnection: close\r\n\r\n",
                           QHostAddress(QString::fromLatin1(source)));
    };
    for (int i = 0; i < 10; ++i) {
        QCOMPARE(attempt("guess" + QByteArray::number(i), "127.0.0.2").status, 401);
    }
    RawReply limited = attempt("secret", "127.0.0.2");
    QCOMPARE(limited.status, 429);
    QCOMPARE(limited.code(), QStringLiteral("too many attempts"));
    QVERIFY(limited.header("Retry-After").toInt() > 0);
    // Per address: another one still gets in; per link: guesses spread over addresses add up.
    QCOMPARE(attempt("secret", "127.0.0.3").body, QByteArray("guarded"));
    for (const char* source : {"127.0.0.3", "127.0.0.4"}) {
        for (int i = 0; i < 10; ++i) {
            QCOMPARE(attempt("guess", source).status, 401);
        }
    }
    QCOMPARE(attempt("secret", "127.0.0.5").status, 429);
    QFile log(m_server.logPath());
    QVERIFY(log.open(QIODevice::ReadOnly));
    QByteArray lines = log.readAll();
    QVERIFY(lines.contains("share " + code.toLatin1() + ": wrong password from 127.0.0.4"));
    QVERIFY(lines.contains("share " + code.toLatin1() + ": password attempt from 127.0.0.5 refused"));
}

void TestKXServerProtocol::ambiguousBodiesRefused_data()
{
    QTest::addColumn<QByteArray>("request");
    QTest::addColumn<int>("status");
    QTest::addColumn<QString>("code");
    const QByteArray hash = "POST /v1/upload/hash HTTP/1.1\r\nHost: kx\r\nX-ORBALA-SESS-ID: kx-dev-token\r\n";
    const QByteArray block = "PUT /v1/upload/block?upload_id=" + m_errUploadId.toLatin1() +
                             "&hash=" + sha256Hex("tiny").toLatin1() +
                             " HTTP/1.1\r\nHost: kx\r\nX-ORBALA-SESS-ID: kx-dev-token\r\n";
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

void TestKXServerProtocol::quotaRefusesBeforeBytes()
{
    CKXServerProcess small({"--quota", "10000"});
    QVERIFY2(small.start(), qPrintable(small.errorString()));
    QString base = small.baseUrl();
    QCOMPARE(
        CKXTestHttp::put(base + "/v1/files?path=/a.bin", QByteArray(6000, 'a'), small.sessionHeader()).status,
        200);
    QVERIFY(small.resetStats());
    TestHttpReply refused =
        CKXTestHttp::put(base + "/v1/files?path=/b.bin", QByteArray(6000, 'b'), small.sessionHeader());
    QCOMPARE(refused.status, 507);
    QCOMPARE(refused.code(), QStringLiteral("space limit"));
    QCOMPARE(small.stats().value("file_upload_bytes").toInt(), 0);
    QJsonObject auth{{"path", "/c.bin"}, {"size", 5000}};
    QCOMPARE(CKXTestHttp::post(base + "/v1/upload/auth", auth, small.sessionHeader()).code(),
             QStringLiteral("space limit"));
    QJsonObject query{{"path", "/c.bin"}, {"size", 5000}, {"hashes", QJsonArray()}};
    QCOMPARE(CKXTestHttp::post(base + "/v1/upload/hash", query, small.sessionHeader()).status, 507);
    // Replacing a file frees its own bytes first.
    QCOMPARE(CKXTestHttp::put(base + "/v1/files?path=/a.bin&overwrite=true", QByteArray(9000, 'c'),
                              small.sessionHeader())
                 .status,
             200);
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
            TestHttpRequest request;
            request.method = "POST";
            request.url = url(operation);
            request.body = body;
            request.headers = m_server.sessionHeader();
            TestHttpReply reply = CKXTestHttp::send(request);
            if (operation == QLatin1String("/v1/upload/auth") && body.contains("\"hashes\":[\"zz\"]")) {
                QCOMPARE(reply.status, 200); // the authorisation does not read hashes
                continue;
            }
            QVERIFY2(reply.status == 400, qPrintable(operation + ": " + body));
            QCOMPARE(reply.code(), QStringLiteral("bad request"));
            QVERIFY(!reply.json().value("message").toString().isEmpty());
        }
    }
    QCOMPARE(get("/v1/metadata?path=/m.bin").status, 404);
    QCOMPARE(get("/v1/metadata?path=/").status, 200);
}

void TestKXServerProtocol::faultInjection()
{
    QJsonObject query{{"path", "/faults.bin"}, {"size", 4}, {"hashes", QJsonArray{sha256Hex("four")}}};
    QVERIFY(m_server.armFault({{"op", "hash"},
                               {"nth", 2},
                               {"action", "status"},
                               {"status", 503},
                               {"code", "parent folder conflict with folder"}}));
    QCOMPARE(post("/v1/upload/hash", query).status, 200);
    TestHttpReply refused = post("/v1/upload/hash", query);
    QCOMPARE(refused.status, 503);
    QCOMPARE(refused.code(), QStringLiteral("parent folder conflict with folder"));
    QCOMPARE(post("/v1/upload/hash", query).status, 200);

    QVERIFY(m_server.armFault({{"op", "metadata"},
                               {"action", "status"},
                               {"status", 409},
                               {"count", 2},
                               {"code", "root parent folder conflict with folder"}}));
    QCOMPARE(get("/v1/metadata?path=/").code(), QStringLiteral("root parent folder conflict with folder"));
    QCOMPARE(get("/v1/metadata?path=/").status, 409);
    QCOMPARE(get("/v1/metadata?path=/").status, 200);

    QString id = post("/v1/upload/hash", query).json().value("upload_id").toString();
    QVERIFY(m_server.armFault({{"op", "block_upload"}, {"action", "wrong_hash"}}));
    TestHttpReply lying =
        CKXTestHttp::put(blockUrl(m_server, id, sha256Hex("four")), "four", m_server.sessionHeader());
    QCOMPARE(lying.status, 200);
    QVERIFY(lying.json().value("hash").toString() != sha256Hex("four"));
    QCOMPARE(needed(post("/v1/upload/hash", query)), QStringList());

    QVERIFY(m_server.armFault({{"op", "block_upload"}, {"action", "drop"}}));
    QByteArray block = randomBytes(kBlock, 40);
    TestHttpReply dropped =
        CKXTestHttp::put(blockUrl(m_server, id, sha256Hex(block)), block, m_server.sessionHeader());
    QVERIFY(dropped.curlCode != 0);
    QCOMPARE(dropped.status == 0 || dropped.status == 100, true);
    QCOMPARE(QFile::exists(m_server.rootPath() + "/blocks/" + sha256Hex(block).left(2) + "/" +
                           sha256Hex(block).mid(2)),
             false);

    QByteArray file = randomBytes(3000000, 41);
    QCOMPARE(put("/v1/files?path=/faults/file.bin", file).status, 200);
    QVERIFY(m_server.armFault({{"op", "download"}, {"action", "drop"}}));
    TestHttpReply cut = get("/v1/files?path=/faults/file.bin");
    QCOMPARE(cut.status, 200);
    QVERIFY(cut.curlCode != 0);
    QVERIFY(cut.body.size() < file.size());
    QVERIFY(file.startsWith(cut.body));
    QCOMPARE(get("/v1/files?path=/faults/file.bin").body, file);

    // A delayed answer stays in flight until it is sent.
    QVERIFY(m_server.armFault({{"op", "metadata"}, {"action", "delay"}, {"ms", 1500}}));
    QVERIFY(m_server.resetStats());
    TestHttpReply late;
    QThread* caller = QThread::create([&] { late = get("/v1/metadata?path=/"); });
    caller->start();
    QTRY_COMPARE_WITH_TIMEOUT(m_server.stats().value("inflight").toInt(), 1, 5000);
    QVERIFY(caller->wait(10000));
    delete caller;
    QCOMPARE(late.status, 200);
    QCOMPARE(m_server.stats().value("inflight").toInt(), 0);

    QVERIFY(m_server.armFault({{"op", "commit"}, {"action", "status"}, {"status", 500}}));
    QVERIFY(m_server.clearFaults());
    QCOMPARE(
        post("/v1/upload/commit",
             QJsonObject{{"path", "/faults.bin"}, {"size", 4}, {"hashes", QJsonArray{sha256Hex("four")}}})
            .status,
        200);
    QCOMPARE(m_server.admin("POST", "/admin/faults", {{"op", "teleport"}, {"action", "drop"}}).status, 400);
    QCOMPARE(CKXTestHttp::get(url("/admin/stats"), {"X-KX-Admin: wrong"}).code(),
             QStringLiteral("forbidden"));
}

QTEST_GUILESS_MAIN(TestKXServerProtocol)
#include "tst_KXServerProtocol.moc"
