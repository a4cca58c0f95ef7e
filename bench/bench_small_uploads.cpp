// Many small whole-file uploads at once through the public API, as a client does when a folder of
// small files is dropped on it: every regular file of DIR goes to REMOTE_FOLDER on the server, all
// tasks started together. Prints the seconds from the first start to the last final callback and
// exits 0 only when every upload succeeded. bench/run sets it against 100 curl PUTs.
//
//   bench_small_uploads SERVER TOKEN DIR REMOTE_FOLDER

#include "IKXTransfer.h"
#include "ServerApiConfig.h"

#include <QAtomicInt>
#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QFileInfo>
#include <QSemaphore>
#include <QTemporaryDir>
#include <QUuid>

#include <cstdio>

namespace {

// Final callbacks arrive on the transfers' own threads.
QSemaphore g_finished;
QAtomicInt g_failed;

void onTaskEnd(long long, const SubTaskInfo& task, ErrorCode code)
{
    if (code != NoError || !(task.state & StateCompleted)) {
        std::fprintf(stderr, "%s: error %d %s\n", qPrintable(task.localFile.path), code, errorCodeName(code));
        g_failed.ref();
    }
    g_finished.release();
}

SubTaskInfo uploadTask(const QFileInfo& local, const QString& remoteFolder)
{
    SubTaskInfo task;
    task.subTaskId = task.taskId = QUuid::createUuid().toString();
    task.isUpload = true;
    task.size = local.size();
    task.localFile.path = local.absoluteFilePath();
    task.localFile.size = local.size();
    task.remoteFile.path = remoteFolder + QLatin1Char('/') + local.fileName();
    task.remoteFile.syncOverwrite = true;
    return task;
}

void configure(const QString& server, const QString& token)
{
    ServerApi::Config config = ServerApi::config();
    config.baseUrl = server;
    config.sessionId = token;
    ServerApi::configure(config);
    Transfer::setConfig(TransferConfigUserPath, QStringLiteral("1"));
}

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    if (argc != 5) {
        std::fprintf(stderr, "usage: bench_small_uploads SERVER TOKEN DIR REMOTE_FOLDER\n");
        return 2;
    }
    const QFileInfoList files = QDir(QString::fromLocal8Bit(argv[3])).entryInfoList(QDir::Files, QDir::Name);
    QString remoteFolder = QString::fromLocal8Bit(argv[4]);
    while (remoteFolder.endsWith(QLatin1Char('/'))) {
        remoteFolder.chop(1);
    }
    if (files.isEmpty()) {
        std::fprintf(stderr, "no files in %s\n", argv[3]);
        return 2;
    }
    // The task database and log of this run stay out of the user's own.
    QTemporaryDir data;
    qputenv("XDG_DATA_HOME", data.path().toUtf8());
    configure(QString::fromLocal8Bit(argv[1]), QString::fromLocal8Bit(argv[2]));

    QElapsedTimer timer;
    timer.start();
    QVector<long long> handles;
    for (const QFileInfo& file : files) {
        handles.append(Transfer::init(uploadTask(file, remoteFolder), onTaskEnd, nullptr));
    }
    int started = 0;
    for (long long handle : handles) {
        if (handle != 0) {
            Transfer::start(handle);
            ++started;
        }
    }
    const bool allEnded = g_finished.tryAcquire(started, 600000);
    const double seconds = timer.nsecsElapsed() / 1e9;
    Transfer::deinit();
    ServerApi::shutdown();
    if (!allEnded) {
        std::fprintf(stderr, "uploads still running after ten minutes\n");
        return 1;
    }
    const int failed = files.size() - started + g_failed.loadRelaxed();
    if (failed != 0) {
        std::fprintf(stderr, "%d of %d uploads failed\n", failed, files.size());
        return 1;
    }
    std::printf("%d uploads in %.3f s\n", files.size(), seconds);
    return 0;
}
