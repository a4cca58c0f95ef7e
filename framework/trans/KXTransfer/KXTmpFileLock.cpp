#include "KXTmpFileLock.h"

#include "KXUtil.h"

#include <QFile>

#include <cerrno>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

bool sameFile(int fd, const QByteArray& path)
{
    struct stat held;
    struct stat named;
    return ::fstat(fd, &held) == 0 && ::stat(path.constData(), &named) == 0 && held.st_dev == named.st_dev &&
           held.st_ino == named.st_ino;
}

} // namespace

CKXTmpFileLock::~CKXTmpFileLock()
{
    release();
}

bool CKXTmpFileLock::acquire(const QString& path, int& error)
{
    release();
    const QByteArray native = QFile::encodeName(path);
    // The holder before us may rename its file into place between our open and our lock; then we
    // hold the finished file, not the temporary one, and open the name again.
    for (int round = 0; round < 3; ++round) {
        errno = 0;
        if (!KXUtil::isExist(path) && !KXUtil::createFile(path)) {
            error = errno != 0 ? errno : EIO;
            return false;
        }
        const int fd = ::open(native.constData(), O_RDWR | O_CLOEXEC);
        if (fd < 0) {
            error = errno;
            if (error == ENOENT) {
                continue;
            }
            return false;
        }
        if (::flock(fd, LOCK_EX | LOCK_NB) != 0) {
            error = errno;
            ::close(fd);
            return false;
        }
        if (sameFile(fd, native)) {
            m_fd = fd;
            return true;
        }
        ::close(fd);
    }
    error = EWOULDBLOCK;
    return false;
}

void CKXTmpFileLock::release()
{
    if (m_fd >= 0) {
        ::close(m_fd);
        m_fd = -1;
    }
}
