#include "QtKXLogger.h"

#include "KXUtil.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QThread>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <fcntl.h>
#include <map>
#include <memory>
#include <mutex>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>
#if defined(__linux__)
#include <sys/syscall.h>
#endif

namespace {

using Clock = std::chrono::steady_clock;

const qint64 kDefaultMaxBytes = 10 * 1024 * 1024;
const int kDefaultKeepFiles = 5;
// Lines wait in memory until this much has gathered, an error or fatal line arrives, or a line
// comes more than kFlushInterval after the last write: cheap debug logging, fresh files.
const int kBufferLimit = 64 * 1024;
const auto kFlushInterval = std::chrono::seconds(1);

// One open log file. Shared by the registry and by writers that looked it up, so that a destroy()
// racing with a write never frees the object under the writer; after close() writes are ignored.
class LogFile
{
public:
    explicit LogFile(const QString& path) : m_path(path) { m_buffer.reserve(kBufferLimit); }

    bool open();
    void close();
    void setRotation(qint64 maxBytes, int keepFiles);
    void append(const QByteArray& line, bool flushNow);
    void flush();

    std::atomic<int> level{QtKXLogger::LevelDebug};

private:
    bool openLocked();
    void flushLocked();
    void rotateLocked();
    QByteArray rotatedName(int index) const
    {
        return QFile::encodeName(m_path + QLatin1Char('.') + QString::number(index));
    }

    const QString m_path;
    std::mutex m_mutex; // guards every member below
    int m_fd = -1;
    QByteArray m_buffer; // whole lines not yet handed to the operating system
    qint64 m_size = 0;   // bytes in the file plus bytes in m_buffer
    qint64 m_maxBytes = kDefaultMaxBytes;
    int m_keepFiles = kDefaultKeepFiles;
    Clock::time_point m_lastFlush = Clock::now();
};

bool LogFile::open()
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_fd >= 0 || openLocked();
}

bool LogFile::openLocked()
{
    if (!QDir().mkpath(QFileInfo(m_path).absolutePath())) {
        return false;
    }
    const QByteArray name = QFile::encodeName(m_path);
    m_fd = ::open(name.constData(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    struct stat info;
    m_size = (m_fd >= 0 && ::fstat(m_fd, &info) == 0) ? info.st_size : 0;
    return m_fd >= 0;
}

void LogFile::close()
{
    std::lock_guard<std::mutex> lock(m_mutex);
    flushLocked();
    if (m_fd >= 0) {
        ::close(m_fd);
        m_fd = -1;
    }
}

void LogFile::setRotation(qint64 maxBytes, int keepFiles)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    m_maxBytes = maxBytes;
    m_keepFiles = qMax(0, keepFiles);
}

void LogFile::flush()
{
    std::lock_guard<std::mutex> lock(m_mutex);
    flushLocked();
}

void LogFile::append(const QByteArray& line, bool flushNow)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    if (m_fd < 0) {
        return;
    }
    if (m_maxBytes > 0 && m_size > 0 && m_size + line.size() > m_maxBytes) {
        rotateLocked();
        if (m_fd < 0) {
            return;
        }
    }
    // Copied, not shared: the buffer keeps its reserved block instead of adopting the caller's.
    m_buffer.append(line.constData(), line.size());
    m_size += line.size();
    if (flushNow || m_buffer.size() >= kBufferLimit || Clock::now() - m_lastFlush >= kFlushInterval) {
        flushLocked();
    }
}

// The buffer holds whole lines only, and goes out in one write on an O_APPEND descriptor, so that
// lines are never split, not even between processes sharing the file.
void LogFile::flushLocked()
{
    if (m_fd >= 0 && !m_buffer.isEmpty() && !KXUtil::writeAll(m_fd, m_buffer.constData(), m_buffer.size())) {
        // The disk refuses the lines (full, gone); holding them would only grow memory without end.
        m_size -= m_buffer.size();
    }
    m_buffer.resize(0);
    m_lastFlush = Clock::now();
}

void LogFile::rotateLocked()
{
    flushLocked();
    ::close(m_fd);
    m_fd = -1;
    const QByteArray current = QFile::encodeName(m_path);
    if (m_keepFiles == 0) {
        ::unlink(current.constData());
    } else {
        // rename replaces its target: .N is overwritten by .N-1, which drops the oldest file.
        for (int i = m_keepFiles - 1; i >= 1; --i) {
            ::rename(rotatedName(i).constData(), rotatedName(i + 1).constData());
        }
        ::rename(current.constData(), rotatedName(1).constData());
    }
    openLocked();
}

// Handles and the paths they stand for. Handles are never reused, so a stale handle held by a
// caller after destroy() can never reach a later file.
class Registry
{
public:
    int create(const QString& path);
    std::shared_ptr<LogFile> find(int handle);
    std::shared_ptr<LogFile> take(int handle);
    void flushAll();

private:
    std::mutex m_mutex; // guards m_files, m_handleOfPath, m_nextHandle
    std::map<int, std::shared_ptr<LogFile>> m_files;
    std::map<QString, int> m_handleOfPath;
    int m_nextHandle = 1;
};

int Registry::create(const QString& path)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    const auto known = m_handleOfPath.find(path);
    if (known != m_handleOfPath.end()) {
        return known->second;
    }
    const int handle = m_nextHandle++;
    m_files.emplace(handle, std::make_shared<LogFile>(path));
    m_handleOfPath.emplace(path, handle);
    return handle;
}

std::shared_ptr<LogFile> Registry::find(int handle)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    const auto it = m_files.find(handle);
    return it == m_files.end() ? nullptr : it->second;
}

std::shared_ptr<LogFile> Registry::take(int handle)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    const auto it = m_files.find(handle);
    if (it == m_files.end()) {
        return nullptr;
    }
    std::shared_ptr<LogFile> file = it->second;
    m_files.erase(it);
    for (auto p = m_handleOfPath.begin(); p != m_handleOfPath.end(); ++p) {
        if (p->second == handle) {
            m_handleOfPath.erase(p);
            break;
        }
    }
    return file;
}

void Registry::flushAll()
{
    std::vector<std::shared_ptr<LogFile>> files;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        for (const auto& entry : m_files) {
            files.push_back(entry.second);
        }
    }
    for (const auto& file : files) {
        file->flush();
    }
}

// Never destroyed: loggers are called from other static destructors until the very end. Buffered
// lines are written by an exit handler instead.
Registry& registry()
{
    static Registry* instance = [] {
        auto* created = new Registry;
        std::atexit([] { registry().flushAll(); });
        return created;
    }();
    return *instance;
}

qint64 currentThreadNumber()
{
#if defined(__linux__)
    thread_local const qint64 id = static_cast<qint64>(::syscall(SYS_gettid));
#else
    thread_local const qint64 id =
        static_cast<qint64>(reinterpret_cast<quintptr>(QThread::currentThreadId()));
#endif
    return id;
}

const char* levelName(int level)
{
    switch (level) {
    case QtKXLogger::LevelDebug:
        return "DEBUG";
    case QtKXLogger::LevelInformation:
        return "INFO";
    case QtKXLogger::LevelError:
        return "ERROR";
    default:
        return "FATAL";
    }
}

// "2026-11-21 22:57:17.123 [FATAL] [tid 12345] " in local time.
QByteArray linePrefix(int level)
{
    const auto now = std::chrono::system_clock::now();
    const std::time_t seconds = std::chrono::system_clock::to_time_t(now);
    const auto millis =
        std::chrono::duration_cast<std::chrono::milliseconds>(now.time_since_epoch()).count() % 1000;
    std::tm local{};
    localtime_r(&seconds, &local);
    char text[96];
    const size_t used = std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &local);
    std::snprintf(text + used, sizeof text - used, ".%03d [%s] [tid %lld] ", static_cast<int>(millis),
                  levelName(level), static_cast<long long>(currentThreadNumber()));
    return QByteArray(text);
}

// One entry is one line: embedded line breaks are written as the two characters "\n" / "\r".
QByteArray formatLine(int level, const QString& text)
{
    QByteArray body = text.toUtf8();
    // replace() builds a matcher on every call; nearly no line holds a break.
    if (body.contains('\n') || body.contains('\r')) {
        body.replace('\r', "\\r").replace('\n', "\\n");
    }
    return linePrefix(level) + body + '\n';
}

void write(int handle, QtKXLogger::Level level, const QString& text)
{
    const std::shared_ptr<LogFile> file = registry().find(handle);
    if (!file || level < file->level.load(std::memory_order_relaxed)) {
        return;
    }
    file->append(formatLine(level, text), level >= QtKXLogger::LevelError);
}

QString normalisedPath(const QString& path)
{
    return QDir::cleanPath(QFileInfo(path).absoluteFilePath());
}

} // namespace

namespace QtKXLogger {

int create(const QString& path)
{
    if (path.isEmpty()) {
        return 0;
    }
    return registry().create(normalisedPath(path));
}

bool init(int handle)
{
    const std::shared_ptr<LogFile> file = registry().find(handle);
    return file && file->open();
}

void setLevel(int handle, Level level)
{
    if (const std::shared_ptr<LogFile> file = registry().find(handle)) {
        file->level.store(level, std::memory_order_relaxed);
    }
}

void setRotation(int handle, qint64 maxBytes, int keepFiles)
{
    if (const std::shared_ptr<LogFile> file = registry().find(handle)) {
        file->setRotation(maxBytes, keepFiles);
    }
}

void debug(int handle, const QString& text)
{
    write(handle, LevelDebug, text);
}

void information(int handle, const QString& text)
{
    write(handle, LevelInformation, text);
}

void error(int handle, const QString& text)
{
    write(handle, LevelError, text);
}

void fatal(int handle, const QString& text)
{
    write(handle, LevelFatal, text);
}

void destroy(int handle)
{
    if (const std::shared_ptr<LogFile> file = registry().take(handle)) {
        file->close();
    }
}

} // namespace QtKXLogger
