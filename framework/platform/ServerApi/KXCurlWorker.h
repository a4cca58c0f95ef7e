#pragma once

// The library thread: one libcurl multi handle (one connection cache, so connections are kept
// alive and reused) and every request that is queued, running or waiting for its retry. Other
// threads only hand in requests and cancels through submit() and cancel(), which queue them and
// wake the loop; everything else happens on the worker's own thread.
//
// Created and started by CKXCurlEngine, which later calls requestStop() and join() before the
// last reference goes. The requests it holds are its own and are completed and deleted on its
// thread; once stopped, it refuses new ones and completes every request it still holds with
// ErrorShutdown before its thread ends.

#include "KXBandwidthLimiter.h"

#include <curl/curl.h>

#include <QtGlobal>

#include <chrono>
#include <deque>
#include <memory>
#include <mutex>
#include <thread>
#include <unordered_map>
#include <vector>

class CKXCurlRequest;

class CKXCurlWorker
{
public:
    CKXCurlWorker();
    ~CKXCurlWorker();
    CKXCurlWorker(const CKXCurlWorker&) = delete;
    CKXCurlWorker& operator=(const CKXCurlWorker&) = delete;

    void start();
    // Takes the request, or hands it back when the worker is stopping.
    std::unique_ptr<CKXCurlRequest> submit(std::unique_ptr<CKXCurlRequest> request);
    void cancel(qint64 requestId);
    void requestStop();
    void join();
    bool isOwnThread() const;
    // True on the thread of any worker: callbacks run there.
    static bool onLibraryThread();

private:
    using Clock = std::chrono::steady_clock;

    struct Slot
    {
        std::unique_ptr<CKXCurlRequest> request;
        bool prepared = false;
        bool running = false;        // added to the multi handle
        Clock::time_point notBefore; // a retry waits until then
    };

    void run();
    bool takeIncoming();
    void applyConfig(bool force);
    void startWaiting();
    void startRequest(qint64 id);
    void collectFinished();
    void detach(Slot& slot);
    void finish(qint64 id, CURLcode result);
    void fail(qint64 id, int libraryError, const QString& text);
    void cancelRequest(qint64 id);
    void stopAll();
    int pollTimeoutMs();

    std::mutex m_mutex; // guards m_incoming, m_cancels and m_stop
    std::vector<std::unique_ptr<CKXCurlRequest>> m_incoming;
    std::vector<qint64> m_cancels;
    bool m_stop = false;

    CURLM* m_multi = nullptr; // woken from other threads; otherwise used on the worker thread only
    std::thread m_thread;

    // worker thread only
    std::unordered_map<qint64, Slot> m_requests;
    std::deque<qint64> m_queue; // not running, in the order they may start
    int m_running = 0;
    int m_maxRunning = 16;
    quint64 m_configGeneration = 0;
    CKXBandwidthLimiter m_limiter;
};
