#include "KXUtil.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QStandardPaths>

#include <openssl/evp.h>

// Header only: nothing more to load at run time.
#define XXH_INLINE_ALL
#include <xxhash.h>

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <memory>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

namespace {

// Raw path bytes as the operating system wants them.
QByteArray nativePath(const QString& path)
{
    return QFile::encodeName(path);
}

bool ensureParentFolder(const QString& path)
{
    const QString parent = QFileInfo(path).absolutePath();
    return QDir().mkpath(parent);
}

// ---- moving across filesystems -------------------------------------------------------------------

class Fd
{
public:
    explicit Fd(int fd = -1) : m_fd(fd) {}
    ~Fd()
    {
        if (m_fd >= 0) {
            ::close(m_fd);
        }
    }
    Fd(const Fd&) = delete;
    Fd& operator=(const Fd&) = delete;
    int get() const { return m_fd; }
    // Closes now and reports whether the kernel accepted the close (delayed write errors show here).
    bool close()
    {
        const int fd = m_fd;
        m_fd = -1;
        return fd < 0 || ::close(fd) == 0;
    }

private:
    int m_fd;
};

bool copyContent(int from, int to)
{
    char buffer[1 << 16];
    for (;;) {
        const ssize_t n = ::read(from, buffer, sizeof buffer);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n < 0) {
            return false;
        }
        if (n == 0) {
            return true;
        }
        if (!KXUtil::writeAll(to, buffer, n)) {
            return false;
        }
    }
}

// The rename of the temporary file is only durable once the folder entry itself is on disk.
void syncFolderOf(const QByteArray& path)
{
    const QByteArray folder = nativePath(QFileInfo(QFile::decodeName(path)).absolutePath());
    Fd dir(::open(folder.constData(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (dir.get() >= 0) {
        ::fsync(dir.get());
    }
}

// Fills a fresh temporary file beside `dst` and renames it over `dst`, so that a reader of `dst`
// sees either the old file or the complete new one. `src` is left alone.
bool copyIntoPlace(const QByteArray& src, const QByteArray& dst, mode_t mode)
{
    Fd in(::open(src.constData(), O_RDONLY | O_CLOEXEC));
    if (in.get() < 0) {
        return false;
    }
    QByteArray tmpl = dst + ".kxmove-XXXXXX";
    Fd out(::mkostemp(tmpl.data(), O_CLOEXEC));
    if (out.get() < 0) {
        return false;
    }
    const bool written =
        copyContent(in.get(), out.get()) && ::fchmod(out.get(), mode & 07777) == 0 && ::fsync(out.get()) == 0;
    if (!out.close() || !written || ::rename(tmpl.constData(), dst.constData()) != 0) {
        ::unlink(tmpl.constData());
        return false;
    }
    syncFolderOf(dst);
    return true;
}

// ---- reversible text protection ------------------------------------------------------------------

const char kProtectedPrefix[] = "kx1.";
const int kChecksumSize = 4;
const QByteArray::Base64Options kBase64 = QByteArray::Base64UrlEncoding | QByteArray::OmitTrailingEquals;
const unsigned char kMask[] = {0x5a, 0xc3, 0x17, 0x8e, 0x64, 0xb9, 0x2d, 0xf0,
                               0x39, 0xa6, 0x71, 0x0b, 0xd4, 0x4f, 0x92, 0xe8};

QByteArray sha256Bytes(const QByteArray& data)
{
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    if (EVP_Digest(data.constData(), static_cast<size_t>(data.size()), digest, &length, EVP_sha256(),
                   nullptr) != 1) {
        return QByteArray();
    }
    return QByteArray(reinterpret_cast<const char*>(digest), static_cast<int>(length));
}

// The mask also depends on the position, so that repeated characters do not show as a pattern.
QByteArray applyMask(QByteArray bytes)
{
    for (int i = 0; i < bytes.size(); ++i) {
        const auto mask = static_cast<unsigned char>(kMask[i % sizeof kMask] ^ (i * 37));
        bytes[i] = static_cast<char>(static_cast<unsigned char>(bytes[i]) ^ mask);
    }
    return bytes;
}

QByteArray checksumOf(const QByteArray& utf8)
{
    return sha256Bytes(utf8).left(kChecksumSize);
}

} // namespace

namespace KXUtil {

bool writeAll(int fd, const char* data, qint64 size)
{
    while (size > 0) {
        const ssize_t n = ::write(fd, data, static_cast<size_t>(size));
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            return false;
        }
        data += n;
        size -= n;
    }
    return true;
}

QString getUserPath(const QString& module)
{
    return getDataPath() + module + QLatin1Char('/');
}

QString getDataPath()
{
    return QStandardPaths::writableLocation(QStandardPaths::GenericDataLocation) + QLatin1Char('/');
}

bool isExist(const std::string& utf8Path)
{
    return isExist(QString::fromStdString(utf8Path));
}

bool isExist(const QString& path)
{
    return !path.isEmpty() && QFileInfo::exists(path);
}

bool createFile(const QString& path)
{
    if (path.isEmpty() || !ensureParentFolder(path)) {
        return false;
    }
    // O_CREAT without O_TRUNC: an existing file keeps its content.
    Fd fd(::open(nativePath(path).constData(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644));
    return fd.get() >= 0 && fd.close();
}

bool removeFile(const QString& path)
{
    if (path.isEmpty()) {
        return false;
    }
    // unlink refuses folders, which is what we want: this removes files only.
    return ::unlink(nativePath(path).constData()) == 0 || errno == ENOENT;
}

bool moveFile(const QString& src, const QString& dst)
{
    if (src.isEmpty() || dst.isEmpty()) {
        return false;
    }
    const QByteArray from = nativePath(src);
    const QByteArray to = nativePath(dst);
    struct stat info;
    if (::stat(from.constData(), &info) != 0 || !S_ISREG(info.st_mode) || !ensureParentFolder(dst)) {
        return false;
    }
    if (::rename(from.constData(), to.constData()) == 0) {
        return true;
    }
    if (errno != EXDEV || !copyIntoPlace(from, to, info.st_mode)) {
        return false;
    }
    // The copy is complete at its destination; a source that cannot be removed now is a stale
    // duplicate, not a lost file, so the move still counts as done.
    ::unlink(from.constData());
    return true;
}

QString tmpFile(const QString& path)
{
    return path + QStringLiteral(".kxtmp");
}

QString tmpFile(const QString& path, const QString& owner)
{
    const QString tag = QString::fromLatin1(sha256Bytes(owner.toUtf8()).toHex().left(12));
    return path + QLatin1Char('.') + tag + QStringLiteral(".kxtmp");
}

QString fileName(const QString& path)
{
    return QFileInfo(path).fileName();
}

QString SHA256(const QByteArray& data)
{
    return QString::fromLatin1(sha256Bytes(data).toHex());
}

bool openEmpty(QFile& file)
{
    if (!file.open(QIODevice::ReadWrite | QIODevice::Unbuffered)) {
        return false;
    }
    if (file.size() > 0 && !file.resize(0)) {
        file.close();
        return false;
    }
    return true;
}

namespace {

// Feeds the next `length` bytes of `device` to `add` a piece at a time; false when it gives fewer.
template <typename Add> bool readPieces(QIODevice* device, qint64 length, Add add)
{
    // Small enough to stay in the processor's cache between the read and the hash.
    constexpr qint64 kPiece = kStreamBufferBytes;
    QByteArray piece(static_cast<int>(std::min(kPiece, std::max<qint64>(length, 1))), Qt::Uninitialized);
    for (qint64 left = length; left > 0;) {
        const qint64 got = device->read(piece.data(), std::min<qint64>(left, piece.size()));
        if (got <= 0) {
            return false;
        }
        add(piece.constData(), got);
        left -= got;
    }
    return true;
}

const QLatin1String kFingerprintPrefix("xxh3:");

} // namespace

QString SHA256(QIODevice* device, qint64 length)
{
    Sha256Stream hash;
    const bool whole =
        readPieces(device, length, [&hash](const char* data, qint64 size) { hash.add(data, size); });
    return whole ? hash.hex() : QString();
}

struct Fingerprint::State
{
    XXH3_state_t state;
};

Fingerprint::Fingerprint() : m_state(new State)
{
    XXH3_64bits_reset(&m_state->state);
}

Fingerprint::~Fingerprint()
{
    delete m_state;
}

void Fingerprint::add(const char* data, qint64 size)
{
    XXH3_64bits_update(&m_state->state, data, static_cast<size_t>(size));
}

QString Fingerprint::text() const
{
    return kFingerprintPrefix +
           QStringLiteral("%1").arg(quint64(XXH3_64bits_digest(&m_state->state)), 16, 16, QLatin1Char('0'));
}

QString fingerprint(QIODevice* device, qint64 length)
{
    Fingerprint print;
    const bool whole =
        readPieces(device, length, [&print](const char* data, qint64 size) { print.add(data, size); });
    return whole ? print.text() : QString();
}

bool isFingerprint(const QString& text)
{
    return text.startsWith(kFingerprintPrefix);
}

struct Sha256Stream::Context
{
    std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)> md{EVP_MD_CTX_new(), &EVP_MD_CTX_free};
    bool ok = md && EVP_DigestInit_ex(md.get(), EVP_sha256(), nullptr) == 1;
};

Sha256Stream::Sha256Stream() : m_context(new Context) {}

Sha256Stream::~Sha256Stream()
{
    delete m_context;
}

void Sha256Stream::add(const char* data, qint64 size)
{
    m_context->ok =
        m_context->ok && EVP_DigestUpdate(m_context->md.get(), data, static_cast<size_t>(size)) == 1;
}

QString Sha256Stream::hex()
{
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int size = 0;
    if (!m_context->ok || EVP_DigestFinal_ex(m_context->md.get(), digest, &size) != 1) {
        m_context->ok = false;
        return QString();
    }
    m_context->ok = false; // ended: a later add() or hex() gives nothing
    return QString::fromLatin1(
        QByteArray(reinterpret_cast<const char*>(digest), static_cast<int>(size)).toHex());
}

qint64 GetDiskAvailableBytes(const QString& path)
{
    if (path.isEmpty()) {
        return -1;
    }
    QString probe = QDir::cleanPath(QFileInfo(path).absoluteFilePath());
    while (!QFileInfo::exists(probe)) {
        const QString parent = QFileInfo(probe).path();
        if (parent == probe) {
            return -1;
        }
        probe = parent;
    }
    struct statvfs fs;
    if (::statvfs(nativePath(probe).constData(), &fs) != 0 || (fs.f_flag & ST_RDONLY) != 0) {
        return -1;
    }
    return static_cast<qint64>(fs.f_bavail) * static_cast<qint64>(fs.f_frsize);
}

QString simpleEncrypt(const QString& text)
{
    const QByteArray utf8 = text.toUtf8();
    const QByteArray masked = applyMask(checksumOf(utf8) + utf8);
    return QLatin1String(kProtectedPrefix) + QString::fromLatin1(masked.toBase64(kBase64));
}

QString simpleDecrypt(const QString& text)
{
    if (!text.startsWith(QLatin1String(kProtectedPrefix))) {
        return QString();
    }
    const QByteArray body = text.mid(static_cast<int>(sizeof kProtectedPrefix) - 1).toLatin1();
    const auto decoded =
        QByteArray::fromBase64Encoding(body, kBase64 | QByteArray::AbortOnBase64DecodingErrors);
    // Only the one spelling simpleEncrypt produces is accepted, so that no altered character
    // (say, in the unused low bits of the last one) slips through.
    if (!decoded || decoded.decoded.size() < kChecksumSize || decoded.decoded.toBase64(kBase64) != body) {
        return QString();
    }
    const QByteArray plain = applyMask(decoded.decoded);
    const QByteArray utf8 = plain.mid(kChecksumSize);
    if (plain.left(kChecksumSize) != checksumOf(utf8)) {
        return QString();
    }
    return QString::fromUtf8(utf8);
}

} // namespace KXUtil
