#include "KXCannedHttpServer.h"

#include <QTcpSocket>

namespace {

// Bytes a complete request occupies in `data` (head and Content-Length body), 0 while incomplete.
int requestLength(const QByteArray& data)
{
    const int headEnd = data.indexOf("\r\n\r\n");
    if (headEnd < 0) {
        return 0;
    }
    qint64 bodyLength = 0;
    for (const QByteArray& line : data.left(headEnd).split('\n')) {
        const int colon = line.indexOf(':');
        if (colon > 0 && line.left(colon).trimmed().toLower() == "content-length") {
            bodyLength = line.mid(colon + 1).trimmed().toLongLong();
        }
    }
    const qint64 total = headEnd + 4 + bodyLength;
    return data.size() >= total ? static_cast<int>(total) : 0;
}

} // namespace

CKXCannedHttpServer::CKXCannedHttpServer(int status, const QByteArray& jsonBody, const QByteArray& location)
{
    const QByteArray redirect = location.isEmpty() ? QByteArray() : "Location: " + location + "\r\n";
    m_answer = QByteArray("HTTP/1.1 ") + QByteArray::number(status) +
               " Canned\r\nContent-Type: application/json\r\nConnection: close\r\n" + redirect +
               "Content-Length: " + QByteArray::number(jsonBody.size()) + "\r\n\r\n" + jsonBody;
    QObject::connect(&m_server, &QTcpServer::newConnection, [this] { accept(); });
}

bool CKXCannedHttpServer::listen()
{
    return m_server.listen(QHostAddress::LocalHost, 0);
}

QString CKXCannedHttpServer::baseUrl() const
{
    return QStringLiteral("http://127.0.0.1:%1").arg(m_server.serverPort());
}

void CKXCannedHttpServer::accept()
{
    while (QTcpSocket* socket = m_server.nextPendingConnection()) {
        QObject::connect(socket, &QTcpSocket::readyRead, socket, [this, socket] { readFrom(socket); });
        QObject::connect(socket, &QTcpSocket::disconnected, socket, [this, socket] {
            m_pending.remove(socket);
            socket->deleteLater();
        });
    }
}

void CKXCannedHttpServer::readFrom(QTcpSocket* socket)
{
    QByteArray& data = m_pending[socket];
    data += socket->readAll();
    if (requestLength(data) == 0) {
        return;
    }
    ++m_requests;
    data.clear();
    socket->write(m_answer);
    socket->disconnectFromHost();
}
