#pragma once

// Test data every suite needs: reproducible bytes, their SHA-256, whole files written and read
// back. Header-only, so that a test uses it without linking the helpers' library.

#include <QByteArray>
#include <QCryptographicHash>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QRandomGenerator>
#include <QString>
#include <QVector>

// Pseudo-random bytes, the same for the same seed and different between seeds, so that no two
// blocks of a test deduplicate by accident.
inline QByteArray randomBytes(qint64 size, quint32 seed = 1)
{
    QVector<quint32> words(int((size + 3) / 4));
    QRandomGenerator(seed).fillRange(words.data(), words.size());
    return QByteArray(reinterpret_cast<const char*>(words.constData()), int(size));
}

// Lower-case hex, as the server names blocks.
inline QString sha256Hex(const QByteArray& data)
{
    return QString::fromLatin1(QCryptographicHash::hash(data, QCryptographicHash::Sha256).toHex());
}

// Creates the missing folders of the path first.
inline bool writeFile(const QString& path, const QByteArray& data)
{
    QDir().mkpath(QFileInfo(path).absolutePath());
    QFile file(path);
    return file.open(QIODevice::WriteOnly | QIODevice::Truncate) && file.write(data) == data.size();
}

// Empty when the file cannot be read.
inline QByteArray readFile(const QString& path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}
