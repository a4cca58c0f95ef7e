#pragma once

// A loopback HTTP server that gives every request the same canned answer, for server answers that
// kxserver never produces. It lives on the creating thread and answers only while that thread
// processes events (the QTRY_* waits do). Owns its listening socket and the accepted connections.

#include <QByteArray>
#include <QHash>
#include <QString>
#include <QTcpServer>

class QTcpSocket;

class CKXCannedHttpServer
{
public:
    // A non-empty `location` goes out as the answer's Location header.
    CKXCannedHttpServer(int status, const QByteArray& jsonBody, const QByteArray& location = QByteArray());

    bool listen();
    QString baseUrl() const; // "http://127.0.0.1:PORT"
    int requests() const { return m_requests; }

private:
    void accept();
    void readFrom(QTcpSocket* socket);

    QTcpServer m_server;
    QByteArray m_answer;
    QHash<QTcpSocket*, QByteArray> m_pending; // request bytes read so far, per open connection
    int m_requests = 0;
};
