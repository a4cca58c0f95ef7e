// kxtransfer: upload, download and fetch files through the transfer engine; list unfinished
// transfers; run a self-contained demonstration against a private kxserver.

#include "KXBatchPlan.h"
#include "KXBatchRunner.h"
#include "KXCommandLine.h"
#include "KXDemo.h"
#include "KXEngine.h"
#include "KXInterrupt.h"
#include "KXProgressPrinter.h"
#include "KXTaskDatabase.h"
#include "KXTransferDefine.h"
#include "KXTransferRunner.h"

#include <QCoreApplication>

#include <cstdio>
#include <unistd.h>

#ifdef __GLIBC__
#include <malloc.h>
#endif

namespace {

const int kUsageExit = 2;

void printTo(FILE* out, const QString& text)
{
    std::fputs(text.toLocal8Bit().constData(), out);
    std::fflush(out);
}

// Lets the engine go and returns code, or, when a transfer thread is still running (a pause the
// engine did not confirm), leaves at once: tearing the engine down under that thread would crash.
int finish(int code, bool busyThreads)
{
    std::fflush(stdout);
    std::fflush(stderr);
    if (busyThreads) {
        ::_exit(code);
    }
    CKXEngine::shutDown();
    return code;
}

bool isUpload(const KXToolOptions& options)
{
    return options.command.endsWith(QLatin1String("upload"));
}

KXTransferJob jobFor(const KXToolOptions& options)
{
    KXTransferJob job;
    const QString& command = options.command;
    job.kind = isUpload(options)                             ? KXTransferJob::Upload
               : command.endsWith(QLatin1String("download")) ? KXTransferJob::Download
                                                             : KXTransferJob::Url;
    const bool upload = job.kind == KXTransferJob::Upload;
    job.local = upload ? options.operands.at(0) : options.operands.at(1);
    job.remote = upload ? options.operands.at(1) : options.operands.at(0);
    job.server = options.server;
    job.overwrite = options.overwrite;
    job.taskId = options.taskId;
    if (command.startsWith(QLatin1String("share-"))) {
        job.viaLink = true;
        job.password = options.password;
        const QString link = job.remote;
        CKXCommandLine::splitShareLink(link, job.linkCode, job.remote);
    }
    return job;
}

void report(const KXTransferOutcome& outcome, const KXToolOptions& options)
{
    if (outcome.status == KXTransferOutcome::Failed) {
        printTo(stderr, outcome.errorLine() + QLatin1Char('\n'));
        return;
    }
    if (outcome.status == KXTransferOutcome::Paused && !outcome.resumable) {
        printTo(stderr,
                QStringLiteral("interrupted; a plain address is fetched from the start again next time\n"));
        return;
    }
    if (outcome.status == KXTransferOutcome::Paused) {
        const QString again =
            options.taskId.isEmpty()
                ? QStringLiteral("Run the same command again to resume.")
                : QStringLiteral("Run it again with --task-id %1 to resume.").arg(options.taskId);
        printTo(stderr, QStringLiteral("paused at %1 of %2; the transfer's state is kept. %3\n")
                            .arg(CKXProgressPrinter::formatBytes(outcome.doneBytes),
                                 CKXProgressPrinter::formatBytes(outcome.size), again));
        return;
    }
    if (options.quiet) {
        return;
    }
    const double seconds = qMax<qint64>(outcome.elapsedMs, 1) / 1000.0;
    QString line = QStringLiteral("done: %1 -> %2, %3 in %4 s (%5/s)")
                       .arg(isUpload(options) ? outcome.localPath : outcome.remotePath,
                            isUpload(options) ? outcome.remotePath : outcome.localPath,
                            CKXProgressPrinter::formatBytes(outcome.size))
                       .arg(seconds, 0, 'f', 2)
                       .arg(CKXProgressPrinter::formatBytes(static_cast<qint64>(outcome.size / seconds)));
    if (outcome.quick) {
        line += QStringLiteral(", quick transfer: the server already held every block");
    }
    printTo(stdout, line + QLatin1Char('\n'));
}

int runTransfer(const KXToolOptions& options)
{
    CKXEngine::setUp({options.server, options.token, options.jobs, options.limit, options.timeout});
    CKXProgressPrinter printer(CKXProgressPrinter::detect(options.quiet));
    CKXTransferRunner runner(printer);
    const KXTransferOutcome outcome = runner.run(jobFor(options));
    report(outcome, options);
    return finish(outcome.exitCode(), runner.threadsBusy());
}

int runBatch(const KXToolOptions& options)
{
    CKXEngine::setUp({options.server, options.token, options.jobs, options.limit});
    CKXBatchPlanner planner;
    KXBatchPlan plan;
    if (!planner.plan(options, plan)) {
        if (planner.interrupted()) {
            printTo(stderr, QStringLiteral("interrupted while listing; nothing was moved\n"));
            return finish(130, false);
        }
        printTo(stderr,
                QStringLiteral("kxtransfer: %1\n\n%2").arg(planner.errorText(), CKXCommandLine::usageText()));
        return finish(kUsageExit, false);
    }
    CKXProgressPrinter printer(CKXProgressPrinter::detect(options.quiet));
    CKXBatchRunner runner(options, printer);
    const KXBatchSummary summary = runner.run(plan);
    const bool clean = summary.exitCode() == 0;
    if (!clean || !options.quiet) {
        printTo(clean ? stdout : stderr, summary.text() + QLatin1Char('\n'));
    }
    return finish(summary.exitCode(), summary.busy);
}

QString taskRow(const KXStoredTask& task)
{
    QString progress = QStringLiteral("%1 done").arg(CKXProgressPrinter::formatBytes(task.doneBytes));
    if (task.size > 0) {
        progress = QStringLiteral("%1% (%2 / %3)")
                       .arg(qBound<qint64>(0, task.doneBytes * 100 / task.size, 100))
                       .arg(CKXProgressPrinter::formatBytes(task.doneBytes),
                            CKXProgressPrinter::formatBytes(task.size));
    }
    const QString from =
        task.isUpload ? task.localPath : (task.remotePath.isEmpty() ? task.address : task.remotePath);
    const QString to = task.isUpload ? task.remotePath : task.localPath;
    QString row = QStringLiteral("%1  %2  %3  %4  %5 -> %6")
                      .arg(task.id, CKXTaskDatabase::stateName(task.state), progress,
                           task.isUpload ? QStringLiteral("upload") : QStringLiteral("download"), from, to);
    if (task.state & StateError) {
        row += QStringLiteral("\n    last error %1 %2: %3")
                   .arg(task.errorCode)
                   .arg(CKXTransferRunner::codeName(task.errorCode), task.errorInfo);
    }
    return row + QLatin1Char('\n');
}

int listTasks()
{
    CKXTaskDatabase db(CKXTaskDatabase::databaseFile());
    QList<KXStoredTask> tasks;
    QString error;
    if (!db.tasks(tasks, error)) {
        printTo(stderr,
                QStringLiteral("error: cannot read %1: %2\n").arg(CKXTaskDatabase::databaseFile(), error));
        return 1;
    }
    int shown = 0;
    for (const KXStoredTask& task : tasks) {
        if (!(task.state & StateCompleted)) {
            printTo(stdout, taskRow(task));
            ++shown;
        }
    }
    if (shown == 0) {
        printTo(stdout,
                QStringLiteral("no unfinished transfers in %1\n").arg(CKXTaskDatabase::databaseFile()));
    }
    return 0;
}

} // namespace

int main(int argc, char** argv)
{
#ifdef __GLIBC__
    // A chunked transfer runs every block on a thread of its own, and glibc gives threads up to
    // eight malloc arenas per core, each keeping some of what its threads freed: over the
    // thousands of blocks of a large file the process grew by 3.7 MiB between 1 and 16 GiB.
    // The tool's threads allocate little and seldom at once, so two arenas cost no time here
    // and hold that growth to 2 MiB. MALLOC_ARENA_MAX in the environment still decides.
    if (!qEnvironmentVariableIsSet("MALLOC_ARENA_MAX")) {
        mallopt(M_ARENA_MAX, 2);
    }
#endif
    QCoreApplication app(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("kxtransfer"));
    CKXCommandLine commandLine;
    if (!commandLine.parse(app.arguments(), QProcessEnvironment::systemEnvironment())) {
        printTo(
            stderr,
            QStringLiteral("kxtransfer: %1\n\n%2").arg(commandLine.errorText(), CKXCommandLine::usageText()));
        return kUsageExit;
    }
    if (commandLine.helpRequested()) {
        printTo(stdout, CKXCommandLine::usageText() + QLatin1Char('\n') + CKXCommandLine::locationsText());
        return 0;
    }
    CKXInterrupt::install();
    const KXToolOptions& options = commandLine.options();
    if (options.command == QLatin1String("list")) {
        return listTasks();
    }
    if (options.command == QLatin1String("demo")) {
        // The demo sets the engine up and lets it go itself, before its temporary folders go.
        CKXDemo demo(CKXProgressPrinter::detect(options.quiet));
        const int code = demo.run();
        std::fflush(stdout);
        if (demo.threadsBusy()) {
            ::_exit(code);
        }
        return code;
    }
    return options.isBatch() ? runBatch(options) : runTransfer(options);
}
