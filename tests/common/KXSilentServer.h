#pragma once

// A loopback port whose connections the kernel completes but nobody ever reads or answers: the
// server that accepts and then stays silent. Owned and used by one test thread.

#include <QString>

class KXSilentServer
{
public:
    KXSilentServer();
    ~KXSilentServer();
    KXSilentServer(const KXSilentServer&) = delete;
    KXSilentServer& operator=(const KXSilentServer&) = delete;

    bool isListening() const { return m_port != 0; }
    QString baseUrl() const { return QStringLiteral("http://127.0.0.1:%1").arg(m_port); }
    // Connections made so far (each attempt of a request opens one), taken off the queue.
    int takeConnections();

private:
    int m_fd = -1;
    quint16 m_port = 0;
};
