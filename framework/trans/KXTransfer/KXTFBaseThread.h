#pragma once

// Common base of every engine thread: transfers, the finishing thread and the block threads.
// Cancellation is cooperative (cancel() requests, isCancelled() tells, waitUntilCancelled() sleeps
// until it comes) and stopping blocks (end() waits without time-out); a thread is never
// terminated. Whoever deletes a thread object calls end() first, from another thread.
//
// The base also carries the one way engine threads wait for a server answer: the request's
// completion callback (on the server library's thread) records the answer and ends the nested
// event loop that waitFor() runs on this thread.

#include "ServerApiTypes.h"

#include <QMutex>
#include <QThread>
#include <QWaitCondition>

#include <atomic>
#include <functional>
#include <memory>

class CKXTFBaseThread : public QThread
{
    Q_OBJECT
public:
    CKXTFBaseThread();
    ~CKXTFBaseThread() override;

    // Requests the stop, also before the thread runs, and wakes waitUntilCancelled().
    virtual void cancel();
    virtual bool end();
    virtual bool isCancelled();

public slots:
    virtual void threadEnd();
    virtual void threadStart();

protected:
    // State shared by a waiting thread and the completion callback of its request. It outlives
    // both sides, so a late callback never touches a destroyed thread or parser.
    struct PendingRequest
    {
        QMutex mutex;
        bool done = false;
        QThread* waiter = nullptr;
    };
    using Pending = std::shared_ptr<PendingRequest>;

    // A fresh pending request whose completion will wake this thread.
    Pending newRequest();
    // The completion callback to hand to ServerApi: runs `onResponse` (typically a parser's
    // ParseResp), then marks the request done and ends this thread's nested event loop.
    static ServerApi::ResponseCallback completion(const Pending& pending,
                                                  std::function<void(const ResponseData&)> onResponse);
    // Runs nested event loops (QThread::exec) on this thread until the completion has run. A stray
    // exit() from elsewhere does not end the wait early: the parser is only read once it is filled.
    void waitFor(const Pending& pending);

    // Sleeps on this thread until cancel() has been called.
    void waitUntilCancelled();

private:
    std::atomic<bool> m_cancelRequested{false};
    // Guards the check of m_cancelRequested before a sleep on m_cancelled against the wake-up.
    QMutex m_cancelMutex;
    QWaitCondition m_cancelled; // woken by cancel()
};
