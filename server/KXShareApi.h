#pragma once

// The routes of share links (/v1/share/{code}/...): upload authorisation, hash query, block
// upload, commit, whole-file upload, and download whole or by range. Uploads carry a share
// session, downloads the link's password; none needs an account session.
//
// Created once by the server, which owns it; its handlers run on any connection thread and keep
// no state between requests.

#include "KXServerContext.h"
#include "KXShareLinks.h"

#include <string>

namespace httplib {
struct Request;
}

class CKXRequest;
class CKXRouter;

class CKXShareApi
{
public:
    explicit CKXShareApi(ServerContext& context);

    void registerRoutes(CKXRouter& router);

private:
    // The link named in the address, for an upload request: it must exist, accept uploads and
    // the request must carry a session for it.
    ServerError uploadLink(const httplib::Request& req, const std::string& code, ShareInfo* share);
    ServerError prepareUpload(const httplib::Request& req, const std::string& code, Target* target,
                              bool* overwrite);
    ServerError prepareBlock(const httplib::Request& req, const std::string& code, UploadSession* session);

    void authUpload(CKXRequest& r);
    void queryHash(CKXRequest& r);
    void uploadBlock(CKXRequest& r);
    void commit(CKXRequest& r);
    void uploadFile(CKXRequest& r);
    void download(CKXRequest& r);

    ServerContext& m_ctx;
    CKXShareLinks m_links;
};
