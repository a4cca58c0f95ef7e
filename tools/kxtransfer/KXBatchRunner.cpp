#include "KXBatchRunner.h"

#include "KXBatchPlan.h"
#include "KXCommandLine.h"
#include "KXInterrupt.h"
#include "KXProgressPrinter.h"
#include "KXRemoteMeta.h"
#include "KXTransferDefine.h"
#include "KXTransferRunner.h"

#include <QDateTime>
#include <QDir>
#include <QElapsedTimer>
#include <QFileInfo>
#include <QThreadPool>

#include <mutex>
#include <utility>

namespace {

const int kDrawMs = 200;

void printLines(const QStringList& lines)
{
    for (const QString& line : lines) {
        std::fputs((line + QLatin1Char('\n')).toLocal8Bit().constData(), stderr);
    }
    std::fflush(stderr);
}

qint64 mtimeOf(const QFileInfo& info)
{
    return info.lastModified().toSecsSinceEpoch();
}

// The path a failure names: where the file comes from.
QString sourceOf(const KXTransferJob& job)
{
    if (job.kind == KXTransferJob::Upload) {
        return job.local;
    }
    return job.viaLink ? job.linkCode + job.remote : job.remote;
}

} // namespace

int KXBatchSummary::exitCode() const
{
    if (paused > 0) {
        return 130;
    }
    return failed > 0 ? 1 : 0;
}

QString KXBatchSummary::text() const
{
    const double seconds = qMax<qint64>(elapsedMs, 1) / 1000.0;
    QString line = QStringLiteral("sent %1 of %2 files (%3) in %4 s, skipped %5 already there, failed %6")
                       .arg(sent)
                       .arg(total)
                       .arg(CKXProgressPrinter::formatBytes(bytes))
                       .arg(seconds, 0, 'f', 2)
                       .arg(skipped)
                       .arg(failed);
    if (paused > 0) {
        line += QStringLiteral(", paused %1. Run the same command again to resume.").arg(paused);
    }
    return line;
}

CKXBatchRunner::CKXBatchRunner(const KXToolOptions& options, CKXProgressPrinter& printer)
    : m_options(options), m_printer(printer)
{}

QString CKXBatchRunner::errorLine(const KXBatchFailure& failure)
{
    return QStringLiteral("error %1 %2: %3: %4")
        .arg(failure.code)
        .arg(CKXTransferRunner::codeName(failure.code), failure.path, failure.message);
}

bool CKXBatchRunner::alreadyThere(qint64 targetSize, qint64 targetTime, qint64 sourceSize, qint64 sourceTime)
{
    if (targetSize != sourceSize) {
        return false;
    }
    return targetTime == 0 || sourceTime == 0 || targetTime >= sourceTime;
}

KXBatchSummary CKXBatchRunner::run(const KXBatchPlan& plan)
{
    QElapsedTimer clock;
    clock.start();
    m_summary = KXBatchSummary();
    m_summary.total = plan.jobs.size() + plan.failures.size();
    m_summary.failed = plan.failures.size();
    m_settled = 0;
    m_slots.fill(Slot(), plan.jobs.size());
    qint64 bytes = 0;
    for (int i = 0; i < plan.jobs.size(); ++i) {
        m_slots[i].total = qMax<qint64>(plan.jobs.at(i).size, 0);
        bytes += m_slots.at(i).total;
    }
    if (m_printer.mode() != CKXProgressPrinter::Quiet) {
        printLines(plan.notes);
    }
    for (const KXBatchFailure& failure : plan.failures) {
        m_lines.append(errorLine(failure));
    }
    QThreadPool pool;
    pool.setMaxThreadCount(m_options.transfers);
    m_printer.begin(QStringLiteral("%1/%2 files").arg(plan.failures.size()).arg(m_summary.total), bytes);
    for (int i = 0; i < plan.jobs.size(); ++i) {
        pool.start([this, i, &plan]() { carry(i, plan.jobs.at(i)); });
    }
    follow(plan);
    pool.waitForDone();
    m_printer.end();
    m_summary.elapsedMs = clock.elapsed();
    return m_summary;
}

void CKXBatchRunner::follow(const KXBatchPlan& plan)
{
    QMutexLocker locker(&m_mutex);
    for (;;) {
        const QStringList lines = std::exchange(m_lines, QStringList());
        const int settled = m_settled;
        locker.unlock();
        if (!lines.isEmpty()) {
            m_printer.end(); // the failure goes below the summary line, not into it
            printLines(lines);
        }
        drawProgress(settled);
        locker.relock();
        if (m_settled == plan.jobs.size() && m_lines.isEmpty()) {
            return;
        }
        m_changed.wait(&m_mutex, kDrawMs);
    }
}

void CKXBatchRunner::drawProgress(int settled)
{
    qint64 done = 0;
    qint64 total = 0;
    {
        QMutexLocker locker(&m_mutex);
        for (const Slot& slot : qAsConst(m_slots)) {
            done += slot.done;
            total += slot.total;
        }
    }
    const int failedEarly = m_summary.total - m_slots.size();
    m_printer.rename(QStringLiteral("%1/%2 files").arg(settled + failedEarly).arg(m_summary.total));
    m_printer.update(done, total);
}

void CKXBatchRunner::carry(int index, const KXBatchJob& item)
{
    if (CKXInterrupt::requested()) {
        settle(index, Paused, QString(), false);
        return;
    }
    bool interrupted = false;
    if (targetHolds(item, interrupted) || interrupted) {
        settle(index, interrupted ? Paused : Skipped, QString(), false);
        return;
    }
    if (item.job.kind == KXTransferJob::Download) {
        QDir().mkpath(QFileInfo(item.job.local).absolutePath());
    }
    CKXProgressPrinter silent(CKXProgressPrinter::Quiet);
    CKXTransferRunner runner(silent);
    runner.setProgressSink([this, index](qint64 done, qint64 total) {
        QMutexLocker locker(&m_mutex);
        m_slots[index] = {done, qMax(total, m_slots.at(index).total)};
    });
    const KXTransferOutcome outcome = runner.run(item.job);
    if (outcome.status == KXTransferOutcome::Done) {
        QMutexLocker locker(&m_mutex);
        m_slots[index] = {outcome.size, outcome.size};
        m_summary.bytes += outcome.size;
    }
    const Result result = outcome.status == KXTransferOutcome::Done     ? Sent
                          : outcome.status == KXTransferOutcome::Paused ? Paused
                                                                        : Failed;
    const QString line =
        result == Failed ? errorLine({outcome.code, sourceOf(item.job), outcome.message}) : QString();
    settle(index, result, line, runner.threadsBusy());
}

// A target folder of uploads as the server listed it. Asking about each file of a tree cost one
// request per file, a third of the requests of an upload of small files; one listing per folder
// answers the same question. A folder that cannot be listed (it is a file, the listing failed) is
// not `usable`, and its files are asked about one by one as before.
struct CKXBatchRunner::RemoteFolder
{
    std::once_flag listed;
    bool usable = false;
    bool interrupted = false;
    QHash<QString, KXRemoteEntry> entries; // by name
};

std::shared_ptr<CKXBatchRunner::RemoteFolder> CKXBatchRunner::remoteFolder(const QString& folder)
{
    std::shared_ptr<RemoteFolder> listing;
    {
        QMutexLocker locker(&m_mutex);
        std::shared_ptr<RemoteFolder>& slot = m_remoteFolders[folder];
        if (!slot) {
            slot = std::make_shared<RemoteFolder>();
        }
        listing = slot;
    }
    // The first job lists the folder; the others of the same folder wait for its answer.
    std::call_once(listing->listed, [&folder, &listing] {
        CKXRemoteMeta meta;
        QList<KXRemoteEntry> entries;
        const bool listed = meta.list(folder, entries);
        listing->interrupted = meta.interrupted();
        // A folder that does not exist yet holds nothing.
        listing->usable = listed || (!listing->interrupted && meta.errorCode() == SourceNotFound);
        for (const KXRemoteEntry& entry : entries) {
            listing->entries.insert(entry.name(), entry);
        }
    });
    return listing;
}

bool CKXBatchRunner::targetHolds(const KXBatchJob& item, bool& interrupted)
{
    const KXTransferJob& job = item.job;
    const bool upload = job.kind == KXTransferJob::Upload;
    const QFileInfo local(job.local);
    if (!upload && !local.exists()) {
        return false; // nothing to compare: no question to the server
    }
    if (upload && !job.viaLink) {
        const int slash = job.remote.lastIndexOf(QLatin1Char('/'));
        const std::shared_ptr<RemoteFolder> folder =
            remoteFolder(slash <= 0 ? QStringLiteral("/") : job.remote.left(slash));
        interrupted = folder->interrupted;
        if (interrupted) {
            return false;
        }
        if (folder->usable) {
            const auto remote = folder->entries.constFind(job.remote.mid(slash + 1));
            return remote != folder->entries.constEnd() && !remote->isDir && local.isFile() &&
                   alreadyThere(remote->size, remote->modified, local.size(), mtimeOf(local));
        }
    }
    KXServerApiDeliveryDataModel link;
    link.code = job.linkCode;
    link.token = job.password;
    link.host = job.server;
    link.path = job.remote;
    CKXRemoteMeta meta;
    KXRemoteEntry remote;
    const bool found = job.viaLink ? meta.fetchShared(link, remote) : meta.fetch(job.remote, remote);
    interrupted = meta.interrupted();
    if (!found || remote.isDir || !local.isFile()) {
        return false;
    }
    return upload ? alreadyThere(remote.size, remote.modified, local.size(), mtimeOf(local))
                  : alreadyThere(local.size(), mtimeOf(local), remote.size, remote.modified);
}

void CKXBatchRunner::settle(int index, Result result, const QString& line, bool busy)
{
    QMutexLocker locker(&m_mutex);
    switch (result) {
    case Sent:
        ++m_summary.sent;
        break;
    case Skipped:
        ++m_summary.skipped;
        m_slots[index].done = m_slots.at(index).total;
        break;
    case Failed:
        ++m_summary.failed;
        m_lines.append(line);
        break;
    case Paused:
        ++m_summary.paused;
        break;
    }
    m_summary.busy = m_summary.busy || busy;
    ++m_settled;
    m_changed.wakeAll();
}
