#pragma once

// Counts failed attempts per key (a share link, a client address) over a sliding window and
// refuses a key that failed too often in it, until its oldest failure leaves the window. Keys
// whose failures all left the window are forgotten whenever the map has doubled, so memory
// follows the recent failures.
//
// Created by its user and used by any connection thread; m_mutex guards m_failures.

#include <QtGlobal>

#include <chrono>
#include <deque>
#include <map>
#include <mutex>
#include <string>

class CKXAttemptLimiter
{
public:
    CKXAttemptLimiter(int maxFailures, std::chrono::seconds window);

    // Seconds until `key` may try again; 0 when it may now.
    qint64 retryAfter(const std::string& key);
    void recordFailure(const std::string& key);

private:
    using Clock = std::chrono::steady_clock;
    // Expects m_mutex held.
    void forgetOldLocked(Clock::time_point now);

    const int m_maxFailures;
    const std::chrono::seconds m_window;
    std::mutex m_mutex;
    static constexpr size_t kFirstSweep = 4096;
    std::map<std::string, std::deque<Clock::time_point>> m_failures; // guarded by m_mutex
    size_t m_sweepAt = kFirstSweep;                                  // guarded by m_mutex
};
