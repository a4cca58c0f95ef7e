// The store under stress: concurrent uploads of one block, bodies refused before they travel,
// bodies that end early, a crash in the middle of an upload, a block file damaged behind the
// server's back, and the quota with uploads that are abandoned.

#include "KXServerProcess.h"
#include "KXServerTestUtil.h"

#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QTcpSocket>
#include <QUrl>
#include <QtTest>

#include <thread>
#include <vector>

using namespace KXServerTest;

namespace {

// Sends the head of a whole-file upload that announces `announced` bytes, then only `sent` of them,
// and waits until the server has taken them in. The connection stays open with the socket.
bool sendPart(QTcpSocket& socket, CKXServerProcess& server, const QString& path, qint64 announced,
              qint64 sent)
{
    QUrl base(server.baseUrl());
    socket.connectToHost(base.host(), static_cast<quint16>(base.port()));
    if (!socket.waitForConnected(5000))
        return false;
    socket.write("PUT /v1/files?path=" + path.toUtf8() + " HTTP/1.1\r\nHost: kx\r\n" +
                 server.sessionHeader().first() + "\r\nContent-Length: " + QByteArray::number(announced) +
                 "\r\n\r\n");
    socket.write(QByteArray(int(sent), 's'));
    while (socket.bytesToWrite() > 0 && socket.waitForBytesWritten(5000)) {
    }
    return QTest::qWaitFor([&] { return server.stats().value("file_upload_bytes").toInt() >= sent; }, 20000);
}

} // namespace

class TestKXServerStore : public QObject
{
    Q_OBJECT

private slots:
    void concurrentUploadsOfOneBlock();
    void refusedOrShortBodiesStoreNothing();
    void killDuringUploadKeepsStoreConsistent();
    void rebootDropsOnlyUncommittedBlocks_data();
    void rebootDropsOnlyUncommittedBlocks();
    void abandonedUploadsStayWithinQuotaAndGo();
};

void TestKXServerStore::concurrentUploadsOfOneBlock()
{
    CKXServerProcess server;
    QVERIFY2(server.start(), qPrintable(server.errorString()));
    const Client http(server);
    QByteArray block = randomBytes(kBlock, 50);
    QString hash = sha256Hex(block);
    QJsonObject query = fileOf("/same.bin", {block});
    QString id = http.open(query);
    QVERIFY(server.resetStats());

    constexpr int kClients = 8;
    std::vector<TestHttpReply> replies(kClients);
    std::vector<std::thread> clients;
    for (int i = 0; i < kClients; ++i)
        clients.emplace_back([&, i] { replies[i] = http.putBlock(id, block); });
    for (std::thread& client : clients)
        client.join();
    for (const TestHttpReply& reply : replies)
        QCOMPARE(reply.json().value("hash").toString(), hash);
    QJsonObject stats = server.stats();
    QCOMPARE(stats.value("block_uploads").toInt(), kClients);
    QCOMPARE(stats.value("blocks_stored").toInt(), 1);
    QCOMPARE(stats.value("blocks_deduplicated").toInt(), kClients - 1);
    QCOMPARE(sha256Hex(readFile(server.rootPath() + "/blocks/" + hash.left(2) + "/" + hash.mid(2))), hash);
    QCOMPARE(QDir(server.rootPath() + "/tmp").entryList(QDir::Files).size(), 0);
    query.insert("upload_id", id);
    QCOMPARE(http.post("/v1/upload/commit", query).status, 200);
}

void TestKXServerStore::refusedOrShortBodiesStoreNothing()
{
    CKXServerProcess server;
    QVERIFY2(server.start(), qPrintable(server.errorString()));
    const Client http(server);
    QString id =
        http.open({{"path", "/big.bin"}, {"size", kBlock + 1}, {"hashes", QJsonArray{sha256Hex("x")}}});
    QVERIFY(server.resetStats());

    // A client that waits for "100 Continue" gets the refusal instead, and keeps its body.
    const QString url = http.url("/v1/upload/block?upload_id=" + id + "&hash=" + sha256Hex("x"));
    TestHttpRequest request{"PUT", url, QByteArray(kBlock + 1, 'x'), server.sessionHeader(), QString(), true};
    QCOMPARE(CKXTestHttp::send(request).code(), QStringLiteral("block too large"));
    request.url = http.url("/v1/files?path=/whole.bin");
    request.headers.clear();
    QCOMPARE(CKXTestHttp::send(request).code(), QStringLiteral("Invalid session"));
    request.headers = server.sessionHeader();
    request.url = http.url("/v1/files?path=/a/../whole.bin");
    QCOMPARE(CKXTestHttp::send(request).code(), QStringLiteral("forbidden"));
    QCOMPARE(server.stats().value("bytes_received").toInt(), 0);
    QCOMPARE(server.stats().value("requests").toInt(), 3);

    // A body that ends early leaves nothing under its name, and the name takes a whole one later.
    QTcpSocket socket;
    QVERIFY(sendPart(socket, server, "/short.bin", 9000000, 5000000));
    socket.abort();
    QTRY_COMPARE_WITH_TIMEOUT(server.stats().value("inflight").toInt(), 0, 10000);

    QCOMPARE(http.get("/v1/metadata?path=/short.bin").code(), QStringLiteral("nameentry_not_exist"));
    QByteArray full = randomBytes(9000000, 70);
    QCOMPARE(http.put("/v1/files?path=/short.bin", full).status, 200);
    QCOMPARE(http.get("/v1/files?path=/short.bin").body, full);
}

void TestKXServerStore::killDuringUploadKeepsStoreConsistent()
{
    CKXServerProcess server;
    QVERIFY2(server.start(), qPrintable(server.errorString()));
    const Client http(server);
    QByteArray kept = randomBytes(kBlock, 60) + randomBytes(1234, 61);
    QCOMPARE(http.put("/v1/files?path=/kept.bin", kept).status, 200);
    QList<QByteArray> resumed{randomBytes(kBlock, 62), randomBytes(10, 63)};
    QJsonObject query = fileOf("/resumed.bin", resumed);
    QString id = http.open(query);
    QCOMPARE(http.putBlock(id, resumed[0]).status, 200);

    QTcpSocket doomed;
    QVERIFY(sendPart(doomed, server, "/doomed.bin", 5LL * kBlock, 2LL * kBlock + 1000));
    server.kill9();
    QVERIFY2(server.restart(), qPrintable(server.errorString()));

    QCOMPARE(http.get("/v1/files?path=/kept.bin").body, kept);
    QCOMPARE(http.get("/v1/metadata?path=/doomed.bin").status, 404);
    // kept.bin's two blocks, the resumed block, and what the doomed upload completed: each whole.
    int blockFiles = 0;
    for (QDirIterator it(server.rootPath() + "/blocks", QDir::Files, QDirIterator::Subdirectories);
         it.hasNext(); ++blockFiles) {
        const QFileInfo info(it.next());
        QCOMPARE(sha256Hex(readFile(info.filePath())), info.dir().dirName() + info.fileName());
    }
    QVERIFY(blockFiles >= 3);
    QCOMPARE(QDir(server.rootPath() + "/tmp").entryList(QDir::Files).size(), 0);

    // The upload session outlived the crash: only the missing block is asked for.
    TestHttpReply again = http.post("/v1/upload/hash", query);
    QCOMPARE(again.json().value("upload_id").toString(), id);
    QCOMPARE(needed(again), QStringList{sha256Hex(resumed[1])});
    QCOMPARE(http.putBlock(id, resumed[1]).status, 200);
    query.insert("upload_id", id);
    QCOMPARE(http.post("/v1/upload/commit", query).status, 200);

    // Downloads are sent from mapped block files: one cut short behind the server's back must end
    // that download, never the server (a read past the end of a mapping is a fatal signal).
    const QString first = sha256Hex(kept.left(kBlock));
    QVERIFY(QFile::resize(server.rootPath() + "/blocks/" + first.left(2) + "/" + first.mid(2), kBlock / 2));
    QVERIFY(http.get("/v1/files?path=/kept.bin").body != kept);
    QCOMPARE(http.get("/v1/metadata?path=/kept.bin").status, 200);
    QVERIFY(server.stop());
}

void TestKXServerStore::rebootDropsOnlyUncommittedBlocks_data()
{
    QTest::addColumn<QString>("sync");
    QTest::addColumn<bool>("dropped");
    QTest::newRow("commit") << "commit" << true;
    QTest::newRow("none") << "none" << true;
    // Every block was on disk before it was acknowledged: nothing is suspect after a reboot.
    QTest::newRow("block") << "block" << false;
}

// Blocks acknowledged but never forced out may be torn by a power loss. A server that finds its
// store was last written by another boot drops the blocks no committed file refers to; the
// session then asks for them again, and committed files stay whole.
void TestKXServerStore::rebootDropsOnlyUncommittedBlocks()
{
    QFETCH(QString, sync);
    QFETCH(bool, dropped);
    CKXServerProcess server({"--sync", sync});
    QVERIFY2(server.start(), qPrintable(server.errorString()));
    const Client http(server);
    const QByteArray kept = randomBytes(kBlock, 80) + randomBytes(99, 81);
    QCOMPARE(http.uploadChunked("/kept.bin", {kept.left(kBlock), kept.mid(kBlock)}).status, 200);
    QList<QByteArray> open{randomBytes(kBlock, 82), randomBytes(10, 83)};
    QJsonObject query = fileOf("/open.bin", open);
    QCOMPARE(http.putBlock(http.open(query), open[0]).status, 200);

    server.kill9();
    const QString marker = server.rootPath() + "/unsynced-blocks";
    QCOMPARE(QFile::exists(marker), sync != "block");
    QVERIFY(!QFile::exists(marker) || writeFile(marker, "another-boot"));
    QVERIFY2(server.restart(), qPrintable(server.errorString()));

    QCOMPARE(needed(http.post("/v1/upload/hash", query)),
             dropped ? hashesOf(open) : QStringList{sha256Hex(open[1])});
    QCOMPARE(http.get("/v1/files?path=/kept.bin").body, kept);
    // A clean stop forces everything out and leaves no marker behind.
    QVERIFY(server.stop());
    QVERIFY(!QFile::exists(marker));
}

void TestKXServerStore::abandonedUploadsStayWithinQuotaAndGo()
{
    CKXServerProcess server({"--quota", "20000", "--upload-expiry", "3"});
    QVERIFY2(server.start(), qPrintable(server.errorString()));
    const Client http(server);
    QByteArray kept = randomBytes(4000, 80);
    QByteArray abandoned = randomBytes(9000, 81);
    QByteArray refused = randomBytes(9000, 82);
    QCOMPARE(http.put("/v1/files?path=/kept.bin", kept).status, 200);
    const QString first = http.open(fileOf("/a.bin", {abandoned}));
    const QString second = http.open(fileOf("/b.bin", {refused}));
    const QString again = http.open(fileOf("/k.bin", {kept}));

    // Only blocks the hash query offered are taken, and what open uploads hold counts against the
    // quota: 4000 stored + 9000 held + 9000 more is over 20000.
    QCOMPARE(http.putBlock(first, "not offered").code(), QStringLiteral("bad request"));
    QCOMPARE(http.putBlock(first, abandoned).status, 200);
    QCOMPARE(http.putBlock(again, kept).status, 200);
    QCOMPARE(http.putBlock(second, refused).code(), QStringLiteral("space limit"));
    QCOMPARE(http.post("/v1/upload/hash", fileOf("/c.bin", {refused})).code(), QStringLiteral("space limit"));
    QVERIFY(!http.stored(sha256Hex(refused)));
    QVERIFY(!http.stored(sha256Hex("not offered")));
    // A whole file or an authorisation beyond the room left is refused before a byte is read.
    QVERIFY(server.resetStats());
    TestHttpReply whole = http.put("/v1/files?path=/b.bin", refused);
    QCOMPARE(whole.status, 507);
    QCOMPARE(whole.code(), QStringLiteral("space limit"));
    QCOMPARE(server.stats().value("file_upload_bytes").toInt(), 0);
    QCOMPARE(http.post("/v1/upload/auth", {{"path", "/b.bin"}, {"size", 9000}}).code(),
             QStringLiteral("space limit"));

    // Left idle, the sessions expire; the block only an expired session held goes, the one a file
    // holds stays, and the room is free again.
    QTRY_VERIFY_WITH_TIMEOUT(!http.stored(sha256Hex(abandoned)), 20000);
    QVERIFY(http.stored(sha256Hex(kept)));
    QCOMPARE(http.putBlock(first, abandoned).code(), QStringLiteral("source not found"));
    QCOMPARE(http.get("/v1/files?path=/kept.bin").body, kept);
    QCOMPARE(needed(http.post("/v1/upload/hash", fileOf("/c.bin", {refused}))),
             QStringList{sha256Hex(refused)});
    // Replacing a file frees its own bytes first: 4000 and 17000 more would not fit.
    QCOMPARE(http.put("/v1/files?path=/kept.bin&overwrite=true", QByteArray(17000, 'c')).status, 200);
}

QTEST_GUILESS_MAIN(TestKXServerStore)
#include "tst_KXServerStore.moc"
