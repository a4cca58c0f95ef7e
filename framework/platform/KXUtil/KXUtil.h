#pragma once

// File, path, hash and free-space helpers shared by the engine and its tools.
// Every function is thread-safe and reports failure through its return value; nothing throws.

#include "kxutil_export.h"

#include <QByteArray>
#include <QFile>
#include <QIODevice>
#include <QString>

#include <string>

namespace KXUtil {

// The size of the buffers that a file's bytes pass through on their way out (hashing, sending).
// They are made and freed for every block and request, so they stay under glibc's 128 KiB mmap
// threshold: freeing one above it makes malloc raise the threshold and keep such buffers in the
// arena of whichever thread made them, and over the thousands of blocks of a large upload the
// arenas then hold ever more freed memory (7.9 MiB in 12 arenas after 16 GiB, 2.8 after 1 GiB).
constexpr qint64 kStreamBufferBytes = 120 * 1024;

// Absolute per-user data folder of `module` (for "Transfer": the folder that holds transfer.db),
// ending with a '/'. Follows QStandardPaths::GenericDataLocation, so XDG_DATA_HOME redirects it.
// The folder is not created.
KXUTIL_EXPORT QString getUserPath(const QString& module);

// Absolute per-user data folder of the application suite, ending with a '/'. Not created.
KXUTIL_EXPORT QString getDataPath();

// Whether a file or folder exists at the path (given as UTF-8 bytes or as text).
KXUTIL_EXPORT bool isExist(const std::string& utf8Path);
KXUTIL_EXPORT bool isExist(const QString& path);

// Creates an empty file (its parent folders too). An existing file is left as it is.
// Returns false when the file cannot be had.
KXUTIL_EXPORT bool createFile(const QString& path);

// Removes a file (never a folder). Returns true when no file is left at the path (also when there
// was none).
KXUTIL_EXPORT bool removeFile(const QString& path);

// Moves the regular file `src` to `dst`, replacing `dst` and creating the folders of `dst`. On one
// filesystem this is an atomic rename; across filesystems the data is copied to a temporary file
// beside `dst`, flushed to disk, renamed into place and only then is `src` removed. `dst` is never
// seen half-written; on failure `src` is untouched and no temporary file is left behind.
KXUTIL_EXPORT bool moveFile(const QString& src, const QString& dst);

// The temporary path that a download to `path` is written to: beside it, in the same folder, so
// that the final move is a rename: `path` + ".kxtmp".
KXUTIL_EXPORT QString tmpFile(const QString& path);
// The same for the task `owner` (its sub-task id): two tasks writing one target never share a
// temporary file, and a resumed task finds its own again: `path` + "." + 12 hexadecimal
// characters of the owner's SHA-256 + ".kxtmp".
KXUTIL_EXPORT QString tmpFile(const QString& path, const QString& owner);

// Opens `file` for writing from its first byte with nothing in it, creating it when missing.
// Unlike QIODevice::WriteOnly it truncates only a file that holds something: on ext4 a truncation
// followed by writes marks the file as being replaced, and closing it then forces all of its data
// out to disk, a pause of a good fraction of a second per 256 MiB. Unbuffered, so that each piece
// written is one system call. Returns what QFile::open returns.
KXUTIL_EXPORT bool openEmpty(QFile& file);

// The file name part of a path (no folders).
KXUTIL_EXPORT QString fileName(const QString& path);

// Writes all `size` bytes to the open descriptor, again after a short write or an interrupted
// call. False when the descriptor fails; errno then tells why.
KXUTIL_EXPORT bool writeAll(int fd, const char* data, qint64 size);

// SHA-256 of the bytes as 64 lower-case hexadecimal characters (OpenSSL's libcrypto, which uses
// the processor's SHA extensions where present).
KXUTIL_EXPORT QString SHA256(const QByteArray& data);

// SHA-256 of the next `length` bytes of an open device, read a piece at a time so that no more than
// one piece is held in memory. An empty text when the device gives fewer bytes or fails; the
// device's own error then tells why.
KXUTIL_EXPORT QString SHA256(QIODevice* device, qint64 length);

// SHA-256 of bytes that arrive in pieces (a download, say), as fast as SHA256() above. Not
// thread-safe: one owner feeds it. hex() ends it; an empty text if the hash could not be had.
class KXUTIL_EXPORT Sha256Stream
{
public:
    Sha256Stream();
    ~Sha256Stream();
    Sha256Stream(const Sha256Stream&) = delete;
    Sha256Stream& operator=(const Sha256Stream&) = delete;

    void add(const char* data, qint64 size);
    QString hex();

private:
    struct Context;
    Context* m_context;
};

// A fingerprint of bytes that arrive in pieces, "xxh3:" and 16 hexadecimal digits (XXH3, 64 bits,
// about twenty times faster than SHA-256). For telling whether bytes written earlier have changed
// since, by accident or wear: it is no defence against anyone who means to forge. Not thread-safe.
class KXUTIL_EXPORT Fingerprint
{
public:
    Fingerprint();
    ~Fingerprint();
    Fingerprint(const Fingerprint&) = delete;
    Fingerprint& operator=(const Fingerprint&) = delete;

    void add(const char* data, qint64 size);
    QString text() const;

private:
    struct State;
    State* m_state;
};

// The fingerprint of the next `length` bytes of an open device; empty when it gives fewer.
KXUTIL_EXPORT QString fingerprint(QIODevice* device, qint64 length);
// Whether `text` is a fingerprint rather than a SHA-256.
KXUTIL_EXPORT bool isFingerprint(const QString& text);

// Free bytes for an unprivileged user on the filesystem that holds `path`. The path need not
// exist: the nearest existing parent folder is asked. -1 when it cannot be told, and on a file
// system mounted read-only, where no write succeeds whatever the space: the failure to create the
// file then tells the real reason, not a shortage of space.
KXUTIL_EXPORT qint64 GetDiskAvailableBytes(const QString& path);

// Reversible protection of a password stored in the task's JSON text. The output is "kx1." followed
// by URL-safe base64 (letters, digits, '-', '_'), so it needs no escaping in JSON. The UTF-8 bytes
// and a 4-byte checksum are XOR'ed with a fixed key that lives in this library.
// What it does: hides the text from a casual look at the database file or a log, and makes it
// unequal to the plain text. What it does NOT do: keep a secret from anyone who has this library or
// studies a few samples; it is not encryption and adds no integrity against deliberate forgery.
// simpleDecrypt(simpleEncrypt(s)) == s for every valid Unicode text (a lone surrogate does not
// survive UTF-8). Text not made by simpleEncrypt (empty, truncated, altered) decrypts to ""; the
// 32-bit checksum lets through about one random text in four billion.
KXUTIL_EXPORT QString simpleEncrypt(const QString& text);
KXUTIL_EXPORT QString simpleDecrypt(const QString& text);

} // namespace KXUtil
