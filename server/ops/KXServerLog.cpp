#include "KXServerLog.h"

#include <ctime>

CKXServerLog::~CKXServerLog()
{
    if (m_file) {
        std::fclose(m_file);
    }
}

bool CKXServerLog::open(const std::string& path)
{
    if (path.empty()) {
        return true;
    }
    std::lock_guard<std::mutex> lock(m_mutex);
    m_file = std::fopen(path.c_str(), "a");
    return m_file != nullptr;
}

void CKXServerLog::line(const std::string& text)
{
    std::time_t now = std::time(nullptr);
    std::tm utc;
    gmtime_r(&now, &utc);
    char stamp[32];
    std::strftime(stamp, sizeof stamp, "%Y-%m-%dT%H:%M:%SZ", &utc);
    std::lock_guard<std::mutex> lock(m_mutex);
    FILE* out = m_file ? m_file : stderr;
    std::fprintf(out, "%s %s\n", stamp, text.c_str());
    std::fflush(out);
}
