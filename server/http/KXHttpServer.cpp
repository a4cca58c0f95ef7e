#include "KXHttpServer.h"

#include "KXHttpUtil.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

// Enough for the socket's whole receive queue on loopback most of the time, so a block body
// arrives in a few dozen reads instead of a thousand.
constexpr size_t kReadBufferBytes = 256 * 1024;

int toMs(time_t sec, time_t usec)
{
    return static_cast<int>(sec * 1000 + usec / 1000);
}

// Waits until `fd` is ready for `events` or `timeoutMs` passes; false on timeout or error.
bool waitFor(int fd, short events, int timeoutMs)
{
    pollfd entry{fd, events, 0};
    for (;;) {
        int ready = ::poll(&entry, 1, timeoutMs);
        if (ready >= 0 || errno != EINTR) {
            return ready > 0;
        }
    }
}

// One connection's socket as the library's request parser sees it. Reads go through the buffer;
// writes go out whole before they return, as the library expects of a blocking socket.
class ConnectionStream : public httplib::Stream
{
public:
    ConnectionStream(socket_t sock, int readTimeoutMs, int writeTimeoutMs)
        : m_sock(sock), m_readTimeoutMs(readTimeoutMs), m_writeTimeoutMs(writeTimeoutMs),
          m_buffer(new char[kReadBufferBytes])
    {}

    bool is_readable() const override { return buffered() > 0 || waitFor(m_sock, POLLIN, m_readTimeoutMs); }

    bool is_writable() const override { return waitFor(m_sock, POLLOUT, m_writeTimeoutMs); }

    ssize_t read(char* out, size_t size) override
    {
        if (size == 0) {
            return 0; // nothing asked for: filling the buffer and handing back nothing would read as the end
        }
        if (buffered() == 0) {
            ssize_t received = receive(m_buffer.get(), kReadBufferBytes);
            if (received <= 0) {
                return received;
            }
            m_begin = 0;
            m_end = static_cast<size_t>(received);
        }
        size_t count = std::min(size, buffered());
        std::memcpy(out, m_buffer.get() + m_begin, count);
        m_begin += count;
        return static_cast<ssize_t>(count);
    }

    ssize_t write(const char* data, size_t size) override
    {
        size_t sent = 0;
        while (sent < size) {
            ssize_t n = ::send(m_sock, data + sent, size - sent, MSG_DONTWAIT | MSG_NOSIGNAL);
            if (n >= 0) {
                sent += static_cast<size_t>(n);
            } else if (errno != EINTR && ((errno != EAGAIN && errno != EWOULDBLOCK) ||
                                          !waitFor(m_sock, POLLOUT, m_writeTimeoutMs))) {
                return -1;
            }
        }
        return static_cast<ssize_t>(sent);
    }

    // The library asks for both ends with every request; they cannot change on one connection.
    void get_remote_ip_and_port(std::string& ip, int& port) const override
    {
        if (m_remotePort < 0) {
            KXHttp::endpoint(m_sock, true, &m_remoteIp, &m_remotePort);
        }
        ip = m_remoteIp;
        port = m_remotePort;
    }

    void get_local_ip_and_port(std::string& ip, int& port) const override
    {
        if (m_localPort < 0) {
            KXHttp::endpoint(m_sock, false, &m_localIp, &m_localPort);
        }
        ip = m_localIp;
        port = m_localPort;
    }

    socket_t socket() const override { return m_sock; }

    // Waits for the first byte of the next request: true when it is there (or already buffered),
    // false when the connection ends, `idleMs` pass or `stopped` turns readable.
    bool awaitRequest(int idleMs, int stopped) const
    {
        if (buffered() > 0) {
            return true;
        }
        pollfd entries[2] = {{m_sock, POLLIN, 0}, {stopped, POLLIN, 0}};
        for (;;) {
            int ready = ::poll(entries, stopped >= 0 ? 2 : 1, idleMs);
            if (ready >= 0 || errno != EINTR) {
                return ready > 0 && entries[1].revents == 0;
            }
        }
    }

private:
    size_t buffered() const { return m_end - m_begin; }

    // One recv(), waiting up to the read timeout when nothing has arrived yet: the count, 0 at
    // the end of the stream, -1 on error or timeout.
    ssize_t receive(char* into, size_t size)
    {
        for (;;) {
            ssize_t n = ::recv(m_sock, into, size, MSG_DONTWAIT);
            if (n >= 0) {
                return n;
            }
            if (errno != EINTR &&
                ((errno != EAGAIN && errno != EWOULDBLOCK) || !waitFor(m_sock, POLLIN, m_readTimeoutMs))) {
                return -1;
            }
        }
    }

    const socket_t m_sock;
    const int m_readTimeoutMs;
    const int m_writeTimeoutMs;
    std::unique_ptr<char[]> m_buffer;
    size_t m_begin = 0; // unread bytes are m_buffer[m_begin, m_end)
    size_t m_end = 0;
    mutable std::string m_remoteIp;
    mutable int m_remotePort = -1;
    mutable std::string m_localIp;
    mutable int m_localPort = -1;
};

} // namespace

CKXHttpServer::CKXHttpServer() : m_stopped(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {}

CKXHttpServer::~CKXHttpServer()
{
    if (m_stopped >= 0) {
        ::close(m_stopped);
    }
}

void CKXHttpServer::stop()
{
    if (m_stopped >= 0) {
        const uint64_t one = 1;
        // Never read back: the descriptor stays readable for every connection from now on.
        ssize_t written = ::write(m_stopped, &one, sizeof one);
        (void)written;
    }
    httplib::Server::stop();
}

bool CKXHttpServer::process_and_close_socket(socket_t sock)
{
    bool served = false;
    {
        ConnectionStream stream(sock, toMs(read_timeout_sec_, read_timeout_usec_),
                                toMs(write_timeout_sec_, write_timeout_usec_));
        const int idleMs = toMs(keep_alive_timeout_sec_, 0);
        for (size_t left = keep_alive_max_count_; left > 0 && svr_sock_ != INVALID_SOCKET; --left) {
            if (!stream.awaitRequest(idleMs, m_stopped)) {
                break;
            }
            bool closed = false;
            served = process_request(stream, left == 1, closed, nullptr);
            if (!served || closed) {
                break;
            }
        }
    }
    ::shutdown(sock, SHUT_RDWR);
    ::close(sock);
    return served;
}
