#include "KXAttemptLimiter.h"

#include <algorithm>

CKXAttemptLimiter::CKXAttemptLimiter(int maxFailures, std::chrono::seconds window)
    : m_maxFailures(maxFailures), m_window(window)
{}

qint64 CKXAttemptLimiter::retryAfter(const std::string& key)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    Clock::time_point now = Clock::now();
    auto found = m_failures.find(key);
    if (found == m_failures.end()) {
        return 0;
    }
    while (!found->second.empty() && found->second.front() + m_window <= now) {
        found->second.pop_front();
    }
    if (static_cast<int>(found->second.size()) < m_maxFailures) {
        return 0;
    }
    auto wait = std::chrono::ceil<std::chrono::seconds>(found->second.front() + m_window - now);
    return std::max<qint64>(1, wait.count());
}

void CKXAttemptLimiter::recordFailure(const std::string& key)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    Clock::time_point now = Clock::now();
    if (m_failures.size() >= m_sweepAt) {
        forgetOldLocked(now);
        m_sweepAt = std::max<size_t>(kFirstSweep, 2 * m_failures.size());
    }
    std::deque<Clock::time_point>& failures = m_failures[key];
    failures.push_back(now);
    // Only the most recent failures decide whether the key is refused.
    while (static_cast<int>(failures.size()) > m_maxFailures) {
        failures.pop_front();
    }
}

void CKXAttemptLimiter::forgetOldLocked(Clock::time_point now)
{
    for (auto it = m_failures.begin(); it != m_failures.end();) {
        while (!it->second.empty() && it->second.front() + m_window <= now) {
            it->second.pop_front();
        }
        it = it->second.empty() ? m_failures.erase(it) : std::next(it);
    }
}
