// How long Transfer::cancel (or, with --del, Transfer::del) takes while the transfer's request is
// in flight, for every kind of transfer, against kxserver over loopback. Each round starts one
// transfer, waits until kxserver holds its request (a delay fault), times the call, then waits for
// the final callback and for the held request to drain. Prints the median and the worst time per
// kind, and how many rounds the transfer finished before the cancel took hold.
//
//   bench_cancel [rounds per kind (default 100)] [--del]

#include "IKXTransfer.h"
#include "KXServerProcess.h"
#include "ServerApiConfig.h"

#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QHash>
#include <QJsonObject>
#include <QMutex>
#include <QRandomGenerator>
#include <QTemporaryDir>
#include <QUuid>
#include <QWaitCondition>

#include <algorithm>
#include <cstdio>
#include <functional>
#include <vector>

namespace {

const qint64 kWholeSize = 256 * 1024;
const qint64 kChunkedSize = 4194304 + 1024;
const int kHoldMs = 200; // long enough for the call to land while the request is held
const int kFinalWaitMs = 60000;

// Final codes by handle; the callbacks come on the transfers' threads.
QMutex g_mutex;
QWaitCondition g_ended;
QHash<long long, ErrorCode> g_finals; // guarded by g_mutex

void onFinal(long long handle, const SubTaskInfo& task, ErrorCode code)
{
    QMutexLocker locker(&g_mutex);
    g_finals.insert(handle, (task.state & StateCompleted) ? code : ErrorCode(-1));
    g_ended.wakeAll();
}

// NoError when the task completed, -1 when it was stopped, its code when it failed; -2 on time-out.
int waitForFinal(long long handle)
{
    QMutexLocker locker(&g_mutex);
    QElapsedTimer timer;
    timer.start();
    while (!g_finals.contains(handle)) {
        const qint64 left = kFinalWaitMs - timer.elapsed();
        if (left <= 0 || !g_ended.wait(&g_mutex, static_cast<unsigned long>(left))) {
            return g_finals.contains(handle) ? g_finals.value(handle) : -2;
        }
    }
    return g_finals.value(handle);
}

struct Kind
{
    const char* name;
    bool upload;
    bool chunked;
    bool link;
    bool address;
};

const Kind kKinds[] = {
    {"whole upload", true, false, false, false},      {"whole download", false, false, false, false},
    {"chunked upload", true, true, false, false},     {"chunked download", false, true, false, false},
    {"link whole upload", true, false, true, false},  {"link whole download", false, false, true, false},
    {"link chunked upload", true, true, true, false}, {"link chunked download", false, true, true, false},
    {"address download", false, false, false, true},
};

QByteArray randomBytes(qint64 size)
{
    QByteArray data(static_cast<int>(size), Qt::Uninitialized);
    QRandomGenerator random(20261124);
    random.fillRange(reinterpret_cast<quint32*>(data.data()), data.size() / 4);
    return data;
}

bool writeFile(const QString& path, const QByteArray& data)
{
    QFile file(path);
    return file.open(QIODevice::WriteOnly | QIODevice::Truncate) && file.write(data) == data.size();
}

// The bench's world: kxserver, the files on both sides and the share links.
class Bench
{
public:
    bool setUp(const QString& work);
    // Times `rounds` calls for one kind; false when a round went wrong.
    bool run(const Kind& kind, int rounds, bool del);

private:
    SubTaskInfo task(const Kind& kind, int round);
    bool waitUntil(const std::function<bool(const QJsonObject&)>& condition);

    CKXServerProcess m_server;
    QString m_work;
    QString m_uploadCode;
    QString m_downloadCode;
};

bool Bench::setUp(const QString& work)
{
    m_work = work;
    if (!m_server.start()) {
        std::fprintf(stderr, "kxserver: %s\n", qPrintable(m_server.errorString()));
        return false;
    }
    ServerApi::Config config = ServerApi::config();
    config.baseUrl = m_server.baseUrl();
    config.sessionId = m_server.token();
    ServerApi::configure(config);
    Transfer::setConfig(TransferConfigUserPath, QStringLiteral("1"));
    Transfer::setConfig(TransferConfigMaxConcurrentCount, QStringLiteral("4"));

    const QByteArray whole = randomBytes(kWholeSize);
    const QByteArray chunked = randomBytes(kChunkedSize);
    const QList<QByteArray> headers = m_server.sessionHeader();
    for (const auto& file :
         {qMakePair(QStringLiteral("whole.bin"), whole), qMakePair(QStringLiteral("big.bin"), chunked)}) {
        const QString url = m_server.baseUrl() + QStringLiteral("/v1/files?overwrite=true&path=") +
                            CKXTestHttp::encode(QStringLiteral("/bench/") + file.first);
        if (CKXTestHttp::put(url, file.second, headers).status != 200 ||
            !writeFile(m_work + QStringLiteral("/") + file.first, file.second)) {
            std::fprintf(stderr, "cannot place %s\n", qPrintable(file.first));
            return false;
        }
    }
    m_uploadCode = m_server.createShare(QStringLiteral("/shared"), true);
    m_downloadCode = m_server.createShare(QStringLiteral("/bench"), false);
    return !m_uploadCode.isEmpty() && !m_downloadCode.isEmpty();
}

SubTaskInfo Bench::task(const Kind& kind, int round)
{
    const QString name = kind.chunked ? QStringLiteral("big.bin") : QStringLiteral("whole.bin");
    SubTaskInfo task;
    task.taskId = task.subTaskId = QUuid::createUuid().toString();
    task.isUpload = kind.upload;
    task.remoteFile.pathType = QStringLiteral("self");
    task.remoteFile.syncOverwrite = true;
    if (kind.upload) {
        task.localFile.path = m_work + QStringLiteral("/") + name;
        task.localFile.size = kind.chunked ? kChunkedSize : kWholeSize;
        task.remoteFile.path = QStringLiteral("/up/%1-%2").arg(round).arg(name);
    } else {
        const QString folder = m_work + QStringLiteral("/down");
        QDir(folder).removeRecursively();
        QDir().mkpath(folder);
        task.localFile.path = folder + QStringLiteral("/") + name;
        task.remoteFile.path = (kind.link ? QStringLiteral("/") : QStringLiteral("/bench/")) + name;
        task.remoteFile.size = kind.chunked ? kChunkedSize : kWholeSize;
    }
    if (kind.link) {
        task.remoteFile.isDeliveryTrans = true;
        task.remoteFile.delivery.code = kind.upload ? m_uploadCode : m_downloadCode;
    }
    if (kind.address) {
        task.dataServerHost = m_server.baseUrl() + QStringLiteral("/v1/raw/self/bench/") + name +
                              QStringLiteral("?session=") + m_server.token();
    }
    return task;
}

bool Bench::waitUntil(const std::function<bool(const QJsonObject&)>& condition)
{
    QElapsedTimer timer;
    timer.start();
    while (!condition(m_server.stats())) {
        if (timer.elapsed() > kFinalWaitMs) {
            return false;
        }
    }
    return true;
}

double median(std::vector<double> values)
{
    std::sort(values.begin(), values.end());
    const size_t n = values.size();
    return n % 2 != 0 ? values[n / 2] : (values[n / 2 - 1] + values[n / 2]) / 2;
}

bool Bench::run(const Kind& kind, int rounds, bool del)
{
    const QString op = !kind.upload
                           ? QStringLiteral("download")
                           : (kind.chunked ? QStringLiteral("block_upload") : QStringLiteral("file_upload"));
    if (!m_server.armFault({{"op", op}, {"action", "delay"}, {"ms", kHoldMs}, {"count", 1000000}})) {
        return false;
    }
    std::vector<double> ms;
    int finishedFirst = 0;
    for (int round = 0; round < rounds; ++round) {
        if (kind.upload && kind.chunked) {
            // A block the server holds already is not sent again: every round changes the first block.
            QFile file(m_work + QStringLiteral("/big.bin"));
            if (!file.open(QIODevice::ReadWrite) ||
                file.write(QByteArray::number(round).rightJustified(16)) != 16) {
                return false;
            }
        }
        const auto idle = [](const QJsonObject& stats) {
            return stats.value("inflight").toInt() == 0;
        };
        const auto held = [](const QJsonObject& stats) {
            return stats.value("inflight").toInt() > 0;
        };
        const bool isUrl = kind.address;
        const long long handle = Transfer::init(task(kind, round), onFinal, nullptr, isUrl);
        if (handle == 0 || !waitUntil(idle)) {
            return false;
        }
        Transfer::start(handle);
        if (!waitUntil(held)) {
            std::fprintf(stderr, "%s: no request reached the server\n", kind.name);
            return false;
        }
        QElapsedTimer timer;
        timer.start();
        del ? Transfer::del(handle) : Transfer::cancel(handle);
        ms.push_back(timer.nsecsElapsed() / 1e6);
        const int final = waitForFinal(handle);
        if (final == -2) {
            std::fprintf(stderr, "%s: no final callback\n", kind.name);
            return false;
        }
        finishedFirst += final == NoError ? 1 : 0;
    }
    m_server.clearFaults();
    std::printf("| %-21s | %6d | %10.2f | %10.2f | %14d |\n", kind.name, rounds, median(ms),
                *std::max_element(ms.begin(), ms.end()), finishedFirst);
    std::fflush(stdout);
    return true;
}

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    int rounds = 100;
    bool del = false;
    for (int i = 1; i < argc; ++i) {
        if (QByteArray(argv[i]) == "--del") {
            del = true;
        } else if (QByteArray(argv[i]).toInt() > 0) {
            rounds = QByteArray(argv[i]).toInt();
        } else {
            std::fprintf(stderr, "usage: bench_cancel [rounds per kind] [--del]\n");
            return 2;
        }
    }
    // The engine's database and log of this run stay out of the user's own.
    QTemporaryDir home;
    qputenv("XDG_DATA_HOME", home.path().toUtf8() + "/data");
    qputenv("HOME", home.path().toUtf8());
    Bench bench;
    if (!home.isValid() || !bench.setUp(home.path())) {
        return 1;
    }
    std::printf("Transfer::%s while kxserver holds the request (%d ms), %d rounds per kind\n\n",
                del ? "del" : "cancel", kHoldMs, rounds);
    std::printf("| kind                  | rounds | median ms  | worst ms   | finished first |\n");
    std::printf("|-----------------------|-------:|-----------:|-----------:|---------------:|\n");
    bool ok = true;
    for (const Kind& kind : kKinds) {
        ok = bench.run(kind, rounds, del) && ok;
    }
    Transfer::deinit();
    ServerApi::shutdown();
    return ok ? 0 : 1;
}
