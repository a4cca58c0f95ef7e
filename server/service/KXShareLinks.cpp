#include "KXShareLinks.h"

#include "service/KXAccounts.h"
#include "http/KXHttpUtil.h"
#include "store/KXMetaStore.h"
#include "core/KXServerPath.h"
#include "core/KXSha256.h"

#include <httplib.h>

namespace {

std::string digestOf(const std::string& session)
{
    return CKXSha256::hex("kx-share-session:" + session);
}

} // namespace

CKXShareLinks::CKXShareLinks(CKXMetaStore& meta, const CKXAccounts& accounts)
    : m_meta(meta), m_accounts(accounts)
{}

ServerError CKXShareLinks::create(const std::string& owner, const std::string& space, const std::string& path,
                                  bool upload, const std::string& password, ShareInfo* out)
{
    std::string normalised;
    ServerError e = KXServerPath::normalise(path, &normalised);
    if (!e.ok()) {
        return e;
    }
    EntryInfo entry;
    if (!m_meta.entry(Target{space, normalised}, &entry)) {
        e = m_meta.createFolder(Target{space, normalised}, true, &entry);
        if (!e.ok()) {
            return e;
        }
    }
    *out = ShareInfo{KXHttp::randomHex(8), owner, space, normalised, upload && entry.isDir, password};
    if (!m_meta.saveShare(*out)) {
        return ServerError::make(500, "internal", "cannot save the share link");
    }
    return {};
}

ServerError CKXShareLinks::find(const std::string& code, ShareInfo* out)
{
    if (!m_meta.share(code, out)) {
        return ServerError::make(404, "source not found", "no share link " + code);
    }
    return {};
}

ServerError CKXShareLinks::checkPassword(const ShareInfo& share, const std::string& given) const
{
    if (!share.password.empty() && !KXHttp::constantTimeEquals(share.password, given)) {
        return ServerError::make(401, "token is not exist", "the share link's password is missing or wrong");
    }
    return {};
}

ServerError CKXShareLinks::checkSession(const ShareInfo& share, const httplib::Request& req)
{
    std::string session = req.get_header_value("X-Share-Session");
    if (session.empty()) {
        session = KXHttp::cookie(req, "S");
    }
    std::string code;
    if (!session.empty() && m_meta.shareSessionCode(digestOf(session), &code) && code == share.code) {
        return {};
    }
    std::string account;
    if (m_accounts.accountOf(session, &account)) {
        return account == share.owner
                   ? ServerError()
                   : ServerError::make(403, "forbidden",
                                       "this account's token is not valid for another account's share");
    }
    return ServerError::make(401, "Invalid session", "missing or unknown share session");
}

ServerError CKXShareLinks::openSession(const ShareInfo& share, std::string* session)
{
    *session = KXHttp::randomHex(16);
    if (!m_meta.saveShareSession(digestOf(*session), share.code)) {
        return ServerError::make(500, "internal", "cannot save the share session");
    }
    return {};
}

ServerError CKXShareLinks::resolve(const ShareInfo& share, const std::string& inside, Target* out)
{
    std::string relative;
    ServerError e = KXServerPath::normalise(inside, &relative);
    std::string full;
    e = e.ok() ? KXServerPath::normalise(KXServerPath::join(share.path, relative), &full) : e;
    if (!e.ok()) {
        return e;
    }
    *out = Target{share.space, full};
    return {};
}
