#include "KXBlockStore.h"

#include <cerrno>
#include <cstring>
#include <ctime>
#include <dirent.h>
#include <fcntl.h>
#include <mutex>
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

bool syncPath(const std::string& path, int flags)
{
    int fd = ::open(path.c_str(), flags | O_CLOEXEC);
    if (fd < 0) {
        return false;
    }
    bool ok = ::fsync(fd) == 0;
    ::close(fd);
    return ok;
}

std::string readSmallFile(const std::string& path)
{
    std::string text;
    int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        return text;
    }
    char buffer[128];
    ssize_t n = ::read(fd, buffer, sizeof buffer);
    if (n > 0) {
        text.assign(buffer, static_cast<size_t>(n));
    }
    ::close(fd);
    return text;
}

// Changes with every boot: what a marker of the same boot names still sits in the page cache.
std::string bootId()
{
    std::string id = readSmallFile("/proc/sys/kernel/random/boot_id");
    while (!id.empty() && (id.back() == '\n' || id.back() == ' ')) {
        id.pop_back();
    }
    return id.empty() ? "unknown" : id;
}

const char kUnsyncedMarker[] = "/unsynced-blocks";

} // namespace

bool CKXBlockStore::open(const std::string& root, std::string* error, ServerOptions::Sync sync)
{
    m_root = root;
    m_sync = sync;
    m_blocksDir = root + "/blocks";
    m_tmpDir = root + "/tmp";
    if (!makeDir(root, error) || !makeDir(m_blocksDir, error) || !makeDir(m_tmpDir, error)) {
        return false;
    }
    emptyDir(m_tmpDir);
    std::string marker = readSmallFile(root + kUnsyncedMarker);
    m_lostUnsynced = !marker.empty() && marker != bootId();
    return m_sync == ServerOptions::Sync::Block || markUnsyncedWrites(error);
}

// Written before the first unsynced block and synced, so that it is on disk whenever such a
// block could be.
bool CKXBlockStore::markUnsyncedWrites(std::string* error)
{
    std::string path = m_root + kUnsyncedMarker;
    std::string tmp = path + ".tmp";
    std::string id = bootId();
    int fd = ::open(tmp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    bool ok =
        fd >= 0 && ::write(fd, id.data(), id.size()) == static_cast<ssize_t>(id.size()) && ::fsync(fd) == 0;
    if (fd >= 0) {
        ::close(fd);
    }
    ok = ok && ::rename(tmp.c_str(), path.c_str()) == 0;
    if (!ok) {
        *error = "cannot write " + path + ": " + std::strerror(errno);
        return false;
    }
    syncDir(m_root);
    return true;
}

void CKXBlockStore::close()
{
    if (m_sync == ServerOptions::Sync::Block) {
        return;
    }
    int fd = ::open(m_root.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd >= 0 && ::syncfs(fd) == 0) {
        ::unlink((m_root + kUnsyncedMarker).c_str());
        ::fsync(fd);
    }
    if (fd >= 0) {
        ::close(fd);
    }
}

void CKXBlockStore::forEachBlock(
    const std::function<void(const std::string&, const std::string&)>& visit) const
{
    DIR* top = ::opendir(m_blocksDir.c_str());
    if (!top) {
        return;
    }
    while (dirent* prefix = ::readdir(top)) {
        std::string head = prefix->d_name;
        if (head.size() != 2) {
            continue;
        }
        std::string dirPath = m_blocksDir + "/" + head;
        DIR* dir = ::opendir(dirPath.c_str());
        while (dir && (prefix = ::readdir(dir))) {
            std::string tail = prefix->d_name;
            if (tail != "." && tail != "..") {
                visit(head + tail, dirPath + "/" + tail);
            }
        }
        if (dir) {
            ::closedir(dir);
        }
    }
    ::closedir(top);
}

int CKXBlockStore::dropBlocksExcept(const std::set<std::string>& keep)
{
    int dropped = 0;
    forEachBlock([&](const std::string& hash, const std::string& path) {
        if (!keep.count(hash) && ::unlink(path.c_str()) == 0) {
            ++dropped;
        }
    });
    return dropped;
}

int CKXBlockStore::collect(const std::set<std::string>& keep, qint64 idleSeconds)
{
    auto idle = [idleSeconds](const std::string& path) {
        struct stat info;
        return ::stat(path.c_str(), &info) == 0 && info.st_mtime < std::time(nullptr) - idleSeconds;
    };
    int collected = 0;
    forEachBlock([&](const std::string& hash, const std::string& path) {
        if (keep.count(hash) || !idle(path)) {
            return;
        }
        // Looked at again under the lock: a put() may have taken the block up meanwhile.
        std::unique_lock<std::shared_mutex> lock(m_collecting);
        if (idle(path) && ::unlink(path.c_str()) == 0) {
            ++collected;
        }
    });
    return collected;
}

bool CKXBlockStore::makeDurable(const std::vector<BlockRef>& blocks, std::string* error) const
{
    if (m_sync != ServerOptions::Sync::Commit) {
        return true;
    }
    std::set<std::string> hashes;
    std::set<std::string> dirs;
    for (const BlockRef& block : blocks) {
        if (block.hash.size() > 2 && hashes.insert(block.hash).second) {
            dirs.insert(m_blocksDir + "/" + block.hash.substr(0, 2));
        }
    }
    for (const std::string& hash : hashes) {
        if (!syncPath(pathOf(hash), O_RDONLY)) {
            *error = "cannot sync block " + hash + ": " + std::strerror(errno);
            return false;
        }
    }
    for (const std::string& dir : dirs) {
        if (!syncPath(dir, O_RDONLY | O_DIRECTORY)) {
            *error = "cannot sync " + dir + ": " + std::strerror(errno);
            return false;
        }
    }
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
    bool ok = done == size;
    if (ok && m_sync == ServerOptions::Sync::Block) {
        ok = ::fsync(fd) == 0;
    } else if (ok && m_sync == ServerOptions::Sync::Commit) {
        // Write-back starts now, so that forcing the file's blocks out at its commit finds most
        // of them already on disk; nothing waits for it here.
        ::sync_file_range(fd, 0, 0, SYNC_FILE_RANGE_WRITE);
    }
    if (!ok) {
        *error = std::string("cannot write block: ") + std::strerror(errno);
    }
    ::close(fd);
    return ok;
}

// A block linked anew carries the time it was written, so only one that was there already needs
// marking, under the lock that collect() takes between its last look and the removal.
bool CKXBlockStore::markInUse(const std::string& hash)
{
    std::shared_lock<std::shared_mutex> lock(m_collecting);
    return sizeOf(hash) >= 0 && ::utimensat(AT_FDCWD, pathOf(hash).c_str(), nullptr, 0) == 0;
}

CKXBlockStore::PutResult CKXBlockStore::put(const std::string& hash, const char* data, size_t size,
                                            std::string* error)
{
    if (markInUse(hash)) {
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
    if (m_sync == ServerOptions::Sync::Block) {
        syncDir(dir);
    }
    return PutResult::Stored;
}
