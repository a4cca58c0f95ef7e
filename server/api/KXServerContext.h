#pragma once

// What the route handlers share: the parts of the server, owned by CKXStorageServer, which
// outlives every handler. `publicUrl` is set once, before the first request.

#include <string>

class CKXAccounts;
class CKXBlockStore;
class CKXEventLog;
class CKXFaultInjector;
class CKXFileService;
class CKXMetaStore;
class CKXServerLog;
class CKXServerStats;
struct ServerOptions;

struct ServerContext
{
    const ServerOptions& options;
    CKXAccounts& accounts;
    CKXMetaStore& meta;
    CKXBlockStore& blocks;
    CKXServerStats& stats;
    CKXFaultInjector& faults;
    CKXEventLog& events;
    CKXFileService& files;
    CKXServerLog& log;
    std::string publicUrl;
};
