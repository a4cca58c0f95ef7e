#pragma once

// Shared helpers of the kxserver suites: deterministic test data, the chunked upload flow
// (hash query, blocks, commit) driven through plain HTTP, and requests written byte for byte.

#include "KXServerProcess.h"
#include "KXTestData.h"

#include <QByteArray>
#include <QCryptographicHash>
#include <QHostAddress>
#include <QJsonArray>
#include <QJsonDocument>
#include <QRandomGenerator>
#include <QStringList>
#include <QTcpSocket>
#include <QUrl>

namespace KXServerTest {

constexpr int kBlock = 4194304;

inline QStringList hashesOf(const QList<QByteArray>& blocks)
{
    QStringList out;
    for (const QByteArray& block : blocks) {
        out << sha256Hex(block);
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

// An answer read off the socket as it came.
struct RawReply
{
    int status = 0; // 0 when nothing arrived within the wait
    QByteArray head;
    QByteArray body;

    QByteArray header(const QByteArray& name) const
    {
        for (const QByteArray& line : head.split('\n')) {
            if (line.toLower().startsWith(name.toLower() + ":")) {
                return line.mid(name.size() + 1).trimmed();
            }
        }
        return {};
    }
    QString code() const { return QJsonDocument::fromJson(body).object().value("code").toString(); }
};

// Writes `request` exactly as given from the address `source` and reads until the server closes
// the connection or stays silent for five seconds.
inline RawReply rawExchange(const CKXServerProcess& server, const QByteArray& request,
                            const QHostAddress& source = QHostAddress::LocalHost)
{
    QUrl base(server.baseUrl());
    QTcpSocket socket;
    socket.bind(source);
    socket.connectToHost(base.host(), static_cast<quint16>(base.port()));
    RawReply reply;
    if (!socket.waitForConnected(5000)) {
        return reply;
    }
    socket.write(request);
    QByteArray answer;
    while (socket.waitForReadyRead(5000)) {
        answer += socket.readAll();
    }
    answer += socket.readAll();
    int end = answer.indexOf("\r\n\r\n");
    if (answer.startsWith("HTTP/1.1 ") && end > 0) {
        reply.status = answer.mid(9, 3).toInt();
        reply.head = answer.left(end);
        reply.body = answer.mid(end + 4);
    }
    return reply;
}

} // namespace KXServerTest
