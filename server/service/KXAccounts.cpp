#include "KXAccounts.h"

#include "core/KXSecret.h"
#include "core/KXSha256.h"

CKXAccounts::CKXAccounts(std::vector<std::string> tokens) : m_tokens(std::move(tokens)) {}

std::string CKXAccounts::idOf(const std::string& token)
{
    return CKXSha256::hex("kx-account:" + token).substr(0, 16);
}

bool CKXAccounts::accountOf(const std::string& token, std::string* account) const
{
    bool found = false;
    for (const std::string& known : m_tokens) {
        // No early exit: the time taken does not tell which token (if any) matched.
        if (KXSecret::constantTimeEquals(known, token) && !found) {
            *account = idOf(known);
            found = true;
        }
    }
    return found && !token.empty();
}

std::string CKXAccounts::defaultAccount() const
{
    return idOf(m_tokens.front());
}

ServerError CKXAccounts::spaceFor(const std::string& account, const std::string& pathType, std::string* space)
{
    if (pathType.empty() || pathType == "self") {
        *space = "self:" + account;
    } else if (pathType == "ent") {
        *space = "ent";
    } else {
        return ServerError::make(403, "private dc not allowed",
                                 "path type '" + pathType + "' is not served here");
    }
    return {};
}
