#include "KXAdminApi.h"

#include "core/KXServerPath.h"
#include "http/KXHttpUtil.h"
#include "http/KXRequest.h"
#include "http/KXRouter.h"
#include "ops/KXFaultInjector.h"
#include "ops/KXServerStats.h"
#include "service/KXAccounts.h"
#include "store/KXMetaStore.h"

CKXAdminApi::CKXAdminApi(ServerContext& context) : m_ctx(context), m_links(context.meta, context.accounts) {}

void CKXAdminApi::registerRoutes(CKXRouter& router)
{
    router.post("/admin/share", "admin", [this](CKXRequest& r) { createShare(r); });
    router.get("/admin/stats", "admin", [this](CKXRequest& r) { stats(r); });
    router.post("/admin/stats/reset", "admin", [this](CKXRequest& r) { resetStats(r); });
    router.post("/admin/faults", "admin", [this](CKXRequest& r) { armFault(r); });
    router.del("/admin/faults", "admin", [this](CKXRequest& r) { clearFaults(r); });
    router.post("/admin/lock", "admin", [this](CKXRequest& r) { lock(r); });
    router.post("/admin/virus", "admin", [this](CKXRequest& r) { flagVirus(r); });
}

ServerError CKXAdminApi::accountSpace(const QJsonObject& body, std::string* account, std::string* space) const
{
    std::string token;
    std::string pathType;
    ServerError e = KXHttp::string(body, "token", &token);
    e = e.ok() ? KXHttp::string(body, "pathtype", &pathType) : e;
    if (e.ok() && token.empty()) {
        *account = m_ctx.accounts.defaultAccount();
    } else if (e.ok() && !m_ctx.accounts.accountOf(token, account)) {
        e = ServerError::make(400, "bad request", "\"token\" names no account of this server");
    }
    return e.ok() ? CKXAccounts::spaceFor(*account, pathType, space) : e;
}

ServerError CKXAdminApi::target(const QJsonObject& body, Target* out) const
{
    std::string account;
    std::string path;
    ServerError e = accountSpace(body, &account, &out->space);
    e = e.ok() ? KXHttp::string(body, "path", &path) : e;
    return e.ok() ? KXServerPath::normalise(path, &out->path) : e;
}

void CKXAdminApi::createShare(CKXRequest& r)
{
    QJsonObject body;
    std::string account;
    std::string space;
    std::string path;
    std::string password;
    bool upload = false;
    ShareInfo share;
    ServerError e = r.readJson(&body);
    e = e.ok() ? accountSpace(body, &account, &space) : e;
    e = e.ok() ? KXHttp::string(body, "path", &path, "/") : e;
    e = e.ok() ? KXHttp::string(body, "password", &password) : e;
    e = e.ok() ? KXHttp::boolean(body, "upload", &upload, false) : e;
    e = e.ok() ? m_links.create(account, space, path, upload, password, &share) : e;
    if (!e.ok()) {
        return r.replyError(e);
    }
    r.replyJson(QJsonObject{{"code", QString::fromStdString(share.code)},
                            {"url", QString::fromStdString(m_ctx.publicUrl + "/v1/share/" + share.code)}});
}

void CKXAdminApi::stats(CKXRequest& r)
{
    r.replyJson(m_ctx.stats.toJson());
}

void CKXAdminApi::resetStats(CKXRequest& r)
{
    m_ctx.stats.reset();
    r.replyJson(QJsonObject{{"result", true}});
}

void CKXAdminApi::armFault(CKXRequest& r)
{
    QJsonObject body;
    ServerError e = r.readJson(&body);
    e = e.ok() ? m_ctx.faults.arm(body) : e;
    if (!e.ok()) {
        return r.replyError(e);
    }
    r.replyJson(QJsonObject{{"result", true}});
}

void CKXAdminApi::clearFaults(CKXRequest& r)
{
    m_ctx.faults.clear();
    r.replyJson(QJsonObject{{"result", true}});
}

void CKXAdminApi::lock(CKXRequest& r)
{
    setFlag(r, "locked", &CKXMetaStore::setLocked);
}

void CKXAdminApi::flagVirus(CKXRequest& r)
{
    setFlag(r, "virus", &CKXMetaStore::setVirus);
}

void CKXAdminApi::setFlag(CKXRequest& r, const char* key, FlagSetter setter)
{
    QJsonObject body;
    Target file;
    bool value = true;
    ServerError e = r.readJson(&body);
    e = e.ok() ? target(body, &file) : e;
    e = e.ok() ? KXHttp::boolean(body, key, &value, true) : e;
    e = e.ok() ? (m_ctx.meta.*setter)(file, value) : e;
    if (!e.ok()) {
        return r.replyError(e);
    }
    r.replyJson(QJsonObject{{"result", true}});
}
