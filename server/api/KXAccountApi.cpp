#include "KXAccountApi.h"

#include "api/KXFileApi.h"
#include "core/KXServerPath.h"
#include "http/KXHttpUtil.h"
#include "http/KXRequest.h"
#include "http/KXRouter.h"
#include "ops/KXEventLog.h"
#include "service/KXAccounts.h"
#include "service/KXFileService.h"
#include "store/KXMetaStore.h"

#include <QDateTime>
#include <QJsonArray>

#include <httplib.h>

#include <algorithm>

namespace {

const char* const kRawPattern = "/v1/raw/([^/]+)/(.*)";

qint64 paramInteger(const CKXRequest& r, const char* key, qint64 fallback)
{
    bool ok = false;
    qint64 value = QString::fromStdString(r.param(key)).toLongLong(&ok);
    return ok ? value : fallback;
}

ListOptions listOptions(const CKXRequest& r)
{
    ListOptions options;
    options.includeFiles = r.param("include_files") != "0";
    options.sort = r.param("sort").empty() ? "name" : r.param("sort");
    options.descending = r.param("order") == "desc";
    options.offset = std::max<qint64>(0, paramInteger(r, "offset", 0));
    options.limit = std::clamp<qint64>(paramInteger(r, "limit", 1000), 1, 10000);
    return options;
}

} // namespace

CKXAccountApi::CKXAccountApi(ServerContext& context) : m_ctx(context) {}

void CKXAccountApi::registerRoutes(CKXRouter& router)
{
    router.get("/v1/metadata", "metadata", [this](CKXRequest& r) { metadata(r); });
    router.post("/v1/upload/auth", "auth", [this](CKXRequest& r) { authUpload(r); });
    router.put(
        "/v1/files", "file_upload", [this](CKXRequest& r) { uploadFile(r, false); },
        [this](const httplib::Request& req, const std::smatch&) {
            Target target;
            bool overwrite = false;
            return prepareUpload(req, false, &target, &overwrite);
        });
    router.get("/v1/files", "download", [this](CKXRequest& r) { download(r, false); });
    router.post("/v1/upload/hash", "hash", [this](CKXRequest& r) { queryHash(r); });
    router.put(
        "/v1/upload/block", "block_upload", [this](CKXRequest& r) { uploadBlock(r); },
        [this](const httplib::Request& req, const std::smatch&) {
            UploadSession session;
            return prepareBlock(req, &session);
        });
    router.post("/v1/upload/commit", "commit", [this](CKXRequest& r) { commit(r); });
    router.post("/v1/log", "log", [this](CKXRequest& r) { logEvent(r); });
    router.post("/v1/folder", "folder", [this](CKXRequest& r) { createFolder(r); });
    router.get(kRawPattern, "download", [this](CKXRequest& r) { download(r, true); });
    router.put(
        kRawPattern, "file_upload", [this](CKXRequest& r) { uploadFile(r, true); },
        [this](const httplib::Request& req, const std::smatch&) {
            Target target;
            bool overwrite = false;
            return prepareUpload(req, true, &target, &overwrite);
        });
}

ServerError CKXAccountApi::authenticate(const httplib::Request& req, std::string* account,
                                        std::string* token) const
{
    std::string given = req.get_header_value("X-ORBALA-SESS-ID");
    if (given.empty()) {
        given = KXHttp::cookie(req, "S");
    }
    if (given.empty() && req.path.compare(0, 8, "/v1/raw/") == 0) {
        given = req.get_param_value("session");
    }
    if (!m_ctx.accounts.accountOf(given, account)) {
        return ServerError::make(401, "Invalid session", "missing or unknown session token");
    }
    if (token) {
        *token = given;
    }
    return {};
}

ServerError CKXAccountApi::resolve(const std::string& account, const std::string& pathType,
                                   const std::string& path, Target* out) const
{
    ServerError e = CKXAccounts::spaceFor(account, pathType, &out->space);
    return e.ok() ? KXServerPath::normalise(path, &out->path) : e;
}

ServerError CKXAccountApi::resolveRaw(const httplib::Request& req, const std::string& account,
                                      Target* out) const
{
    std::string raw = req.target.substr(0, req.target.find('?'));
    std::string rest = raw.size() > 8 ? raw.substr(8) : std::string(); // after "/v1/raw/"
    std::vector<std::string> parts;
    size_t start = 0;
    while (start <= rest.size()) {
        size_t end = std::min(rest.find('/', start), rest.size());
        bool ok = false;
        std::string part = KXServerPath::decodeComponent(rest.substr(start, end - start), &ok);
        if (!ok || part.find('/') != std::string::npos) {
            return ServerError::make(403, "forbidden", "bad percent-encoding in the address");
        }
        parts.push_back(part);
        start = end + 1;
    }
    std::string path;
    for (size_t i = 1; i < parts.size(); ++i) {
        path += "/" + parts[i];
    }
    return resolve(account, parts.empty() ? std::string() : parts[0], path, out);
}

ServerError CKXAccountApi::prepareUpload(const httplib::Request& req, bool raw, Target* target,
                                         bool* overwrite) const
{
    std::string account;
    ServerError e = authenticate(req, &account);
    if (e.ok()) {
        e = raw ? resolveRaw(req, account, target)
                : resolve(account, req.get_param_value("pathtype"), req.get_param_value("path"), target);
    }
    // A plain address replaces what is there unless told otherwise, like any HTTP PUT.
    std::string flag = req.get_param_value("overwrite");
    *overwrite = raw ? flag != "false" && flag != "0" : KXHttp::isTrue(flag);
    return e.ok() ? KXFileApi::preflightFile(m_ctx.files, req, *target, *overwrite) : e;
}

ServerError CKXAccountApi::prepareBlock(const httplib::Request& req, UploadSession* session) const
{
    std::string account;
    ServerError e = authenticate(req, &account);
    e = e.ok() ? KXFileApi::preflightBlock(req) : e;
    e = e.ok() ? m_ctx.files.uploadSession(req.get_param_value("upload_id"), session) : e;
    if (e.ok() && session->space != "ent" && session->space != "self:" + account) {
        e = ServerError::make(403, "forbidden", "the upload session belongs to another account");
    }
    return e.ok() ? KXFileApi::admitBlock(m_ctx.files, req, *session) : e;
}

// Every account reads the shared space, so building on its blocks reveals nothing.
Reach CKXAccountApi::reachOf(const std::string& account)
{
    return Reach{Target{"self:" + account, "/"}, Target{"ent", "/"}};
}

void CKXAccountApi::metadata(CKXRequest& r)
{
    std::string account;
    Target target;
    ServerError e = authenticate(r.http(), &account);
    e = e.ok() ? resolve(account, r.param("pathtype"), r.param("path"), &target) : e;
    EntryInfo entry;
    if (e.ok() && !m_ctx.meta.entry(target, &entry)) {
        e = ServerError::make(404, "nameentry_not_exist", "no such file or folder: " + target.path);
    }
    if (!e.ok()) {
        return r.replyError(e);
    }
    QJsonObject body = KXFileApi::metadataJson(entry);
    if (entry.isDir && KXHttp::isTrue(r.param("list"))) {
        QJsonArray contents;
        for (const EntryInfo& child : m_ctx.meta.children(target, listOptions(r))) {
            contents.append(KXFileApi::metadataJson(child));
        }
        body.insert("contents", contents);
    }
    r.replyJson(body);
}

void CKXAccountApi::authUpload(CKXRequest& r)
{
    std::string account;
    std::string token;
    std::string path;
    std::string pathType;
    qint64 size = 0;
    bool overwrite = false;
    QJsonObject body;
    Target target;
    ServerError e = authenticate(r.http(), &account, &token);
    e = e.ok() ? r.readJson(&body) : e;
    e = e.ok() ? KXHttp::string(body, "path", &path) : e;
    e = e.ok() ? KXHttp::string(body, "pathtype", &pathType) : e;
    e = e.ok() ? KXHttp::integer(body, "size", &size, true) : e;
    e = e.ok() ? KXHttp::boolean(body, "overwrite", &overwrite, false) : e;
    e = e.ok() ? resolve(account, pathType, path, &target) : e;
    e = e.ok() ? m_ctx.files.checkUpload(target, overwrite, size) : e;
    if (!e.ok()) {
        return r.replyError(e);
    }
    r.replyJson(QJsonObject{{"region", QString::fromStdString(m_ctx.publicUrl)},
                            {"X-ORBALA-SESS-ID", QString::fromStdString(token)},
                            {"path", QString::fromStdString(target.path)}});
}

void CKXAccountApi::uploadFile(CKXRequest& r, bool raw)
{
    Target target;
    bool overwrite = false;
    ServerError e = prepareUpload(r.http(), raw, &target, &overwrite);
    if (!e.ok()) {
        return r.replyError(e);
    }
    KXFileApi::receiveFile(r, m_ctx.files, target, overwrite, paramInteger(r, "mtime", 0));
}

void CKXAccountApi::download(CKXRequest& r, bool raw)
{
    std::string account;
    Target target;
    ServerError e = authenticate(r.http(), &account);
    if (e.ok()) {
        e = raw ? resolveRaw(r.http(), account, &target)
                : resolve(account, r.param("pathtype"), r.param("path"), &target);
    }
    if (!e.ok()) {
        return r.replyError(e);
    }
    KXFileApi::sendFile(r, m_ctx.files, target, raw ? std::string() : r.param("rev"), "nameentry_not_exist");
}

void CKXAccountApi::queryHash(CKXRequest& r)
{
    std::string account;
    std::string path;
    std::string pathType;
    qint64 size = 0;
    bool overwrite = false;
    std::vector<std::string> hashes;
    QJsonObject body;
    Target target;
    ServerError e = authenticate(r.http(), &account);
    e = e.ok() ? r.readJson(&body) : e;
    e = e.ok() ? KXHttp::string(body, "path", &path) : e;
    e = e.ok() ? KXHttp::string(body, "pathtype", &pathType) : e;
    e = e.ok() ? KXHttp::integer(body, "size", &size, true) : e;
    e = e.ok() ? KXHttp::boolean(body, "overwrite", &overwrite, false) : e;
    e = e.ok() ? KXHttp::hashList(body, "hashes", &hashes) : e;
    e = e.ok() ? resolve(account, pathType, path, &target) : e;
    if (!e.ok()) {
        return r.replyError(e);
    }
    KXFileApi::queryHash(r, m_ctx.files, target, size, overwrite, hashes, reachOf(account));
}

void CKXAccountApi::uploadBlock(CKXRequest& r)
{
    UploadSession session;
    ServerError e = prepareBlock(r.http(), &session);
    if (!e.ok()) {
        return r.replyError(e);
    }
    KXFileApi::receiveBlock(r, m_ctx.files, session);
}

void CKXAccountApi::commit(CKXRequest& r)
{
    std::string account;
    std::string path;
    std::string pathType;
    std::string uploadId;
    std::vector<std::string> hashes;
    CommitParams params;
    QJsonObject body;
    ServerError e = authenticate(r.http(), &account);
    e = e.ok() ? r.readJson(&body) : e;
    e = e.ok() ? KXHttp::string(body, "path", &path) : e;
    e = e.ok() ? KXHttp::string(body, "pathtype", &pathType) : e;
    e = e.ok() ? KXHttp::string(body, "upload_id", &uploadId) : e;
    e = e.ok() ? KXHttp::integer(body, "size", &params.size, true) : e;
    e = e.ok() ? KXHttp::boolean(body, "overwrite", &params.overwrite, false) : e;
    e = e.ok() ? KXHttp::boolean(body, "make_parents", &params.makeParents, true) : e;
    e = e.ok() ? KXHttp::hashList(body, "hashes", &hashes) : e;
    e = e.ok() ? resolve(account, pathType, path, &params.target) : e;
    if (!e.ok()) {
        return r.replyError(e);
    }
    KXFileApi::commit(r, m_ctx.files, params, hashes, uploadId, reachOf(account));
}

void CKXAccountApi::logEvent(CKXRequest& r)
{
    std::string account;
    QJsonObject body;
    QJsonObject event{{"time", QDateTime::currentDateTimeUtc().toString(Qt::ISODate)}};
    ServerError e = authenticate(r.http(), &account);
    e = e.ok() ? r.readJson(&body) : e;
    for (const char* key : {"event", "folder", "name", "pathtype", "neid", "extra1", "extra2"}) {
        std::string value;
        e = e.ok() ? KXHttp::string(body, key, &value) : e;
        event.insert(QLatin1String(key), QString::fromStdString(value));
    }
    if (e.ok() && event.value("event").toString().isEmpty()) {
        e = ServerError::make(400, "bad request", "\"event\" is required");
    }
    event.insert("account", QString::fromStdString(account));
    if (e.ok() && !m_ctx.events.append(event)) {
        e = ServerError::make(500, "internal", "cannot append to the event log");
    }
    if (!e.ok()) {
        return r.replyError(e);
    }
    r.replyJson(QJsonObject{{"result", true}});
}

void CKXAccountApi::createFolder(CKXRequest& r)
{
    std::string account;
    std::string path;
    std::string pathType;
    bool makeParents = true;
    QJsonObject body;
    Target target;
    EntryInfo entry;
    ServerError e = authenticate(r.http(), &account);
    e = e.ok() ? r.readJson(&body) : e;
    e = e.ok() ? KXHttp::string(body, "path", &path) : e;
    e = e.ok() ? KXHttp::string(body, "pathtype", &pathType) : e;
    e = e.ok() ? KXHttp::boolean(body, "make_parents", &makeParents, true) : e;
    e = e.ok() ? resolve(account, pathType, path, &target) : e;
    e = e.ok() ? m_ctx.meta.createFolder(target, makeParents, &entry) : e;
    if (!e.ok()) {
        return r.replyError(e);
    }
    r.replyJson(KXFileApi::metadataJson(entry));
}
