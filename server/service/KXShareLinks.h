#pragma once

// Creating share links and checking what a request may do with one. Used by the share routes,
// the admin routes and the offline "kxserver share" command. Stateless: everything lives in the
// metadata store.

#include "core/KXServerTypes.h"

#include <string>

class CKXAccounts;
class CKXMetaStore;

class CKXShareLinks
{
public:
    CKXShareLinks(CKXMetaStore& meta, const CKXAccounts& accounts);

    // Shares `path` of `space` (created as a folder when missing). A link to a file never
    // accepts uploads.
    ServerError create(const std::string& owner, const std::string& space, const std::string& path,
                       bool upload, const std::string& password, ShareInfo* out);
    // 404 "source not found" for an unknown code.
    ServerError find(const std::string& code, ShareInfo* out);
    // Downloads: the link's password, if it has one, in X-Share-Token.
    ServerError checkPassword(const ShareInfo& share, const std::string& given) const;
    // Uploads: `session` (the request's X-Share-Session, else its cookie S) is a share session of
    // this link, or the owner's own account token; another account's token is refused with 403.
    ServerError checkSession(const ShareInfo& share, const std::string& session);
    // Opens a share session for `share`; the session itself is never stored, only its digest.
    ServerError openSession(const ShareInfo& share, std::string* session);
    // A path inside the share, validated and resolved against the shared folder.
    static ServerError resolve(const ShareInfo& share, const std::string& inside, Target* out);

private:
    CKXMetaStore& m_meta;
    const CKXAccounts& m_accounts;
};
