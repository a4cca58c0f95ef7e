#include "KXShareLinks.h"

#include "core/KXSecret.h"
#include "core/KXServerPath.h"
#include "core/KXSha256.h"
#include "service/KXAccounts.h"
#include "store/KXMetaStore.h"

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
    *out = ShareInfo{KXSecret::randomHex(8), owner, space, normalised, upload && entry.isDir, password};
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
    if (!share.password.empty() && !KXSecret::constantTimeEquals(share.password, given)) {
        return ServerError::make(401, "token is not exist", "the share link's password is missing or wrong");
    }
    return {};
}

ServerError CKXShareLinks::checkSession(const ShareInfo& share, const std::string& session)
{
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
    *session = KXSecret::randomHex(16);
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
