#pragma once

// The plain-HTTP server of kxserver: cpp-httplib's server with its own connection loop.
//
// The library reads a request body 4 KiB at a time, and its socket stream waits in poll() and
// calls recv() for every piece, so a 4 MiB block cost 2,048 system calls on the receiving side.
// This class serves each connection through one stream that lives as long as the connection and
// reads the socket into a large buffer, handing the library its 4 KiB pieces from memory; bytes
// that arrive after the end of a request stay buffered for the next one. It waits in poll() only
// when the socket has nothing yet. Requests, answers, timeouts and keep-alive limits are the
// library's own (the settings made on the base class apply), and an idle kept-alive connection
// ends as soon as the server stops.
//
// TLS connections keep the library's own stream (httplib::SSLServer).
//
// Threads: process_and_close_socket() runs on a worker of the server's task queue, one connection
// per call; nothing is shared between connections.

#include <httplib.h>

class CKXHttpServer : public httplib::Server
{
private:
    bool process_and_close_socket(socket_t sock) override;
};
