#include "KXSha256.h"

#include <openssl/evp.h>

CKXSha256::CKXSha256() : m_ctx(EVP_MD_CTX_new())
{
    EVP_DigestInit_ex(m_ctx, EVP_sha256(), nullptr);
}

CKXSha256::~CKXSha256()
{
    EVP_MD_CTX_free(m_ctx);
}

void CKXSha256::update(const char* data, size_t size)
{
    EVP_DigestUpdate(m_ctx, data, size);
}

std::string CKXSha256::hexDigest()
{
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    EVP_DigestFinal_ex(m_ctx, digest, &length);
    static const char digits[] = "0123456789abcdef";
    std::string out;
    out.reserve(length * 2);
    for (unsigned int i = 0; i < length; ++i) {
        out.push_back(digits[digest[i] >> 4]);
        out.push_back(digits[digest[i] & 0x0f]);
    }
    return out;
}

std::string CKXSha256::hex(const char* data, size_t size)
{
    CKXSha256 sha;
    sha.update(data, size);
    return sha.hexDigest();
}

bool CKXSha256::isHexDigest(const std::string& text)
{
    if (text.size() != 64) {
        return false;
    }
    for (char c : text) {
        if (!((c >= '0' && c <= '9') || (c >= 'a' && c <= 'f'))) {
            return false;
        }
    }
    return true;
}
