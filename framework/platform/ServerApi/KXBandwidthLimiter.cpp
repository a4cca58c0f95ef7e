#include "KXBandwidthLimiter.h"

#include <algorithm>
#include <cmath>

namespace {

// A burst of 50 ms worth of the rate, but never less than what one libcurl callback may carry, so
// that a single large piece does not wait for a bucket it can never fill.
const double kBurstSeconds = 0.05;
const double kMinBurstBytes = 256 * 1024;

} // namespace

void CKXBandwidthLimiter::Bucket::setRate(qint64 bytesPerSec)
{
    refill();
    if (bytesPerSec == rate)
        return;
    rate = std::max<qint64>(bytesPerSec, 0);
    capacity = std::max(kMinBurstBytes, rate * kBurstSeconds);
    tokens = std::min(tokens, capacity);
}

void CKXBandwidthLimiter::Bucket::refill()
{
    const Clock::time_point now = Clock::now();
    const double seconds = std::chrono::duration<double>(now - last).count();
    last = now;
    if (rate > 0)
        tokens = std::min(capacity, tokens + seconds * rate);
}

int CKXBandwidthLimiter::Bucket::msUntilAvailable()
{
    refill();
    if (available())
        return 0;
    return static_cast<int>(std::ceil(-tokens * 1000.0 / rate)) + 1;
}

void CKXBandwidthLimiter::setLimits(qint64 sendPerSec, qint64 receivePerSec)
{
    m_buckets[Send].setRate(sendPerSec);
    m_buckets[Receive].setRate(receivePerSec);
}

int CKXBandwidthLimiter::pauseBit(Direction direction)
{
    return direction == Send ? CURLPAUSE_SEND : CURLPAUSE_RECV;
}

bool CKXBandwidthLimiter::mayPass(CURL* easy, Direction direction)
{
    Bucket& bucket = m_buckets[direction];
    bucket.refill();
    if (bucket.available())
        return true;
    int& mask = m_pauseMask[easy];
    if (!(mask & pauseBit(direction))) {
        mask |= pauseBit(direction);
        m_paused[direction].push_back(easy);
    }
    return false;
}

void CKXBandwidthLimiter::charge(Direction direction, qint64 bytes)
{
    Bucket& bucket = m_buckets[direction];
    if (bucket.limited())
        bucket.tokens -= static_cast<double>(bytes);
}

void CKXBandwidthLimiter::resumeDue()
{
    resume(Send);
    resume(Receive);
}

void CKXBandwidthLimiter::resume(Direction direction)
{
    Bucket& bucket = m_buckets[direction];
    std::deque<CURL*>& waiting = m_paused[direction];
    // Only those waiting now get a turn: a transfer that pauses again while resumed goes to the
    // back and waits for the next round.
    size_t turns = waiting.size();
    while (turns-- > 0 && !waiting.empty()) {
        bucket.refill();
        if (!bucket.available())
            return;
        CURL* easy = waiting.front();
        waiting.pop_front();
        auto it = m_pauseMask.find(easy);
        const int mask = it == m_pauseMask.end() ? 0 : (it->second & ~pauseBit(direction));
        if (it != m_pauseMask.end()) {
            if (mask == 0)
                m_pauseMask.erase(it);
            else
                it->second = mask;
        }
        // May call the transfer's callbacks right away, which may pause it again.
        curl_easy_pause(easy, mask);
    }
}

int CKXBandwidthLimiter::msUntilResume()
{
    int wait = -1;
    for (int direction = Send; direction <= Receive; ++direction) {
        if (m_paused[direction].empty())
            continue;
        const int ms = m_buckets[direction].msUntilAvailable();
        wait = wait < 0 ? ms : std::min(wait, ms);
    }
    return wait;
}

void CKXBandwidthLimiter::forget(CURL* easy)
{
    m_pauseMask.erase(easy);
    for (std::deque<CURL*>& waiting : m_paused)
        waiting.erase(std::remove(waiting.begin(), waiting.end(), easy), waiting.end());
}
