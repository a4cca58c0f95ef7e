#include "KXSecret.h"

#include "core/KXSha256.h"

#include <openssl/crypto.h>
#include <openssl/rand.h>

#include <vector>

namespace KXSecret {

bool constantTimeEquals(const std::string& a, const std::string& b)
{
    // Comparing digests keeps the time independent of where (and whether) the lengths differ.
    std::string da = CKXSha256::hex(a);
    std::string db = CKXSha256::hex(b);
    return CRYPTO_memcmp(da.data(), db.data(), da.size()) == 0;
}

std::string randomHex(int bytes)
{
    std::vector<unsigned char> raw(static_cast<size_t>(bytes));
    RAND_bytes(raw.data(), bytes);
    static const char digits[] = "0123456789abcdef";
    std::string out;
    for (unsigned char c : raw) {
        out.push_back(digits[c >> 4]);
        out.push_back(digits[c & 0x0f]);
    }
    return out;
}

} // namespace KXSecret
