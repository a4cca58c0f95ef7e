#pragma once

// Secrets of sessions, share links and the admin token: made with OpenSSL's generator and
// compared in constant time. Stateless.

#include <string>

namespace KXSecret {

bool constantTimeEquals(const std::string& a, const std::string& b);
// `bytes` random bytes from the OpenSSL generator, as hex.
std::string randomHex(int bytes);

} // namespace KXSecret
