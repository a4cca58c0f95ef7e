#pragma once

// The routes of share links (/v1/share/{code}/...): upload authorisation, hash query, block
// upload, commit, whole-file upload, and download whole or by range. Uploads carry a share
// session, downloads the link's password; none needs an account session. Wrong passwords are
// limited per link and per client address, so a link's password cannot be guessed at speed.
//
// Created once by the server, which owns it; its handlers run on any connection thread and keep
// no state between requests.

#include "api/KXServerContext.h"
#include "service/KXAttemptLimiter.h"
#include "service/KXShareLinks.h"

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
    // The link's password; 429 "too many attempts" with Retry-After while the link or the client
    // address failed too often.
    ServerError checkPassword(CKXRequest& r, const ShareInfo& share, const std::string& given);

    void authUpload(CKXRequest& r);
    void queryHash(CKXRequest& r);
    void uploadBlock(CKXRequest& r);
    void commit(CKXRequest& r);
    void uploadFile(CKXRequest& r);
    void download(CKXRequest& r);

    ServerContext& m_ctx;
    CKXShareLinks m_links;
    CKXAttemptLimiter m_linkFailures;
    CKXAttemptLimiter m_addressFailures;
};
