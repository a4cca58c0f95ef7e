// Block-ingest throughput of kxserver: 1, 4 and 8 parallel clients (one kept-alive test HTTP
// session each) send distinct 4 MiB blocks of one upload session. Prints MiB/s per run.
//   bench_server_ingest [blocks per run, default 32]

#include "KXServerProcess.h"

#include <QCoreApplication>
#include <QCryptographicHash>
#include <QElapsedTimer>
#include <QJsonArray>
#include <QRandomGenerator>

#include <atomic>
#include <cstdio>
#include <thread>
#include <vector>

namespace {

constexpr int kBlock = 4194304;

// Distinct blocks: one random block whose first bytes carry the block's number.
QByteArray makeBlock(const QByteArray& base, int run, int index)
{
    QByteArray block = base;
    QByteArray tag = QByteArray::number(run) + ":" + QByteArray::number(index) + ":";
    block.replace(0, tag.size(), tag);
    return block;
}

// Sends blocks first, first + step, ...; counts the answers that are not 200.
void sendBlocks(const QString& url, const QByteArray& sessionHeader, const std::vector<QByteArray>& blocks,
                const std::vector<QByteArray>& hashes, size_t first, size_t step, std::atomic<int>* failures)
{
    CKXTestHttpSession session;
    for (size_t i = first; i < blocks.size(); i += step) {
        TestHttpRequest request;
        request.method = "PUT";
        request.url = url + QStringLiteral("&hash=") + QString::fromLatin1(hashes[i]);
        request.body = blocks[i];
        request.headers = {sessionHeader};
        if (session.send(request).status != 200) {
            ++*failures;
        }
    }
}

bool runOnce(CKXServerProcess& server, const QByteArray& base, int clients, int count)
{
    std::vector<QByteArray> blocks;
    std::vector<QByteArray> hashes;
    QJsonArray offered;
    for (int i = 0; i < count; ++i) {
        blocks.push_back(makeBlock(base, clients, i));
        hashes.push_back(QCryptographicHash::hash(blocks.back(), QCryptographicHash::Sha256).toHex());
        offered.append(QString::fromLatin1(hashes.back()));
    }
    QString path = QStringLiteral("/bench/%1-clients.bin").arg(clients);
    QJsonObject query{{"path", path}, {"size", double(count) * kBlock}, {"hashes", offered}};
    TestHttpReply answer =
        CKXTestHttp::post(server.baseUrl() + "/v1/upload/hash", query, server.sessionHeader());
    QString uploadId = answer.json().value("upload_id").toString();
    if (uploadId.isEmpty()) {
        std::fprintf(stderr, "hash query failed: %d %s\n", answer.status, answer.body.constData());
        return false;
    }
    QString url = server.baseUrl() + "/v1/upload/block?upload_id=" + uploadId;
    std::atomic<int> failures{0};
    QElapsedTimer timer;
    timer.start();
    std::vector<std::thread> threads;
    for (int c = 0; c < clients; ++c) {
        threads.emplace_back(sendBlocks, url, server.sessionHeader().first(), std::cref(blocks),
                             std::cref(hashes), static_cast<size_t>(c), static_cast<size_t>(clients),
                             &failures);
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    double seconds = timer.nsecsElapsed() / 1e9;
    double mib = count * 4.0;
    std::printf("clients=%d blocks=%d MiB=%.0f seconds=%.3f MiB/s=%.1f failures=%d\n", clients, count, mib,
                seconds, mib / seconds, failures.load());
    std::fflush(stdout);
    return failures.load() == 0;
}

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    int count = argc > 1 ? std::atoi(argv[1]) : 32;
    if (count < 1) {
        std::fprintf(stderr, "usage: bench_server_ingest [blocks per run]\n");
        return 2;
    }
    CKXServerProcess server;
    if (!server.start()) {
        std::fprintf(stderr, "%s\n", qPrintable(server.errorString()));
        return 1;
    }
    QByteArray base(kBlock, Qt::Uninitialized);
    QRandomGenerator generator(4242);
    generator.fillRange(reinterpret_cast<quint32*>(base.data()), kBlock / 4);
    bool ok = true;
    for (int clients : {1, 4, 8}) {
        ok = runOnce(server, base, clients, count) && ok;
    }
    QJsonObject stats = server.stats();
    std::printf("server: block_uploads=%d blocks_stored=%d inflight_max=%d\n",
                stats.value("block_uploads").toInt(), stats.value("blocks_stored").toInt(),
                stats.value("inflight_max").toInt());
    return ok ? 0 : 1;
}
