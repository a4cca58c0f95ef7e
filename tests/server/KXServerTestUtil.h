#pragma once

// Shared helpers of the kxserver suites: requests in the server's own session, the chunked upload
// flow (hash query, blocks, commit) driven through plain HTTP, and requests written byte for byte.

#include "KXServerProcess.h"
#include "KXTestData.h"

#include <QByteArray>
#include <QFile>
#include <QHostAddress>
#include <QJsonArray>
#include <QJsonDocument>
#include <QStringList>
#include <QTcpSocket>
#include <QUrl>

namespace KXServerTest {

constexpr int kBlock = 4194304;

inline QStringList hashesOf(const QList<QByteArray>& blocks)
{
    QStringList out;
    for (const QByteArray& block : blocks)
        out << sha256Hex(block);
    return out;
}

inline QStringList needed(const TestHttpReply& reply)
{
    return reply.json().value("needed_block").toVariant().toStringList();
}

// The body of a hash query or commit of `blocks` as the file at `path`.
inline QJsonObject fileOf(const QString& path, const QList<QByteArray>& blocks)
{
    return {{"path", path},
            {"size", blocks.join().size()},
            {"hashes", QJsonArray::fromStringList(hashesOf(blocks))}};
}

// Requests to one server, written as the tail after its base address, in the session of
// `headers` (the server's own unless given). Uploads in blocks go to the operations under
// `uploads`: the space's own, or a share link's ("/v1/share/<code>/upload").
class Client
{
public:
    explicit Client(const CKXServerProcess& server, QList<QByteArray> headers = {},
                    const QString& uploads = QStringLiteral("/v1/upload"))
        : m_server(server), m_headers(headers.isEmpty() ? server.sessionHeader() : headers),
          m_uploads(uploads)
    {}

    QString url(const QString& tail) const { return m_server.baseUrl() + tail; }
    TestHttpReply get(const QString& tail, const QList<QByteArray>& extra = {}) const
    {
        return CKXTestHttp::get(url(tail), m_headers + extra);
    }
    TestHttpReply post(const QString& tail, const QJsonObject& body) const
    {
        return CKXTestHttp::post(url(tail), body, m_headers);
    }
    TestHttpReply put(const QString& tail, const QByteArray& body) const
    {
        return CKXTestHttp::put(url(tail), body, m_headers);
    }
    TestHttpReply putBlock(const QString& uploadId, const QByteArray& block, const QString& hash = {}) const
    {
        const QString name = hash.isEmpty() ? sha256Hex(block) : hash;
        return put(m_uploads + "/block?upload_id=" + uploadId + "&hash=" + name, block);
    }
    // The upload id of a hash query.
    QString open(const QJsonObject& query) const
    {
        return post(m_uploads + "/hash", query).json().value("upload_id").toString();
    }
    // Hash query, upload of the blocks the server asks for, commit. Returns the commit's answer.
    TestHttpReply uploadChunked(const QString& path, const QList<QByteArray>& blocks) const
    {
        QJsonObject query = fileOf(path, blocks);
        const TestHttpReply answer = post(m_uploads + "/hash", query);
        query.insert("upload_id", answer.json().value("upload_id"));
        for (const QString& hash : needed(answer))
            putBlock(query.value("upload_id").toString(), blocks.at(hashesOf(blocks).indexOf(hash)));
        return post(m_uploads + "/commit", query);
    }
    bool stored(const QString& hash) const
    {
        return QFile::exists(m_server.rootPath() + "/blocks/" + hash.left(2) + "/" + hash.mid(2));
    }

private:
    const CKXServerProcess& m_server;
    const QList<QByteArray> m_headers;
    const QString m_uploads;
};

// An answer read off the socket as it came.
struct RawReply
{
    int status = 0; // 0 when nothing arrived within the wait
    QByteArray head;
    QByteArray body;

    QByteArray header(const QByteArray& name) const
    {
        for (const QByteArray& line : head.split('\n')) {
            if (line.toLower().startsWith(name.toLower() + ":"))
                return line.mid(name.size() + 1).trimmed();
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
    if (!socket.waitForConnected(5000))
        return reply;
    socket.write(request);
    QByteArray answer;
    while (socket.waitForReadyRead(5000))
        answer += socket.readAll();
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
