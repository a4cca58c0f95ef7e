#pragma once

// The accounts the server knows: one per accepted session token (--token). An account is named
// by a digest of its token, so neither the database nor the logs ever hold a token. Every
// account has its own "self" space; all share the "ent" space.
//
// Created once by the server; immutable afterwards, so any thread may use it.

#include "core/KXServerTypes.h"

#include <string>
#include <vector>

class CKXAccounts
{
public:
    explicit CKXAccounts(std::vector<std::string> tokens);

    static std::string idOf(const std::string& token);
    // Constant-time over every configured token; false when none matches.
    bool accountOf(const std::string& token, std::string* account) const;
    std::string defaultAccount() const;

    // "" and "self" give the account's own space, "ent" the shared one; anything else is
    // refused with 403 "private dc not allowed".
    static ServerError spaceFor(const std::string& account, const std::string& pathType, std::string* space);

private:
    std::vector<std::string> m_tokens;
};
