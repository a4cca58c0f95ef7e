#pragma once

// The administration and test hooks under /admin, registered only when the server has an admin
// token: share-link creation, counters, fault injection, file locks and virus flags. Requests
// name the account they act for with an optional "token" (default: the first configured one).
//
// Created once by the server, which owns it; handlers run on any connection thread.

#include "api/KXServerContext.h"
#include "service/KXShareLinks.h"

#include <QJsonObject>

class CKXRequest;
class CKXRouter;

class CKXAdminApi
{
public:
    explicit CKXAdminApi(ServerContext& context);

    void registerRoutes(CKXRouter& router);

private:
    ServerError accountSpace(const QJsonObject& body, std::string* account, std::string* space) const;
    ServerError target(const QJsonObject& body, Target* out) const;

    void createShare(CKXRequest& r);
    void stats(CKXRequest& r);
    void resetStats(CKXRequest& r);
    void armFault(CKXRequest& r);
    void clearFaults(CKXRequest& r);
    void lock(CKXRequest& r);
    void flagVirus(CKXRequest& r);
    // A file flag of the meta store, read from the body's boolean `key` (true when absent).
    using FlagSetter = ServerError (CKXMetaStore::*)(const Target&, bool);
    void setFlag(CKXRequest& r, const char* key, FlagSetter setter);

    ServerContext& m_ctx;
    CKXShareLinks m_links;
};
