#pragma once

// The whole library's send and receive limits: one token bucket per direction, shared by every
// transfer. A transfer that meets an empty bucket is paused (curl_easy_pause) and resumed in turn
// once tokens are back, so the limit holds for the sum of all transfers, not for each alone.
//
// Owned by the library thread's worker (CKXCurlWorker) and used on that thread only: from the
// transfers' read and write callbacks and from the worker's loop. No lock.

#include <curl/curl.h>

#include <QtGlobal>

#include <chrono>
#include <deque>
#include <unordered_map>

class CKXBandwidthLimiter
{
public:
    enum Direction
    {
        Send = 0,
        Receive = 1
    };

    // Bytes per second; 0: unlimited. Transfers waiting on a direction that became unlimited are
    // resumed by the next resumeDue().
    void setLimits(qint64 sendPerSec, qint64 receivePerSec);

    // True if the transfer may move bytes now; false if it must return the pause code from its
    // callback: the limiter then remembers it and resumes it later.
    bool mayPass(CURL* easy, Direction direction);
    // Counts bytes that were moved (may push the bucket below zero; the debt delays the next ones).
    void charge(Direction direction, qint64 bytes);

    // Resumes paused transfers, oldest first, while their bucket holds tokens.
    void resumeDue();
    // Milliseconds until a paused transfer could be resumed; -1 when none is paused.
    int msUntilResume();
    // The transfer ends: drop it from the waiting lists.
    void forget(CURL* easy);

private:
    using Clock = std::chrono::steady_clock;

    struct Bucket
    {
        qint64 rate = 0; // bytes per second, 0: unlimited
        double tokens = 0;
        double capacity = 0;
        Clock::time_point last = Clock::now();

        void setRate(qint64 bytesPerSec);
        void refill();
        bool limited() const { return rate > 0; }
        bool available() const { return rate <= 0 || tokens > 0; }
        int msUntilAvailable();
    };

    static int pauseBit(Direction direction);
    void resume(Direction direction);

    Bucket m_buckets[2];
    std::deque<CURL*> m_paused[2];              // transfers waiting for tokens, oldest first
    std::unordered_map<CURL*, int> m_pauseMask; // CURLPAUSE_* bits each waiting transfer holds
};
