#pragma once

#include <cstddef>
#include <string>

typedef struct evp_md_ctx_st EVP_MD_CTX;

// Incremental SHA-256 over OpenSSL's libcrypto. Owned by its creator and used by one thread.
class CKXSha256
{
public:
    CKXSha256();
    ~CKXSha256();
    CKXSha256(const CKXSha256&) = delete;
    CKXSha256& operator=(const CKXSha256&) = delete;

    void update(const char* data, size_t size);
    // Ends the computation; 64 lower-case hex digits.
    std::string hexDigest();

    static std::string hex(const char* data, size_t size);
    static std::string hex(const std::string& data) { return hex(data.data(), data.size()); }
    static bool isHexDigest(const std::string& text);

private:
    EVP_MD_CTX* m_ctx;
};
