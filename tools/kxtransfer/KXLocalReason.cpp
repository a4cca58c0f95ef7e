#include "KXLocalReason.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

namespace {

QString systemText(int error)
{
    return QString::fromLocal8Bit(std::strerror(error));
}

} // namespace

QString CKXLocalReason::describe(const QString& path)
{
    QString reason = folderProblem(path);
    if (reason.isEmpty() && tmpFileHeldElsewhere(path)) {
        reason = QStringLiteral("another download of this target is writing it");
    }
    return reason.isEmpty() ? path : QStringLiteral("%1: %2").arg(path, reason);
}

QString CKXLocalReason::folderProblem(const QString& path)
{
    QFileInfo folder(QFileInfo(path).absolutePath());
    while (!folder.exists() && !folder.isRoot()) {
        folder.setFile(folder.absolutePath());
    }
    if (!folder.isDir()) {
        return systemText(ENOTDIR);
    }
    // access() tells a read-only file system (EROFS) apart from missing permission (EACCES).
    if (::access(QFile::encodeName(folder.absoluteFilePath()).constData(), W_OK) != 0) {
        return systemText(errno);
    }
    return QString();
}

bool CKXLocalReason::tmpFileHeldElsewhere(const QString& path)
{
    const QFileInfo target(path);
    const QStringList pattern{target.fileName() + QStringLiteral(".*.kxtmp")};
    const QFileInfoList tmps = target.absoluteDir().entryInfoList(pattern, QDir::Files | QDir::Hidden);
    for (const QFileInfo& tmp : tmps) {
        const int fd = ::open(QFile::encodeName(tmp.absoluteFilePath()).constData(), O_RDONLY | O_CLOEXEC);
        if (fd < 0) {
            continue;
        }
        const bool held = ::flock(fd, LOCK_EX | LOCK_NB) != 0 && errno == EWOULDBLOCK;
        ::close(fd);
        if (held) {
            return true;
        }
    }
    return false;
}
