#pragma once

// The request and diagnostics log: stderr, or the file given by --log. One line per call,
// prefixed with the UTC time. Created by main before the server; shared by all threads, m_mutex
// keeps lines whole.

#include <cstdio>
#include <mutex>
#include <string>

class CKXServerLog
{
public:
    CKXServerLog() = default;
    ~CKXServerLog();
    CKXServerLog(const CKXServerLog&) = delete;
    CKXServerLog& operator=(const CKXServerLog&) = delete;

    // Empty path: stderr.
    bool open(const std::string& path);
    void line(const std::string& text);

private:
    std::mutex m_mutex;
    FILE* m_file = nullptr; // guarded by m_mutex; null means stderr
};
