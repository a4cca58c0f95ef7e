#include "KXBlockStore.h"

#include <cerrno>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

bool makeDir(const std::string& path, std::string* error)
{
    if (::mkdir(path.c_str(), 0755) == 0 || errno == EEXIST) {
        return true;
    }
    *error = "cannot create " + path + ": " + std::strerror(errno);
    return false;
}

void syncDir(const std::string& path)
{
    int fd = ::open(path.c_str(), O_RDONLY | O_DIRECTORY);
    if (fd >= 0) {
        ::fsync(fd);
        ::close(fd);
    }
}

// Temp files are leftovers of uploads cut short by a crash; nothing refers to them.
void emptyDir(const std::string& path)
{
    DIR* dir = ::opendir(path.c_str());
    if (!dir) {
        return;
    }
    while (dirent* entry = ::readdir(dir)) {
        std::string name = entry->d_name;
        if (name != "." && name != "..") {
            ::unlink((path + "/" + name).c_str());
        }
    }
    ::closedir(dir);
}

} // namespace

bool CKXBlockStore::open(const std::string& root, std::string* error)
{
    m_blocksDir = root + "/blocks";
    m_tmpDir = root + "/tmp";
    if (!makeDir(root, error) || !makeDir(m_blocksDir, error) || !makeDir(m_tmpDir, error)) {
        return false;
    }
    emptyDir(m_tmpDir);
    return true;
}

std::string CKXBlockStore::pathOf(const std::string& hash) const
{
    return m_blocksDir + "/" + hash.substr(0, 2) + "/" + hash.substr(2);
}

qint64 CKXBlockStore::sizeOf(const std::string& hash) const
{
    struct stat info;
    if (hash.size() < 3 || ::stat(pathOf(hash).c_str(), &info) != 0) {
        return -1;
    }
    return static_cast<qint64>(info.st_size);
}

bool CKXBlockStore::writeTemp(const std::string& tmpPath, const char* data, size_t size,
                              std::string* error) const
{
    int fd = ::open(tmpPath.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
    if (fd < 0) {
        *error = "cannot create " + tmpPath + ": " + std::strerror(errno);
        return false;
    }
    size_t done = 0;
    while (done < size) {
        ssize_t n = ::write(fd, data + done, size - done);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            break;
        }
        done += static_cast<size_t>(n);
    }
    bool ok = done == size && ::fsync(fd) == 0;
    if (!ok) {
        *error = std::string("cannot write block: ") + std::strerror(errno);
    }
    ::close(fd);
    return ok;
}

CKXBlockStore::PutResult CKXBlockStore::put(const std::string& hash, const char* data, size_t size,
                                            std::string* error)
{
    if (sizeOf(hash) >= 0) {
        return PutResult::AlreadyPresent;
    }
    std::string dir = m_blocksDir + "/" + hash.substr(0, 2);
    if (!makeDir(dir, error)) {
        return PutResult::Failed;
    }
    std::string tmpPath =
        m_tmpDir + "/" + hash + "." + std::to_string(::getpid()) + "." + std::to_string(++m_tmpCounter);
    if (!writeTemp(tmpPath, data, size, error)) {
        ::unlink(tmpPath.c_str());
        return PutResult::Failed;
    }
    // link() never replaces: of two concurrent uploads of one block exactly one is "Stored".
    int rc = ::link(tmpPath.c_str(), pathOf(hash).c_str());
    int linkErrno = errno;
    ::unlink(tmpPath.c_str());
    if (rc != 0 && linkErrno == EEXIST) {
        return PutResult::AlreadyPresent;
    }
    if (rc != 0) {
        *error = std::string("cannot link block: ") + std::strerror(linkErrno);
        return PutResult::Failed;
    }
    syncDir(dir);
    return PutResult::Stored;
}
