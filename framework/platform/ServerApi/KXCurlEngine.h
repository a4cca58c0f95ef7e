#pragma once

// Entry to the library thread for every operation: hands each request a fresh id and passes it
// to the current worker, starting one on first use; routes cancels; stops the worker on shutdown.
//
// A process-wide singleton (inst()); its destructor at process exit shuts the library down. It
// shares the current worker with callers that are handing it a request; whoever stops a worker
// joins it before letting go, or files it in m_retired to be joined by the next shutdown.

#include "KXHttpExchange.h"

#include <atomic>
#include <memory>
#include <mutex>
#include <vector>

class CKXCurlWorker;

class CKXCurlEngine
{
public:
    static CKXCurlEngine& inst();

    qint64 submit(KXHttpExchange exchange);
    void cancel(qint64 requestId);
    // Completes every request with ErrorShutdown and waits for the library thread to end. Called
    // from a callback (on the library thread itself) it cannot wait: that thread ends after the
    // callback returns and is joined by the next shutdown.
    void shutdown();

private:
    CKXCurlEngine();
    ~CKXCurlEngine();

    std::shared_ptr<CKXCurlWorker> currentWorker();

    std::mutex m_mutex; // guards m_worker and m_retired
    std::shared_ptr<CKXCurlWorker> m_worker;
    std::vector<std::shared_ptr<CKXCurlWorker>> m_retired; // stopped, not yet joined

    std::mutex m_shutdownMutex; // one shutdown waits at a time; the others wait for it
    std::atomic<qint64> m_nextId{1};
};
