#include "KXSilentServer.h"

#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

KXSilentServer::KXSilentServer() : m_fd(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0))
{
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    auto* raw = reinterpret_cast<sockaddr*>(&address);
    if (m_fd >= 0 && ::bind(m_fd, raw, length) == 0 && ::listen(m_fd, 64) == 0 &&
        ::getsockname(m_fd, raw, &length) == 0) {
        m_port = ntohs(address.sin_port);
    }
}

KXSilentServer::~KXSilentServer()
{
    if (m_fd >= 0) {
        ::close(m_fd);
    }
}

int KXSilentServer::takeConnections()
{
    ::fcntl(m_fd, F_SETFL, O_NONBLOCK);
    int count = 0;
    for (int fd; (fd = ::accept(m_fd, nullptr, nullptr)) >= 0; ++count) {
        ::close(fd);
    }
    return count;
}
