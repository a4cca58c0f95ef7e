// Chunked transfers of one large file over loopback with kxserver: a fresh upload, a quick upload
// (the same content under another name: no block is sent again) and a download, each as MiB/s
// with the client's peak resident memory, and as ratios to what the machine does without the
// engine: curl moving the same file to and from nginx, and openssl hashing it.
//
//   bench_chunked [MiB (default 1024)] [blocks in flight (default 4)]

#include "IKXTransfer.h"
#include "KXServerDriver.h"
#include "ServerApi.h"

#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QMap>
#include <QMutex>
#include <QProcess>
#include <QRandomGenerator>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <QThread>
#include <QUuid>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>

namespace {

const QString kToken = QStringLiteral("bench-token");

QMutex g_doneMutex;
QMap<QString, ErrorCode> g_done; // guarded by g_doneMutex

void onTaskEnd(long long, const SubTaskInfo& record, ErrorCode code)
{
    QMutexLocker locker(&g_doneMutex);
    g_done.insert(record.subTaskId, code);
}

double peakRssMiB()
{
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return usage.ru_maxrss / 1024.0; // KiB on Linux
}

bool writeRandomFile(const QString& path, qint64 size)
{
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate)) {
        return false;
    }
    QRandomGenerator random(20240521);
    QByteArray piece(1 << 20, Qt::Uninitialized);
    for (qint64 left = size; left > 0; left -= piece.size()) {
        random.fillRange(reinterpret_cast<quint32*>(piece.data()), piece.size() / 4);
        if (file.write(piece.constData(), qMin<qint64>(left, piece.size())) < 0) {
            return false;
        }
    }
    return true;
}

// Seconds a command took, or a negative value when it failed.
double timedRun(const QString& program, const QStringList& args)
{
    QProcess process;
    process.setProcessChannelMode(QProcess::ForwardedErrorChannel);
    process.setStandardOutputFile(QProcess::nullDevice());
    QElapsedTimer timer;
    timer.start();
    process.start(program, args);
    if (!process.waitForFinished(-1) || process.exitStatus() != QProcess::NormalExit ||
        process.exitCode() != 0) {
        std::fprintf(stderr, "%s failed\n", qPrintable(program));
        return -1;
    }
    return timer.nsecsElapsed() / 1e9;
}

// A loopback port nobody listens on at the moment of asking.
quint16 freePort()
{
    const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof(address);
    quint16 port = 0;
    if (::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0 &&
        ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) == 0) {
        port = ntohs(address.sin_port);
    }
    ::close(fd);
    return port;
}

bool portAnswers(quint16 port)
{
    const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(port);
    const bool answered = ::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0;
    ::close(fd);
    return answered;
}

// A throwaway nginx serving `root` with PUT allowed, from its own prefix. Returns its port, or 0.
quint16 startNginx(QProcess& process, const QString& prefix, const QString& root)
{
    QString nginx = QStandardPaths::findExecutable(QStringLiteral("nginx"), {QStringLiteral("/usr/sbin")});
    if (nginx.isEmpty()) {
        nginx = QStandardPaths::findExecutable(QStringLiteral("nginx"));
    }
    const quint16 port = freePort();
    QString conf = QStringLiteral("worker_processes 1; pid %1/nginx.pid; error_log %1/error.log;\n"
                                  "events { worker_connections 64; }\n"
                                  "http { access_log off; client_body_temp_path %1/body; sendfile on;\n"
                                  "  server { listen 127.0.0.1:%3; root %2;\n"
                                  "    location / { dav_methods PUT; client_max_body_size 0; } } }\n")
                       .arg(prefix, root)
                       .arg(port);
    if (::getuid() == 0) {
        conf.prepend(QStringLiteral("user root;\n")); // workers must read a private temp folder
    }
    QFile file(prefix + QStringLiteral("/nginx.conf"));
    if (nginx.isEmpty() || !file.open(QIODevice::WriteOnly) || file.write(conf.toUtf8()) < 0) {
        return 0;
    }
    file.close();
    process.start(nginx, {QStringLiteral("-p"), prefix, QStringLiteral("-c"), file.fileName(),
                          QStringLiteral("-g"), QStringLiteral("daemon off;")});
    for (int i = 0; i < 250 && process.state() != QProcess::NotRunning; ++i) {
        if (portAnswers(port)) {
            return port;
        }
        QThread::msleep(20);
    }
    return 0;
}

// Runs one task to its end through the public API; returns seconds, or a negative value on failure.
double runTask(const SubTaskInfo& task)
{
    QElapsedTimer timer;
    timer.start();
    const long long handle = Transfer::init(task, onTaskEnd, nullptr);
    if (handle == 0) {
        return -1;
    }
    Transfer::start(handle);
    for (;;) {
        {
            QMutexLocker locker(&g_doneMutex);
            if (g_done.contains(task.subTaskId)) {
                return g_done.value(task.subTaskId) == NoError ? timer.nsecsElapsed() / 1e9 : -1;
            }
        }
        QThread::msleep(2);
    }
}

SubTaskInfo chunkedTask(bool upload, const QString& local, const QString& remote, qint64 size)
{
    SubTaskInfo task;
    task.subTaskId = QUuid::createUuid().toString();
    task.isUpload = upload;
    task.size = size;
    task.localFile.path = local;
    task.localFile.size = upload ? size : 0;
    task.remoteFile.path = remote;
    task.remoteFile.size = size;
    task.remoteFile.syncOverwrite = true;
    return task;
}

void printRate(const char* what, double seconds, double mib)
{
    std::printf("%-30s %8.2f s %9.1f MiB/s\n", what, seconds, mib / seconds);
}

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    const qint64 mib = argc > 1 ? QByteArray(argv[1]).toLongLong() : 1024;
    const QString concurrency = argc > 2 ? QString::fromLatin1(argv[2]) : QStringLiteral("4");
    const qint64 size = mib * 1024 * 1024;
    QTemporaryDir work;
    qputenv("XDG_DATA_HOME", (work.path() + QStringLiteral("/xdg")).toUtf8());
    const QString source = work.path() + QStringLiteral("/source.bin");
    QDir(work.path()).mkpath(QStringLiteral("nginx/root"));
    QDir(work.path()).mkpath(QStringLiteral("kxserver"));
    if (size <= 4194304 || !writeRandomFile(source, size)) {
        std::fprintf(stderr, "cannot write a test file of %lld MiB (more than 4 MiB needed)\n",
                     static_cast<long long>(mib));
        return 1;
    }

    CKXServerDriver server;
    KXServerLaunch launch;
    launch.binary = QStringLiteral(KX_BIN_DIR "/kxserver");
    launch.root = work.path() + QStringLiteral("/kxserver");
    launch.token = kToken;
    QString error;
    const QString base = server.start(launch, error) ? server.baseUrl() : error;
    QProcess nginx;
    const quint16 nginxPort = startNginx(nginx, work.path() + QStringLiteral("/nginx"),
                                         work.path() + QStringLiteral("/nginx/root"));
    if (!server.isRunning() || nginxPort == 0) {
        std::fprintf(stderr, "kxserver (%s) or nginx did not start\n", qPrintable(base));
        return 1;
    }
    const QString nginxUrl = QStringLiteral("http://127.0.0.1:%1/source.bin").arg(nginxPort);

    std::printf("file %lld MiB (%lld blocks), %s blocks in flight, kxserver %s\n",
                static_cast<long long>(mib), static_cast<long long>((size + 4194303) / 4194304),
                qPrintable(concurrency), qPrintable(base));
    const double hash =
        timedRun(QStringLiteral("openssl"), {QStringLiteral("dgst"), QStringLiteral("-sha256"), source});
    const double put =
        timedRun(QStringLiteral("curl"), {QStringLiteral("-sf"), QStringLiteral("-T"), source, nginxUrl});
    const double get =
        timedRun(QStringLiteral("curl"), {QStringLiteral("-sf"), QStringLiteral("-o"),
                                          work.path() + QStringLiteral("/curl.bin"), nginxUrl});
    printRate("openssl dgst -sha256", hash, mib);
    printRate("curl PUT to nginx", put, mib);
    printRate("curl GET from nginx", get, mib);

    ServerApi::Config config = ServerApi::config();
    config.baseUrl = base;
    config.sessionId = kToken;
    ServerApi::configure(config);
    Transfer::setConfig(TransferConfigUserPath, QString());
    Transfer::setConfig(TransferConfigMaxConcurrentCount, concurrency);

    const double fresh = runTask(chunkedTask(true, source, QStringLiteral("/bench/fresh.bin"), size));
    const double freshPeak = peakRssMiB();
    const double quick = runTask(chunkedTask(true, source, QStringLiteral("/bench/quick.bin"), size));
    const double quickPeak = peakRssMiB();
    const double down = runTask(chunkedTask(false, work.path() + QStringLiteral("/down.bin"),
                                            QStringLiteral("/bench/fresh.bin"), size));
    const double downPeak = peakRssMiB();
    if (fresh < 0 || quick < 0 || down < 0) {
        std::fprintf(stderr, "a chunked transfer failed\n");
        return 1;
    }
    printRate("chunked upload, fresh", fresh, mib);
    std::printf("%-30s %.2fx curl PUT, %.2fx openssl hashing, peak RSS %.1f MiB\n", "", put / fresh,
                hash / fresh, freshPeak);
    printRate("chunked upload, quick", quick, mib);
    std::printf("%-30s %.2fx curl PUT, %.2fx openssl hashing, peak RSS %.1f MiB\n", "", put / quick,
                hash / quick, quickPeak);
    printRate("chunked download", down, mib);
    std::printf("%-30s %.2fx curl GET, peak RSS %.1f MiB\n", "", get / down, downPeak);

    server.stop();
    nginx.terminate();
    if (!nginx.waitForFinished(30000)) {
        nginx.kill();
        nginx.waitForFinished();
    }
    return 0;
}
