#pragma once

// The routes of an account session: metadata, upload authorisation, whole-file upload and
// download, hash query, block upload, commit, event log, folder creation and the plain /v1/raw
// addresses. Each handler authenticates, resolves its target and hands the work to the file
// service.
//
// Created once by the server, which owns it; its handlers run on any connection thread and keep
// no state between requests.

#include "api/KXServerContext.h"
#include "core/KXServerTypes.h"

#include <string>

namespace httplib {
struct Request;
}

class CKXRequest;
class CKXRouter;

class CKXAccountApi
{
public:
    explicit CKXAccountApi(ServerContext& context);

    void registerRoutes(CKXRouter& router);

private:
    // The account of the request's session token (header, cookie S, or for raw addresses the
    // query parameter "session").
    ServerError authenticate(const httplib::Request& req, std::string* account,
                             std::string* token = nullptr) const;
    ServerError resolve(const std::string& account, const std::string& pathType, const std::string& path,
                        Target* out) const;
    // Target of a /v1/raw/{pathtype}/{path} address, decoded component by component.
    ServerError resolveRaw(const httplib::Request& req, const std::string& account, Target* out) const;
    ServerError prepareUpload(const httplib::Request& req, bool raw, Target* target, bool* overwrite) const;
    ServerError prepareBlock(const httplib::Request& req, UploadSession* session) const;
    static Reach reachOf(const std::string& account);

    void metadata(CKXRequest& r);
    void authUpload(CKXRequest& r);
    void uploadFile(CKXRequest& r, bool raw);
    void download(CKXRequest& r, bool raw);
    void queryHash(CKXRequest& r);
    void uploadBlock(CKXRequest& r);
    void commit(CKXRequest& r);
    void logEvent(CKXRequest& r);
    void createFolder(CKXRequest& r);

    ServerContext& m_ctx;
};
