#include "KXStorageServer.h"

#include "api/KXAccountApi.h"
#include "api/KXAdminApi.h"
#include "api/KXServerContext.h"
#include "api/KXShareApi.h"
#include "core/KXServerOptions.h"
#include "http/KXHttpServer.h"
#include "http/KXRouter.h"
#include "ops/KXServerLog.h"

#include <httplib.h>

#include <cerrno>
#include <cstring>
#include <sys/socket.h>

CKXStorageServer::CKXStorageServer(const ServerOptions& options, CKXServerLog& log)
    : m_options(options), m_log(log), m_accounts(options.tokens), m_events(options.root + "/events.log"),
      m_files(m_meta, m_blocks, m_stats, options), m_collector(m_meta, m_blocks, log, options.uploadExpiry)
{}

CKXStorageServer::~CKXStorageServer() = default;

bool CKXStorageServer::start(std::string* error)
{
    if (!m_blocks.open(m_options.root, error, m_options.sync) ||
        !m_meta.open(m_options.root + "/meta.db", error, m_options.sync != ServerOptions::Sync::None) ||
        !createHttpServer(error)) {
        return false;
    }
    if (m_blocks.lostUnsyncedBlocks()) {
        // Blocks of uploads that were never committed may be torn; their senders send them again.
        int dropped = m_blocks.dropBlocksExcept(m_meta.referencedBlocks());
        m_log.line("dropped " + std::to_string(dropped) + " uncommitted blocks written before a reboot");
    }
    configureHttpServer();
    if (!bind(error)) {
        return false;
    }
    std::string publicUrl = m_options.publicUrl.empty() ? m_url : m_options.publicUrl;
    while (!publicUrl.empty() && publicUrl.back() == '/') {
        publicUrl.pop_back();
    }
    m_context.reset(new ServerContext{m_options, m_accounts, m_meta, m_blocks, m_stats, m_faults, m_events,
                                      m_files, m_log, publicUrl});
    registerRoutes();
    m_collector.start();
    return true;
}

bool CKXStorageServer::createHttpServer(std::string* error)
{
    if (m_options.tlsCert.empty()) {
        m_http.reset(new CKXHttpServer());
    } else {
        m_http.reset(new httplib::SSLServer(m_options.tlsCert.c_str(), m_options.tlsKey.c_str()));
    }
    if (!m_http->is_valid()) {
        *error = "cannot load the TLS certificate or key";
        return false;
    }
    return true;
}

void CKXStorageServer::configureHttpServer()
{
    int threads = m_options.threads;
    m_http->new_task_queue = [threads] {
        return new httplib::ThreadPool(static_cast<size_t>(threads));
    };
    m_http->set_keep_alive_max_count(1000);
    // An idle kept-alive connection holds its worker until this runs out. A stop wakes the plain
    // server's idle connections; over TLS it waits for them, so keep it short and SIGTERM prompt.
    // Clients simply reconnect.
    m_http->set_keep_alive_timeout(2);
    // Answers go out as headers and body in separate writes; without this the body waits for the
    // client's delayed acknowledgement (tens of milliseconds per small request).
    m_http->set_tcp_nodelay(true);
    // Generous: a rate-limited client may leave a transfer idle for a while.
    m_http->set_read_timeout(60);
    m_http->set_write_timeout(60);
    // The library listens with a backlog of 5: a client opening a few connections at once
    // overflows it, and every dropped connection attempt costs that client a full second before
    // it tries again. The listening socket is noted here so that bind() can widen its backlog.
    m_http->set_socket_options([this](socket_t sock) {
        httplib::default_socket_options(sock);
        m_listenSocket = sock;
    });
}

bool CKXStorageServer::bind(std::string* error)
{
    int port = m_options.listenPort;
    if (port == 0) {
        port = m_http->bind_to_any_port(m_options.listenHost);
    } else if (!m_http->bind_to_port(m_options.listenHost, port)) {
        port = -1;
    }
    if (port <= 0) {
        *error = "cannot listen on " + m_options.listenHost + ":" + std::to_string(m_options.listenPort);
        return false;
    }
    // Listening again on a listening socket only changes its backlog (capped by somaxconn).
    if (m_listenSocket >= 0 && ::listen(m_listenSocket, SOMAXCONN) != 0) {
        *error = std::string("cannot widen the listen backlog: ") + std::strerror(errno);
        return false;
    }
    bool ipv6 = m_options.listenHost.find(':') != std::string::npos;
    std::string host = ipv6 ? "[" + m_options.listenHost + "]" : m_options.listenHost;
    m_url = (m_options.tlsCert.empty() ? "http://" : "https://") + host + ":" + std::to_string(port);
    return true;
}

void CKXStorageServer::registerRoutes()
{
    m_router.reset(new CKXRouter(*m_http, m_stats, m_faults, m_log, m_options.adminToken));
    m_accountApi.reset(new CKXAccountApi(*m_context));
    m_accountApi->registerRoutes(*m_router);
    m_shareApi.reset(new CKXShareApi(*m_context));
    m_shareApi->registerRoutes(*m_router);
    if (!m_options.adminToken.empty()) {
        m_adminApi.reset(new CKXAdminApi(*m_context));
        m_adminApi->registerRoutes(*m_router);
    }
}

bool CKXStorageServer::run()
{
    bool served = m_http->listen_after_bind();
    m_collector.stop();
    m_blocks.close();
    return served;
}

void CKXStorageServer::stop()
{
    // A request held by a delay fault would keep its worker, and so the stop, waiting.
    m_faults.stopDelays();
    // The plain server's own stop also wakes its idle connections.
    if (auto* plain = dynamic_cast<CKXHttpServer*>(m_http.get())) {
        plain->stop();
    } else if (m_http) {
        m_http->stop();
    }
}
