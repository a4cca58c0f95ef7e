#pragma once

// kxserver itself: opens the stores under --root, binds the listening socket and serves the
// storage protocol until stop(). Created and owned by main; start() and run() on the main
// thread, stop() from any thread (the signal thread). It owns every part of the server.

#include "ops/KXCollector.h"
#include "ops/KXEventLog.h"
#include "ops/KXFaultInjector.h"
#include "ops/KXServerStats.h"
#include "service/KXAccounts.h"
#include "service/KXFileService.h"
#include "store/KXBlockStore.h"
#include "store/KXMetaStore.h"

#include <memory>
#include <string>

namespace httplib {
class Server;
}

class CKXAccountApi;
class CKXAdminApi;
class CKXRouter;
class CKXServerLog;
class CKXShareApi;
struct ServerContext;
struct ServerOptions;

class CKXStorageServer
{
public:
    CKXStorageServer(const ServerOptions& options, CKXServerLog& log);
    ~CKXStorageServer();
    CKXStorageServer(const CKXStorageServer&) = delete;
    CKXStorageServer& operator=(const CKXStorageServer&) = delete;

    bool start(std::string* error);
    // The address really listened on, e.g. "http://127.0.0.1:41234"; valid after start().
    std::string url() const { return m_url; }
    // Serves until stop(); false when serving could not begin.
    bool run();
    void stop();

private:
    bool createHttpServer(std::string* error);
    bool bind(std::string* error);
    void configureHttpServer();
    void registerRoutes();

    const ServerOptions& m_options;
    CKXServerLog& m_log;
    CKXAccounts m_accounts;
    CKXMetaStore m_meta;
    CKXBlockStore m_blocks;
    CKXServerStats m_stats;
    CKXFaultInjector m_faults;
    CKXEventLog m_events;
    CKXFileService m_files;
    CKXCollector m_collector;
    std::unique_ptr<httplib::Server> m_http;
    std::unique_ptr<ServerContext> m_context;
    std::unique_ptr<CKXRouter> m_router;
    std::unique_ptr<CKXAccountApi> m_accountApi;
    std::unique_ptr<CKXShareApi> m_shareApi;
    std::unique_ptr<CKXAdminApi> m_adminApi;
    std::string m_url;
    int m_listenSocket = -1; // the listening socket, once created
};
