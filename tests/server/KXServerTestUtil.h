#pragma once

// Shared helpers of the kxserver suites: deterministic test data and the chunked upload flow
// (hash query, blocks, commit) driven through plain HTTP.

#include "KXServerProcess.h"

#include <QByteArray>
#include <QCryptographicHash>
#include <QJsonArray>
#include <QRandomGenerator>
#include <QStringList>

namespace KXServerTest {

constexpr int kBlock = 4194304;

inline QByteArray bytes(quint32 seed, int size)
{
    QByteArray out(size, Qt::Uninitialized);
    QRandomGenerator generator(seed);
    for (int i = 0; i < size; ++i) {
        out[i] = static_cast<char>(generator.generate() & 0xff);
    }
    return out;
}

inline QString sha(const QByteArray& data)
{
    return QString::fromLatin1(QCryptographicHash::hash(data, QCryptographicHash::Sha256).toHex());
}

inline QStringList hashesOf(const QList<QByteArray>& blocks)
{
    QStringList out;
    for (const QByteArray& block : blocks) {
        out << sha(block);
    }
    return out;
}

inline QStringList needed(const TestHttpReply& reply)
{
    QStringList out;
    for (const QJsonValue& value : reply.json().value("needed_block").toArray()) {
        out << value.toString();
    }
    return out;
}

inline QString blockUrl(const CKXServerProcess& server, const QString& uploadId, const QString& hash)
{
    return server.baseUrl() + "/v1/upload/block?upload_id=" + uploadId + "&hash=" + hash;
}

// Hash query, upload of the blocks the server asks for, commit. Returns the commit's answer.
inline TestHttpReply uploadChunked(const CKXServerProcess& server, const QString& path,
                                   const QList<QByteArray>& blocks)
{
    qint64 size = 0;
    for (const QByteArray& block : blocks) {
        size += block.size();
    }
    QJsonObject query{
        {"path", path}, {"size", size}, {"hashes", QJsonArray::fromStringList(hashesOf(blocks))}};
    TestHttpReply answer =
        CKXTestHttp::post(server.baseUrl() + "/v1/upload/hash", query, server.sessionHeader());
    QString id = answer.json().value("upload_id").toString();
    for (const QString& hash : needed(answer)) {
        CKXTestHttp::put(blockUrl(server, id, hash), blocks.at(hashesOf(blocks).indexOf(hash)),
                         server.sessionHeader());
    }
    query.insert("upload_id", id);
    return CKXTestHttp::post(server.baseUrl() + "/v1/upload/commit", query, server.sessionHeader());
}

} // namespace KXServerTest
