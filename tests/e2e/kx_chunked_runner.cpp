// Runs one chunked task through the public API and reports on stdout, one line each:
//   "started"                 once the task is started
//   "done <code> <state>"     when the final callback came
// The resumption tests kill it with SIGKILL part-way and start it again with the same task; the
// blocks it stored as done meanwhile they read from its database.
//
// kx_chunked_runner --base URL --token T --id SUBTASK --local PATH --remote PATH --size BYTES
//                   [--download] [--concurrency N] [--share CODE [--password P]]
// With --share the task goes through that share link; --remote is then the path inside the share.
// The engine's database goes where XDG_DATA_HOME points.

#include "IKXTransfer.h"
#include "KXE2eTest.h"

#include <QCommandLineParser>
#include <QCoreApplication>

#include <cstdio>

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    QCommandLineParser parser;
    for (const char* name :
         {"base", "token", "id", "local", "remote", "size", "concurrency", "share", "password"}) {
        parser.addOption(QCommandLineOption(name, name, name));
    }
    parser.addOption(QCommandLineOption(QStringLiteral("download")));
    parser.process(app);
    bool sizeOk = false;
    const qint64 size = parser.value(QStringLiteral("size")).toLongLong(&sizeOk);
    const QString id = parser.value(QStringLiteral("id"));
    if (!sizeOk || id.isEmpty()) {
        std::fprintf(stderr, "kx_chunked_runner: --id and a numeric --size are required\n");
        return 2;
    }

    KXChunkedE2e::configureServer(parser.value(QStringLiteral("base")),
                                  parser.value(QStringLiteral("token")));
    Transfer::setConfig(TransferConfigUserPath, QString());
    Transfer::setConfig(TransferConfigMaxConcurrentCount, parser.value(QStringLiteral("concurrency")));
    const QString local = parser.value(QStringLiteral("local"));
    const QString remote = parser.value(QStringLiteral("remote"));
    SubTaskInfo task = parser.isSet(QStringLiteral("download"))
                           ? KXChunkedE2e::downloadTask(id, remote, local, size)
                           : KXChunkedE2e::uploadTask(id, local, remote, size);
    if (parser.isSet(QStringLiteral("share"))) {
        task = KXChunkedE2e::throughLink(task, parser.value(QStringLiteral("share")),
                                         parser.value(QStringLiteral("password")));
    }
    const long long handle = Transfer::init(task, &KXOutcomes::onError, nullptr);
    if (handle == 0) {
        std::fprintf(stderr, "kx_chunked_runner: no transfer for the task\n");
        return 2;
    }
    Transfer::start(handle);

    std::printf("started\n");
    std::fflush(stdout);
    const KXOutcomes::Outcome outcome = KXOutcomes::waitForFinal(id);
    // The final callback comes before the transfer's thread has let go of it: the engine's shutdown
    // waits for that, so that the process never ends under a running thread.
    Transfer::deinit();
    std::printf("done %d %d\n", int(outcome.code), int(outcome.record.state));
    std::fflush(stdout);
    return outcome.code == NoError ? 0 : 1;
}
