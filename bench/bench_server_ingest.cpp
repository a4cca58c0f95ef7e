// Block-ingest throughput of kxserver: 1, 4 and 8 parallel clients (libcurl, one kept-alive
// connection each) send distinct 4 MiB blocks of one upload session. Prints MiB/s per run.
//   bench_server_ingest [blocks per run, default 32]

#include "KXServerProcess.h"

#include <QCoreApplication>
#include <QCryptographicHash>
#include <QElapsedTimer>
#include <QJsonArray>
#include <QRandomGenerator>

#include <curl/curl.h>

#include <atomic>
#include <cstdio>
#include <thread>
#include <vector>

namespace {

constexpr int kBlock = 4194304;

struct Body
{
    const QByteArray* data;
    qsizetype sent = 0;
};

size_t readBody(char* buffer, size_t size, size_t count, void* user)
{
    auto* body = static_cast<Body*>(user);
    qsizetype n = qMin<qsizetype>(static_cast<qsizetype>(size * count), body->data->size() - body->sent);
    memcpy(buffer, body->data->constData() + body->sent, static_cast<size_t>(n));
    body->sent += n;
    return static_cast<size_t>(n);
}

size_t discard(char*, size_t size, size_t count, void*)
{
    return size * count;
}

// Distinct blocks: one random block whose first bytes carry the block's number.
QByteArray makeBlock(const QByteArray& base, int run, int index)
{
    QByteArray block = base;
    QByteArray tag = QByteArray::number(run) + ":" + QByteArray::number(index) + ":";
    block.replace(0, tag.size(), tag);
    return block;
}

// Sends blocks first, first + step, ...; counts the answers that are not 200.
void sendBlocks(const QString& url, const QByteArray& session, const std::vector<QByteArray>& blocks,
                const std::vector<QByteArray>& hashes, size_t first, size_t step, std::atomic<int>* failures)
{
    CURL* curl = curl_easy_init();
    curl_slist* headers = curl_slist_append(nullptr, session.constData());
    headers = curl_slist_append(headers, "Expect:");
    curl_easy_setopt(curl, CURLOPT_HTTPHEADER, headers);
    curl_easy_setopt(curl, CURLOPT_UPLOAD, 1L);
    curl_easy_setopt(curl, CURLOPT_READFUNCTION, readBody);
    curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, discard);
    curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
    for (size_t i = first; i < blocks.size(); i += step) {
        QByteArray target = (url + QStringLiteral("&hash=")).toUtf8() + hashes[i];
        Body body{&blocks[i]};
        curl_easy_setopt(curl, CURLOPT_URL, target.constData());
        curl_easy_setopt(curl, CURLOPT_READDATA, &body);
        curl_easy_setopt(curl, CURLOPT_INFILESIZE_LARGE, static_cast<curl_off_t>(blocks[i].size()));
        long status = 0;
        if (curl_easy_perform(curl) != CURLE_OK ||
            curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &status) != CURLE_OK || status != 200) {
            ++*failures;
        }
    }
    curl_slist_free_all(headers);
    curl_easy_cleanup(curl);
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
    curl_global_init(CURL_GLOBAL_ALL);
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
