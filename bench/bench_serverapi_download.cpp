// Download throughput of the server-API library against the curl command on the same kxserver
// and file, and the whole-library receive and send limits measured as bytes over time.
//
//   bench_serverapi_download [MiB (default 512)] [limit MiB/s (default 20)]
//
// Prints MiB/s and ratios; exits 1 when a measured limited rate is off by more than 10%.

#include "KXServerProcess.h"
#include "ServerApi.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QFile>
#include <QProcess>
#include <QTemporaryDir>

#include <condition_variable>
#include <cstdio>
#include <mutex>
#include <vector>

namespace {

const double kMiB = 1024.0 * 1024.0;
const QString kRemote = QStringLiteral("/bench/download.bin");

// Completion counting shared with the library thread; the bench thread blocks on it.
class Waiter
{
public:
    ServerApi::ResponseCallback callback()
    {
        return [this](const ResponseData& response) {
            std::lock_guard<std::mutex> lock(m_mutex);
            ++m_done;
            if (response.errorCode != 0 || response.statusCode >= 400) {
                std::fprintf(stderr, "request failed: status %d, error %d %s %s\n", response.statusCode,
                             response.errorCode, qPrintable(response.errorString), qPrintable(response.body));
                ++m_failed;
            }
            m_changed.notify_all();
        };
    }
    // True when `count` requests completed and none failed.
    bool wait(int count)
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        m_changed.wait(lock, [&] { return m_done >= count; });
        return m_failed == 0;
    }

private:
    std::mutex m_mutex; // guards m_done, m_failed
    std::condition_variable m_changed;
    int m_done = 0;
    int m_failed = 0;
};

// Bytes over time as seen by the data or progress callbacks of every transfer together.
class RateMeter
{
public:
    void add(qint64 bytes)
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (!m_clock.isValid())
            m_clock.start();
        m_total += bytes;
        m_samples.push_back({m_clock.nsecsElapsed() / 1e9, m_total});
    }
    // MiB/s between the first sample after `skipSeconds` and the last one, so that the bucket's
    // first burst does not count.
    double steadyRate(double skipSeconds) const
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        for (const Sample& first : m_samples) {
            if (first.seconds < skipSeconds)
                continue;
            const Sample& last = m_samples.back();
            return last.seconds > first.seconds
                       ? (last.bytes - first.bytes) / kMiB / (last.seconds - first.seconds)
                       : 0;
        }
        return 0;
    }

private:
    struct Sample
    {
        double seconds;
        qint64 bytes;
    };
    mutable std::mutex m_mutex; // guards every member
    QElapsedTimer m_clock;
    qint64 m_total = 0;
    std::vector<Sample> m_samples;
};

bool writePatternFile(const QString& path, qint64 size)
{
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate))
        return false;
    QByteArray piece(1 << 20, Qt::Uninitialized);
    for (qint64 left = size, round = 0; left > 0; left -= piece.size(), ++round) {
        for (int i = 0; i < piece.size(); i += 8)
            *reinterpret_cast<qint64*>(piece.data() + i) = round * 1000003 + i;
        if (file.write(piece.constData(), qMin<qint64>(left, piece.size())) < 0)
            return false;
    }
    return true;
}

ServerApi::Config configFor(const CKXServerProcess& server)
{
    ServerApi::Config config;
    config.baseUrl = server.baseUrl();
    config.sessionId = server.token();
    return config;
}

double libraryDownload(qint64 size)
{
    Waiter waiter;
    qint64 received = 0; // written by the library thread only, read after the wait
    KXSeverApiDLRouterModel model;
    model.entry.path = kRemote;
    QElapsedTimer clock;
    clock.start();
    ServerApi::DownloadRouter(
        model, [&](const QByteArray& piece) { received += piece.size(); }, waiter.callback(), nullptr);
    if (!waiter.wait(1) || received != size)
        return 0;
    return size / kMiB / (clock.nsecsElapsed() / 1e9);
}

double curlDownload(const CKXServerProcess& server, qint64 size)
{
    QProcess curl;
    curl.start(QStringLiteral("curl"),
               {"-s", "-o", "/dev/null", "-w", "%{size_download} %{time_total}", "-H",
                "X-ORBALA-SESS-ID: " + server.token(), server.baseUrl() + "/v1/files?path=" + kRemote});
    if (!curl.waitForFinished(-1) || curl.exitCode() != 0)
        return 0;
    const QList<QByteArray> out = curl.readAllStandardOutput().split(' ');
    if (out.size() != 2 || out.at(0).toLongLong() != size)
        return 0;
    return size / kMiB / out.at(1).toDouble();
}

double best(int runs, const std::function<double()>& measure)
{
    double top = 0;
    for (int i = 0; i < runs; ++i)
        top = std::max(top, measure());
    return top;
}

// `transfers` downloads at once under one receive limit; the measured rate of all of them together.
double limitedDownloads(int transfers, qint64 bytesEach)
{
    RateMeter meter;
    Waiter waiter;
    for (int i = 0; i < transfers; ++i) {
        KXSeverApiDLRouterModel model;
        model.entry.path = kRemote;
        model.range = QStringLiteral("bytes=0-%1").arg(bytesEach - 1);
        ServerApi::DownloadRouter(
            model, [&](const QByteArray& piece) { meter.add(piece.size()); }, waiter.callback(), nullptr);
    }
    return waiter.wait(transfers) ? meter.steadyRate(1.0) : 0;
}

// `transfers` whole-file uploads at once under one send limit, measured from their progress.
double limitedUploads(int transfers, const QString& localPath)
{
    RateMeter meter;
    Waiter waiter;
    std::vector<qint64> last(transfers, 0); // each transfer's previous report, library thread only
    for (int i = 0; i < transfers; ++i) {
        KXServerApiUploadFileModel model;
        model.entry.path = QStringLiteral("/bench/up-%1.bin").arg(i);
        model.entry.overwrite = QStringLiteral("true");
        model.localPath = localPath;
        ServerApi::UploadFile(model, waiter.callback(), [&, i](const UploadProgressData& progress) {
            meter.add(progress.bytesSent - last[i]);
            last[i] = progress.bytesSent;
        });
    }
    return waiter.wait(transfers) ? meter.steadyRate(1.0) : 0;
}

bool within(double measured, double limit)
{
    return measured >= limit * 0.9 && measured <= limit * 1.1;
}

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    const qint64 size = qint64(argc > 1 ? QByteArray(argv[1]).toLongLong() : 512) * 1024 * 1024;
    const qint64 limit = argc > 2 ? QByteArray(argv[2]).toLongLong() : 20;

    QTemporaryDir dir;
    CKXServerProcess server;
    if (!dir.isValid() || !server.start()) {
        std::fprintf(stderr, "cannot start kxserver: %s\n", qPrintable(server.errorString()));
        return 2;
    }
    ServerApi::configure(configFor(server));
    const QString local = dir.filePath(QStringLiteral("source.bin"));
    Waiter uploaded;
    KXServerApiUploadFileModel model;
    model.entry.path = kRemote;
    model.localPath = local;
    if (!writePatternFile(local, size)) {
        std::fprintf(stderr, "cannot write %s\n", qPrintable(local));
        return 2;
    }
    ServerApi::UploadFile(model, uploaded.callback(), nullptr);
    if (!uploaded.wait(1)) {
        std::fprintf(stderr, "cannot place the %lld-byte file on the server\n", static_cast<long long>(size));
        return 2;
    }

    const double library = best(3, [&] { return libraryDownload(size); });
    const double curl = best(3, [&] { return curlDownload(server, size); });
    std::printf("download %lld MiB: library %.0f MiB/s, curl %.0f MiB/s, ratio %.2f\n",
                static_cast<long long>(size >> 20), library, curl, curl > 0 ? library / curl : 0);

    ServerApi::Config config = configFor(server);
    config.maxRecvBytesPerSec = limit * 1024 * 1024;
    config.maxSendBytesPerSec = limit * 1024 * 1024;
    ServerApi::configure(config);
    const qint64 limitedBytes = qMin<qint64>(size, limit * 1024 * 1024 * 6);
    const double one = limitedDownloads(1, limitedBytes);
    const double four = limitedDownloads(4, limitedBytes / 4);
    QFile::resize(local, limitedBytes / 2);
    const double sent = limitedUploads(2, local);
    std::printf("receive limit %lld MiB/s: 1 transfer %.2f MiB/s, 4 transfers %.2f MiB/s together\n",
                static_cast<long long>(limit), one, four);
    std::printf("send limit %lld MiB/s: 2 transfers %.2f MiB/s together\n", static_cast<long long>(limit),
                sent);
    ServerApi::shutdown();

    const bool ok = within(one, limit) && within(four, limit) && within(sent, limit);
    std::printf("rate limit within 10%%: %s\n", ok ? "yes" : "NO");
    return ok && library > 0 && curl > 0 ? 0 : 1;
}
