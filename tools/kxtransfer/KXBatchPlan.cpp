#include "KXBatchPlan.h"

#include "KXCommandLine.h"
#include "KXRemoteMeta.h"
#include "KXTransferDefine.h"

#include <QDir>
#include <QFileInfo>

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

QString asFolder(QString path)
{
    if (!path.startsWith(QLatin1Char('/'))) {
        path.prepend(QLatin1Char('/'));
    }
    return path.endsWith(QLatin1Char('/')) ? path : path + QLatin1Char('/');
}

// Why a local entry cannot be sent, or "" when it can: a regular file that opens for reading.
// Asking the system rather than the permission bits keeps the answer right for any user.
QString unreadableReason(const QString& path)
{
    const QByteArray name = QFile::encodeName(path);
    struct stat info;
    if (::lstat(name.constData(), &info) != 0) {
        return QString::fromLocal8Bit(std::strerror(errno));
    }
    if (!S_ISREG(info.st_mode)) {
        return QStringLiteral("not a regular file");
    }
    const int fd = ::open(name.constData(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK);
    if (fd < 0) {
        return QString::fromLocal8Bit(std::strerror(errno));
    }
    ::close(fd);
    return QString();
}

KXBatchFailure unreadable(const QString& path, const QString& reason)
{
    return {LocalFileError, path, QStringLiteral("cannot be read: %1").arg(reason)};
}

} // namespace

QString CKXBatchPlanner::treeName(const QString& operand)
{
    QString clean = QDir::cleanPath(operand);
    if (QFileInfo(clean).isRelative() && !operand.startsWith(QLatin1Char('/'))) {
        clean = QDir::cleanPath(QDir::current().absoluteFilePath(clean));
    }
    return clean.mid(clean.lastIndexOf(QLatin1Char('/')) + 1);
}

KXTransferJob CKXBatchPlanner::modelJob(const KXToolOptions& options, bool upload)
{
    KXTransferJob job;
    job.kind = upload ? KXTransferJob::Upload : KXTransferJob::Download;
    job.server = options.server;
    job.overwrite = options.overwrite;
    job.viaLink = options.command.startsWith(QLatin1String("share-"));
    job.password = options.password;
    return job;
}

bool CKXBatchPlanner::plan(const KXToolOptions& options, KXBatchPlan& out)
{
    return options.command.endsWith(QLatin1String("upload")) ? planUpload(options, out)
                                                             : planDownload(options, out);
}

bool CKXBatchPlanner::planUpload(const KXToolOptions& options, KXBatchPlan& out)
{
    KXTransferJob model = modelJob(options, true);
    QString target = options.operands.last();
    if (model.viaLink) {
        CKXCommandLine::splitShareLink(target, model.linkCode, target);
    }
    const QString folder = asFolder(target);
    const QStringList sources = options.operands.mid(0, options.operands.size() - 1);
    // Every operand is checked before the first file moves: a typo must not leave half a batch.
    for (const QString& source : sources) {
        const QFileInfo info(source);
        if (!info.exists()) {
            m_error = QStringLiteral("no such file or folder: %1").arg(source);
            return false;
        }
        if (info.isDir() && !options.recursive) {
            m_error = QStringLiteral("%1 is a folder: give -r to send its tree").arg(source);
            return false;
        }
    }
    for (const QString& source : sources) {
        const QFileInfo info(source);
        if (info.isDir()) {
            walkLocal(info.absoluteFilePath(), folder + treeName(source), model, out);
            continue;
        }
        const QString reason = unreadableReason(info.absoluteFilePath());
        if (!reason.isEmpty()) {
            out.failures.append(unreadable(source, reason));
            continue;
        }
        KXTransferJob job = model;
        job.local = info.absoluteFilePath();
        job.remote = folder + info.fileName();
        out.jobs.append({job, info.size()});
    }
    return true;
}

void CKXBatchPlanner::walkLocal(const QString& dir, const QString& remoteFolder, const KXTransferJob& model,
                                KXBatchPlan& out)
{
    QDir folder(dir);
    if (::access(QFile::encodeName(dir).constData(), R_OK | X_OK) != 0) {
        out.failures.append(unreadable(dir, QString::fromLocal8Bit(std::strerror(errno))));
        return;
    }
    const QFileInfoList entries = folder.entryInfoList(
        QDir::AllEntries | QDir::NoDotAndDotDot | QDir::Hidden | QDir::System, QDir::Name);
    if (entries.isEmpty()) {
        out.notes.append(QStringLiteral("empty folder %1 not created: the server makes folders only as "
                                        "parents of files")
                             .arg(dir));
    }
    for (const QFileInfo& entry : entries) {
        const QString remote = remoteFolder + QLatin1Char('/') + entry.fileName();
        if (entry.isSymLink()) {
            out.notes.append(QStringLiteral("symbolic link %1 not followed").arg(entry.filePath()));
        } else if (entry.isDir()) {
            walkLocal(entry.filePath(), remote, model, out);
        } else if (const QString reason = unreadableReason(entry.filePath()); !reason.isEmpty()) {
            out.failures.append(unreadable(entry.filePath(), reason));
        } else {
            KXTransferJob job = model;
            job.local = entry.filePath();
            job.remote = remote;
            out.jobs.append({job, entry.size()});
        }
    }
}

bool CKXBatchPlanner::planDownload(const KXToolOptions& options, KXBatchPlan& out)
{
    const KXTransferJob model = modelJob(options, false);
    const QString target = options.operands.last();
    const QFileInfo targetInfo(target);
    if (targetInfo.exists() && !targetInfo.isDir()) {
        m_error = QStringLiteral("%1 is a file: several files need a folder to land in").arg(target);
        return false;
    }
    if (!QDir().mkpath(target)) {
        m_error = QStringLiteral("cannot create the folder %1").arg(target);
        return false;
    }
    const QDir localDir(targetInfo.absoluteFilePath());
    const QStringList sources = options.operands.mid(0, options.operands.size() - 1);
    for (const QString& source : sources) {
        KXTransferJob job = model;
        job.remote = source;
        if (model.viaLink) {
            CKXCommandLine::splitShareLink(source, job.linkCode, job.remote);
        }
        // The server takes no empty path component: "/docs/" names the folder "/docs".
        while (job.remote.size() > 1 && job.remote.endsWith(QLatin1Char('/'))) {
            job.remote.chop(1);
        }
        const QString name = job.remote.isEmpty() ? job.linkCode : treeName(job.remote);
        if (options.recursive && !walkRemote(job.remote, localDir.filePath(name), model, out)) {
            return false;
        }
        if (!options.recursive) {
            job.local = localDir.filePath(name);
            out.jobs.append({job, -1});
        }
    }
    return true;
}

bool CKXBatchPlanner::walkRemote(const QString& folder, const QString& localFolder,
                                 const KXTransferJob& model, KXBatchPlan& out)
{
    CKXRemoteMeta meta;
    QList<KXRemoteEntry> entries;
    if (!meta.list(folder, entries)) {
        m_interrupted = meta.interrupted();
        if (m_interrupted) {
            return false;
        }
        if (meta.errorCode() == ConflictWithFile) {
            // A file named where a tree was expected: fetched like any other file.
            KXTransferJob job = model;
            job.remote = folder;
            job.local = localFolder;
            out.jobs.append({job, -1});
        } else {
            out.failures.append({meta.errorCode(), folder, meta.errorMessage()});
        }
        return true;
    }
    if (!QDir().mkpath(localFolder)) {
        out.failures.append({LocalFileError, localFolder, QStringLiteral("cannot create the folder")});
        return true;
    }
    for (const KXRemoteEntry& entry : entries) {
        const QString local = QDir(localFolder).filePath(entry.name());
        if (entry.isDir) {
            if (!walkRemote(entry.path, local, model, out)) {
                return false;
            }
            continue;
        }
        KXTransferJob job = model;
        job.remote = entry.path;
        job.local = local;
        out.jobs.append({job, entry.size});
    }
    return true;
}
