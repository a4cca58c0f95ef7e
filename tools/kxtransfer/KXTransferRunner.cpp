#include "KXTransferRunner.h"

#include "IKXTransfer.h"
#include "KXInterrupt.h"
#include "KXJobState.h"
#include "KXLocalReason.h"
#include "KXProgressPrinter.h"
#include "KXRemoteMeta.h"
#include "KXTaskDatabase.h"

#include <QDateTime>
#include <QDir>
#include <QElapsedTimer>
#include <QFileInfo>
#include <QHash>
#include <QMutex>
#include <QUrl>
#include <QUuid>

#include <memory>

namespace {

const int kPollMs = 200;
const int kFinalCallbackWaitMs = 15000;
const int kThreadEndWaitMs = 10000;
const qint32 kTaskSource = 4;

// Engine callbacks are plain functions: they find their job by sub-task id. The registry lock is
// released before the job is called.
QMutex g_registryMutex;
QHash<QString, std::shared_ptr<CKXJobState>> g_jobs;

std::shared_ptr<CKXJobState> findJob(const QString& id)
{
    QMutexLocker locker(&g_registryMutex);
    return g_jobs.value(id);
}

void registerJob(const QString& id, const std::shared_ptr<CKXJobState>& state)
{
    QMutexLocker locker(&g_registryMutex);
    g_jobs.insert(id, state);
}

void unregisterJob(const QString& id)
{
    QMutexLocker locker(&g_registryMutex);
    g_jobs.remove(id);
}

void onEngineError(long long, const SubTaskInfo& task, ErrorCode code)
{
    if (const std::shared_ptr<CKXJobState> state = findJob(task.subTaskId)) {
        state->onFinished(task, code);
    }
}

void onEngineProgress(long long, const SubTaskInfo& task, long long bytes)
{
    if (const std::shared_ptr<CKXJobState> state = findJob(task.subTaskId)) {
        state->onProgress(task, bytes);
    }
}

QString withLeadingSlash(const QString& path)
{
    return path.startsWith(QLatin1Char('/')) ? path : QLatin1Char('/') + path;
}

QString flag(bool value)
{
    return value ? QStringLiteral("1") : QStringLiteral("0");
}

// The stored tasks as this thread reads them. Every file of a batch is looked up before it moves,
// and opening the database costs several times the lookup; a view (a connection) belongs to the
// thread that made it, so each thread keeps its own until it ends.
CKXTaskDatabase& storedTasks()
{
    thread_local std::unique_ptr<CKXTaskDatabase> view;
    const QString file = CKXTaskDatabase::databaseFile();
    if (!view || view->file() != file) {
        view = std::make_unique<CKXTaskDatabase>(file);
    }
    return *view;
}

} // namespace

int KXTransferOutcome::exitCode() const
{
    switch (status) {
    case Done:
        return 0;
    case Paused:
        return 130;
    case Failed:
        break;
    }
    return 1;
}

QString KXTransferOutcome::errorLine() const
{
    return QStringLiteral("error %1 %2: %3").arg(code).arg(CKXTransferRunner::codeName(code), message);
}

CKXTransferRunner::CKXTransferRunner(CKXProgressPrinter& printer) : m_printer(printer) {}

QString CKXTransferRunner::codeName(int code)
{
    const QString name = QLatin1String(errorCodeName(code));
    if (!name.isEmpty()) {
        return name;
    }
    switch (code) {
    case 1001:
        return QStringLiteral("Cancelled");
    case 1002:
        return QStringLiteral("LocalFileChanged");
    case 1003:
        return QStringLiteral("Shutdown");
    case 1004:
        return QStringLiteral("BadArgument");
    case 65535:
        return QStringLiteral("CreateBlocksError");
    default:
        break;
    }
    if (code >= 100 && code <= 599) {
        return QStringLiteral("Http%1").arg(code);
    }
    return code > 0 && code < 100 ? QStringLiteral("TransportError") : QStringLiteral("Unknown");
}

QString CKXTransferRunner::deriveTaskId(const QStringList& parts)
{
    static const QUuid space(QStringLiteral("{6b1d5c2e-4f0a-4c3e-9a55-7d2f8e1b0c94}"));
    return QUuid::createUuidV5(space, parts.join(QLatin1Char('|'))).toString();
}

KXTransferOutcome CKXTransferRunner::run(const KXTransferJob& job)
{
    KXTransferOutcome outcome;
    SubTaskInfo task;
    if (!prepare(job, task, outcome)) {
        return outcome;
    }
    const bool isUrl = job.kind == KXTransferJob::Url;
    discardCompletedRow(task, isUrl);
    execute(task, isUrl, outcome);
    return outcome;
}

bool CKXTransferRunner::prepare(const KXTransferJob& job, SubTaskInfo& task, KXTransferOutcome& outcome)
{
    m_savedAs.clear();
    task.taskSource = static_cast<TaskSource>(kTaskSource);
    task.remoteFile.syncOverwrite = job.overwrite;
    bool ok = true;
    switch (job.kind) {
    case KXTransferJob::Upload:
        ok = prepareUpload(job, task, outcome);
        break;
    case KXTransferJob::Download:
        ok = prepareDownload(job, task, outcome);
        break;
    case KXTransferJob::Url:
        prepareUrl(job, task, outcome);
        break;
    }
    if (ok && job.viaLink) {
        throughLink(job, task);
    }
    if (ok && !job.taskId.isEmpty()) {
        task.subTaskId = job.taskId;
    }
    task.taskId = task.subTaskId;
    outcome.taskId = task.subTaskId;
    outcome.localPath = task.isUpload ? task.localFile.path : m_savedAs;
    outcome.remotePath = job.kind == KXTransferJob::Url ? job.remote
                         : job.viaLink                  ? job.linkCode + task.remoteFile.path
                                                        : task.remoteFile.path;
    outcome.size = task.size;
    return ok;
}

bool CKXTransferRunner::prepareUpload(const KXTransferJob& job, SubTaskInfo& task, KXTransferOutcome& outcome)
{
    const QFileInfo local(job.local);
    outcome.code = LocalFileError;
    if (!local.exists()) {
        outcome.message = QStringLiteral("no such file: %1").arg(job.local);
        return false;
    }
    if (!local.isFile() || !local.isReadable()) {
        outcome.message = QStringLiteral("not a readable file: %1").arg(job.local);
        return false;
    }
    QString remote = withLeadingSlash(job.remote);
    if (remote.endsWith(QLatin1Char('/'))) {
        remote += local.fileName(); // a folder: keep the local name
    }
    const QString mtime = QString::number(local.lastModified().toSecsSinceEpoch());
    task.isUpload = true;
    task.size = local.size();
    task.localFile.path = local.absoluteFilePath();
    task.localFile.size = local.size();
    task.localFile.time = mtime;
    task.remoteFile.path = remote;
    // A changed file is a new task: blocks hashed from the old content must not be committed.
    task.subTaskId = deriveTaskId({QStringLiteral("upload"), task.localFile.path, remote, job.server,
                                   QString::number(task.size), mtime, flag(job.overwrite)});
    outcome.code = 0;
    return true;
}

void CKXTransferRunner::throughLink(const KXTransferJob& job, SubTaskInfo& task)
{
    DeliveryInfo& link = task.remoteFile.delivery;
    task.remoteFile.isDeliveryTrans = true;
    link.code = job.linkCode;
    link.token = job.password;
    link.host = job.server;
    link.overwrite = job.overwrite ? QStringLiteral("true") : QStringLiteral("false");
    task.subTaskId = deriveTaskId({QStringLiteral("share"), job.linkCode, task.subTaskId});
}

bool CKXTransferRunner::prepareDownload(const KXTransferJob& job, SubTaskInfo& task,
                                        KXTransferOutcome& outcome)
{
    // A link to one file names no path inside it.
    const QString remote = job.viaLink && job.remote.isEmpty() ? QString() : withLeadingSlash(job.remote);
    CKXRemoteMeta meta;
    KXRemoteEntry entry;
    KXServerApiDeliveryDataModel link;
    link.code = job.linkCode;
    link.token = job.password;
    link.host = job.server;
    link.path = remote;
    if (!(job.viaLink ? meta.fetchShared(link, entry) : meta.fetch(remote, entry))) {
        outcome.status = meta.interrupted() ? KXTransferOutcome::Paused : KXTransferOutcome::Failed;
        outcome.code = meta.errorCode();
        outcome.message = meta.interrupted() ? QStringLiteral("interrupted") : meta.errorMessage();
        return false;
    }
    if (entry.isDir) {
        outcome.code = ConflictWithFolder;
        outcome.message = QStringLiteral("%1 is a folder, not a file").arg(remote);
        return false;
    }
    QString local = job.local;
    if (local.endsWith(QLatin1Char('/')) || QFileInfo(local).isDir()) {
        const QString name = QFileInfo(remote).fileName();
        local = QDir(local).filePath(name.isEmpty() ? job.linkCode : name);
    }
    task.isUpload = false;
    task.size = entry.size;
    task.remoteFile.path = remote;
    task.remoteFile.size = entry.size;
    task.remoteFile.rev = entry.rev;
    task.localFile.path = QFileInfo(local).absoluteFilePath();
    task.subTaskId = deriveTaskId({QStringLiteral("download"), remote, task.localFile.path, job.server,
                                   QString::number(entry.size), entry.rev, flag(job.overwrite)});
    m_savedAs = job.overwrite ? task.localFile.path : freeName(task.localFile.path);
    return true;
}

QString CKXTransferRunner::freeName(const QString& path)
{
    // The engine keeps an existing file and saves beside it as name(1).ext, name(2).ext, ...
    const QFileInfo info(path);
    if (!info.exists()) {
        return path;
    }
    for (int n = 1;; ++n) {
        const QString candidate =
            QDir(info.absolutePath())
                .filePath(QStringLiteral("%1(%2).%3").arg(info.completeBaseName()).arg(n).arg(info.suffix()));
        if (!QFileInfo::exists(candidate)) {
            return candidate;
        }
    }
}

void CKXTransferRunner::prepareUrl(const KXTransferJob& job, SubTaskInfo& task, KXTransferOutcome&)
{
    QString local = job.local;
    if (local.endsWith(QLatin1Char('/')) || QFileInfo(local).isDir()) {
        const QString name = QUrl(job.remote).fileName();
        local = QDir(local).filePath(name.isEmpty() ? QStringLiteral("download") : name);
    }
    task.isUpload = false;
    task.dataServerHost = job.remote;
    task.remoteFile.isFromUrl = true;
    task.localFile.path = QFileInfo(local).absoluteFilePath();
    task.subTaskId =
        deriveTaskId({QStringLiteral("get"), job.remote, task.localFile.path, flag(job.overwrite)});
    m_savedAs = job.overwrite ? task.localFile.path : freeName(task.localFile.path);
}

void CKXTransferRunner::discardCompletedRow(const SubTaskInfo& task, bool isUrl)
{
    // The engine reports a task whose stored row says complete as done without moving a byte.
    // Such a row is a leftover of an earlier run that ended before it could be cleared; this run
    // must transfer again, so the row goes.
    KXStoredTask stored;
    if (storedTasks().find(task.subTaskId, stored) && (stored.state & StateCompleted)) {
        discardRow(task, isUrl);
    }
}

bool CKXTransferRunner::hasFinishedBlocks(const SubTaskInfo& task)
{
    KXStoredTask stored;
    return storedTasks().find(task.subTaskId, stored) && stored.blocksDone > 0;
}

void CKXTransferRunner::discardRow(const SubTaskInfo& task, bool isUrl)
{
    // Through the public API: a transfer made for the task and deleted unstarted takes its rows.
    const long long handle = Transfer::init(task, nullptr, nullptr, isUrl);
    Transfer::del(handle);
}

void CKXTransferRunner::execute(const SubTaskInfo& task, bool isUrl, KXTransferOutcome& outcome)
{
    outcome.chunked = !isUrl && task.size > CKXTaskDatabase::blockSize();
    outcome.resumable = !isUrl;
    auto state = std::make_shared<CKXJobState>();
    registerJob(task.subTaskId, state);
    const long long handle = Transfer::init(task, onEngineError, onEngineProgress, isUrl);
    if (handle == 0) {
        unregisterJob(task.subTaskId);
        outcome.code = ServerError;
        outcome.message = QStringLiteral("the engine made no transfer for this task");
        return;
    }
    QElapsedTimer clock;
    clock.start();
    m_printer.begin(labelFor(task), task.size);
    Transfer::start(handle);
    if (follow(task, state, outcome)) {
        conclude(task, isUrl, state, outcome);
    } else if (isUrl) {
        abandon(outcome);
    } else {
        pause(handle, state, outcome);
    }
    outcome.elapsedMs = clock.elapsed();
    unregisterJob(task.subTaskId);
}

QString CKXTransferRunner::labelFor(const SubTaskInfo& task)
{
    return QFileInfo(task.isUpload || task.remoteFile.path.isEmpty() ? task.localFile.path
                                                                     : task.remoteFile.path)
        .fileName();
}

bool CKXTransferRunner::follow(const SubTaskInfo& task, const std::shared_ptr<CKXJobState>& state,
                               KXTransferOutcome& outcome)
{
    m_consumedEarly = false;
    while (!state->waitFinished(kPollMs)) {
        qint64 done = state->progressBytes();
        if (outcome.chunked) {
            // Blocks report through the store, not through the progress callback.
            SubTaskInfo info;
            if (Transfer::taskInfo(task.subTaskId, info)) {
                done = qMax(done, info.sendBytes);
                m_consumedEarly = m_consumedEarly || (info.state & StateCompleted);
            }
        }
        outcome.doneBytes = done;
        m_printer.update(done, qMax(task.size, state->knownSize()));
        if (m_sink) {
            m_sink(done, qMax(task.size, state->knownSize()));
        }
        if (CKXInterrupt::requested()) {
            return false;
        }
    }
    return true;
}

void CKXTransferRunner::pause(long long handle, const std::shared_ptr<CKXJobState>& state,
                              KXTransferOutcome& outcome)
{
    m_printer.end();
    Transfer::cancel(handle);
    outcome.status = KXTransferOutcome::Paused;
    outcome.code = 0;
    outcome.message = QStringLiteral("paused");
    if (!state->waitFinished(kFinalCallbackWaitMs)) {
        m_busy = true; // no final word from the engine; its state on disk is what it saved last
        return;
    }
    m_busy = !state->waitThreadDone(kThreadEndWaitMs);
    const SubTaskInfo last = state->finalTask();
    if (state->finalCode() == NoError && (last.state & StateCompleted)) {
        outcome.status = KXTransferOutcome::Done; // it finished before the pause took hold
        outcome.quick = last.isQuickTrans;
    }
}

void CKXTransferRunner::abandon(KXTransferOutcome& outcome)
{
    // A plain-address download cannot be stopped early: the engine's cancel waits until the
    // whole body is in. It would start from byte 0 again anyway, so the tool just leaves; the
    // download's temporary file is rewritten by the next run.
    m_printer.end();
    m_busy = true;
    outcome.status = KXTransferOutcome::Paused;
    outcome.message = QStringLiteral("interrupted");
}

void CKXTransferRunner::conclude(const SubTaskInfo& task, bool isUrl,
                                 const std::shared_ptr<CKXJobState>& state, KXTransferOutcome& outcome)
{
    m_busy = !state->waitThreadDone(kThreadEndWaitMs);
    const SubTaskInfo last = state->finalTask();
    const ErrorCode code = state->finalCode();
    if (code != NoError || !(last.state & StateCompleted)) {
        m_printer.end();
        outcome.status = KXTransferOutcome::Failed;
        outcome.code = code != NoError ? code : ServerError;
        outcome.message = last.errorInfo.isEmpty() ? QStringLiteral("the transfer stopped") : last.errorInfo;
        if (!task.isUpload && code == LocalFileError) {
            outcome.message += QStringLiteral(": ") + CKXLocalReason::describe(task.localFile.path);
        }
        if (!m_busy && !hasFinishedBlocks(task)) {
            discardRow(task, isUrl); // nothing a later run could resume from
        }
        return;
    }
    outcome.status = KXTransferOutcome::Done;
    // A plain address's size is only known from its progress reports.
    outcome.size = qMax<qint64>(last.size, state->progressBytes());
    outcome.doneBytes = outcome.size;
    outcome.quick = last.isQuickTrans;
    // A share link's upload is shown by the link, not by where its owner keeps the file.
    if (!last.newVaultPath.isEmpty() && !last.remoteFile.isDeliveryTrans) {
        outcome.remotePath = last.newVaultPath;
    }
    m_printer.update(outcome.size, outcome.size);
    m_printer.end();
    // Reading a completed task makes the engine forget it and drop its rows.
    SubTaskInfo forgotten;
    Transfer::taskInfo(task.subTaskId, forgotten);
    if (m_consumedEarly && !m_busy) {
        discardCompletedRow(task, isUrl);
    }
}
