#include "KXShareApi.h"

#include "api/KXFileApi.h"
#include "core/KXServerPath.h"
#include "http/KXHttpUtil.h"
#include "http/KXRequest.h"
#include "http/KXRouter.h"
#include "ops/KXServerLog.h"
#include "service/KXFileService.h"

#include <httplib.h>

#include <algorithm>

namespace {

const std::string kPrefix = "/v1/share/([A-Za-z0-9_-]{1,64})";
// Enough for people mistyping a password, far too few for guessing one.
constexpr int kFailuresPerAddress = 10;
constexpr int kFailuresPerLink = 30;
constexpr std::chrono::seconds kFailureWindow(60);

} // namespace

CKXShareApi::CKXShareApi(ServerContext& context)
    : m_ctx(context), m_links(context.meta, context.accounts),
      m_linkFailures(kFailuresPerLink, kFailureWindow), m_addressFailures(kFailuresPerAddress, kFailureWindow)
{}

void CKXShareApi::registerRoutes(CKXRouter& router)
{
    router.post(kPrefix + "/auth", "share_auth", [this](CKXRequest& r) { authUpload(r); });
    router.post(kPrefix + "/upload/hash", "hash", [this](CKXRequest& r) { queryHash(r); });
    router.put(
        kPrefix + "/upload/block", "block_upload", [this](CKXRequest& r) { uploadBlock(r); },
        [this](const httplib::Request& req, const std::smatch& match) {
            UploadSession session;
            return prepareBlock(req, match[1].str(), &session);
        });
    router.post(kPrefix + "/upload/commit", "commit", [this](CKXRequest& r) { commit(r); });
    router.put(
        kPrefix + "/files", "file_upload", [this](CKXRequest& r) { uploadFile(r); },
        [this](const httplib::Request& req, const std::smatch& match) {
            Target target;
            bool overwrite = false;
            return prepareUpload(req, match[1].str(), &target, &overwrite);
        });
    router.get(kPrefix + "/files", "download", [this](CKXRequest& r) { download(r); });
}

ServerError CKXShareApi::uploadLink(const httplib::Request& req, const std::string& code, ShareInfo* share)
{
    ServerError e = m_links.find(code, share);
    std::string session = req.get_header_value("X-Share-Session");
    if (session.empty()) {
        session = KXHttp::cookie(req, "S");
    }
    e = e.ok() ? m_links.checkSession(*share, session) : e;
    if (e.ok() && !share->upload) {
        e = ServerError::make(403, "forbidden", "this share link accepts no uploads");
    }
    return e;
}

ServerError CKXShareApi::prepareUpload(const httplib::Request& req, const std::string& code, Target* target,
                                       bool* overwrite)
{
    ShareInfo share;
    ServerError e = uploadLink(req, code, &share);
    e = e.ok() ? CKXShareLinks::resolve(share, req.get_param_value("path"), target) : e;
    *overwrite = KXHttp::isTrue(req.get_param_value("overwrite"));
    return e.ok() ? KXFileApi::preflightFile(m_ctx.files, req, *target, *overwrite) : e;
}

ServerError CKXShareApi::prepareBlock(const httplib::Request& req, const std::string& code,
                                      UploadSession* session)
{
    ShareInfo share;
    ServerError e = uploadLink(req, code, &share);
    e = e.ok() ? KXFileApi::preflightBlock(req) : e;
    e = e.ok() ? m_ctx.files.uploadSession(req.get_param_value("upload_id"), session) : e;
    if (e.ok() && (session->space != share.space || !KXServerPath::isInside(share.path, session->path))) {
        e = ServerError::make(403, "forbidden", "the upload session lies outside this share");
    }
    return e.ok() ? KXFileApi::admitBlock(m_ctx.files, req, *session) : e;
}

ServerError CKXShareApi::checkPassword(CKXRequest& r, const ShareInfo& share, const std::string& given)
{
    const std::string& address = r.http().remote_addr;
    qint64 wait = std::max(m_linkFailures.retryAfter(share.code), m_addressFailures.retryAfter(address));
    if (wait > 0) {
        m_ctx.log.line("share " + share.code + ": password attempt from " + address +
                       " refused, retry after " + std::to_string(wait) + " s");
        r.response().set_header("Retry-After", std::to_string(wait));
        return ServerError::make(429, "too many attempts", "too many wrong passwords; try again later");
    }
    ServerError e = m_links.checkPassword(share, given);
    if (!e.ok()) {
        m_linkFailures.recordFailure(share.code);
        m_addressFailures.recordFailure(address);
        m_ctx.log.line("share " + share.code + ": wrong password from " + address);
    }
    return e;
}

void CKXShareApi::authUpload(CKXRequest& r)
{
    ShareInfo share;
    QJsonObject body;
    std::string token;
    std::string folder;
    std::string name;
    std::string session;
    qint64 size = 0;
    bool overwrite = false;
    Target target;
    ServerError e = m_links.find(r.match(1), &share);
    e = e.ok() ? r.readJson(&body) : e;
    e = e.ok() ? KXHttp::string(body, "token", &token) : e;
    e = e.ok() ? KXHttp::string(body, "path", &folder) : e;
    e = e.ok() ? KXHttp::string(body, "name", &name) : e;
    e = e.ok() ? KXHttp::integer(body, "size", &size, true) : e;
    e = e.ok() ? KXHttp::boolean(body, "overwrite", &overwrite, false) : e;
    e = e.ok() ? checkPassword(r, share, token) : e;
    if (e.ok() && !share.upload) {
        e = ServerError::make(403, "forbidden", "this share link accepts no uploads");
    }
    if (e.ok() && (name.empty() || name.find('/') != std::string::npos)) {
        e = ServerError::make(403, "forbidden", "\"name\" must be a single file name");
    }
    e = e.ok() ? KXServerPath::normalise(folder, &folder) : e;
    e = e.ok() ? CKXShareLinks::resolve(share, KXServerPath::join(folder, name), &target) : e;
    e = e.ok() ? m_ctx.files.checkUpload(target, overwrite, size) : e;
    e = e.ok() ? m_links.openSession(share, &session) : e;
    if (!e.ok()) {
        return r.replyError(e);
    }
    QJsonObject answer{{"result", true},
                       {"upload_url", QString::fromStdString(m_ctx.publicUrl)},
                       {"LBC", QStringLiteral("kxserver")}};
    // A client must carry on with the session it holds when an answer names none.
    if (!r.faultIs("no_session")) {
        r.response().set_header("Set-Cookie", "S=" + session + "; Path=/; HttpOnly");
        answer.insert("session_id", QString::fromStdString(session));
    }
    r.replyJson(answer);
}

void CKXShareApi::queryHash(CKXRequest& r)
{
    ShareInfo share;
    QJsonObject body;
    std::string path;
    qint64 size = 0;
    bool overwrite = false;
    std::vector<std::string> hashes;
    Target target;
    ServerError e = uploadLink(r.http(), r.match(1), &share);
    e = e.ok() ? r.readJson(&body) : e;
    e = e.ok() ? KXHttp::string(body, "path", &path) : e;
    e = e.ok() ? KXHttp::integer(body, "size", &size, true) : e;
    e = e.ok() ? KXHttp::boolean(body, "overwrite", &overwrite, false) : e;
    e = e.ok() ? KXHttp::hashList(body, "hashes", &hashes) : e;
    e = e.ok() ? CKXShareLinks::resolve(share, path, &target) : e;
    if (!e.ok()) {
        return r.replyError(e);
    }
    // Whoever holds the link reads the shared folder and nothing else of its owner's space.
    KXFileApi::queryHash(r, m_ctx.files, target, size, overwrite, hashes,
                         Reach{Target{share.space, share.path}});
}

void CKXShareApi::uploadBlock(CKXRequest& r)
{
    UploadSession session;
    ServerError e = prepareBlock(r.http(), r.match(1), &session);
    if (!e.ok()) {
        return r.replyError(e);
    }
    KXFileApi::receiveBlock(r, m_ctx.files, session);
}

void CKXShareApi::commit(CKXRequest& r)
{
    ShareInfo share;
    QJsonObject body;
    std::string path;
    std::string uploadId;
    std::vector<std::string> hashes;
    CommitParams params;
    ServerError e = uploadLink(r.http(), r.match(1), &share);
    e = e.ok() ? r.readJson(&body) : e;
    e = e.ok() ? KXHttp::string(body, "path", &path) : e;
    e = e.ok() ? KXHttp::string(body, "upload_id", &uploadId) : e;
    e = e.ok() ? KXHttp::integer(body, "size", &params.size, true) : e;
    e = e.ok() ? KXHttp::boolean(body, "overwrite", &params.overwrite, false) : e;
    e = e.ok() ? KXHttp::hashList(body, "hashes", &hashes) : e;
    e = e.ok() ? CKXShareLinks::resolve(share, path, &params.target) : e;
    if (!e.ok()) {
        return r.replyError(e);
    }
    KXFileApi::commit(r, m_ctx.files, params, hashes, uploadId, Reach{Target{share.space, share.path}});
}

void CKXShareApi::uploadFile(CKXRequest& r)
{
    Target target;
    bool overwrite = false;
    ServerError e = prepareUpload(r.http(), r.match(1), &target, &overwrite);
    if (!e.ok()) {
        return r.replyError(e);
    }
    KXFileApi::receiveFile(r, m_ctx.files, target, overwrite, 0);
}

void CKXShareApi::download(CKXRequest& r)
{
    ShareInfo share;
    Target target;
    ServerError e = m_links.find(r.match(1), &share);
    e = e.ok() ? checkPassword(r, share, r.header("X-Share-Token")) : e;
    e = e.ok() ? CKXShareLinks::resolve(share, r.param("path"), &target) : e;
    if (!e.ok()) {
        return r.replyError(e);
    }
    KXFileApi::sendFile(r, m_ctx.files, target, std::string(), "file/folder not found");
}
