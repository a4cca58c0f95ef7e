#pragma once

// The plain-HTTP server of kxserver: cpp-httplib's server with its own connection loop.
//
// The library reads a request body 4 KiB at a time, and its socket stream waits in poll() and
// calls recv() for every piece, so a 4 MiB block cost 2,048 system calls on the receiving side.
// This class serves each connection through one stream that lives as long as the connection and
// reads the socket into a large buffer, handing the library its 4 KiB pieces from memory; bytes
// that arrive after the end of a request stay buffered for the next one. It waits in poll() only
// when the socket has nothing yet. Requests, answers, timeouts and keep-alive limits are the
// library's own (the settings made on the base class apply). An idle kept-alive connection waits
// for its next request or for stop(), which wakes it at once.
//
// TLS connections keep the library's own stream (httplib::SSLServer).
//
// Threads: process_and_close_socket() runs on a worker of the server's task queue, one connection
// per call; connections share only the stop signal. stop() may be called from any thread; call it
// on this class, not through the base, so that idle connections end with it.

#include <httplib.h>

class CKXHttpServer : public httplib::Server
{
public:
    CKXHttpServer();
    ~CKXHttpServer() override;

    // Wakes every connection waiting for a request, then stops the library's server.
    void stop();

private:
    bool process_and_close_socket(socket_t sock) override;

    // An eventfd that turns readable, for good, once the server stops; -1 when none could be
    // made (idle connections then simply run out their keep-alive time).
    const int m_stopped;
};
