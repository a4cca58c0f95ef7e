#pragma once

// Deterministic faults for tests (POST/DELETE /admin/faults). A fault fires on the nth request of
// its operation counted from the moment it was armed, and on the count-1 requests after that.
// Shared by all connection threads; m_mutex guards m_faults and m_stopping. A delay sleeps on
// m_wake, so that a stopping server does not wait out delays no client is waiting for any more.

#include "core/KXServerTypes.h"

#include <QJsonObject>

#include <condition_variable>
#include <mutex>
#include <string>
#include <vector>

struct Fault
{
    std::string op;
    std::string action; // "status" | "drop" | "delay" | "wrong_hash" | "no_session"
    int status = 500;
    std::string code = "internal";
    qint64 ms = 1000;
    qint64 nth = 1;
    qint64 count = 1;
    qint64 seen = 0; // requests of `op` since arming
};

class CKXFaultInjector
{
public:
    static bool knownOp(const std::string& op);

    ServerError arm(const QJsonObject& params);
    void clear();
    // Advances the counters of `op`; true (and the fault) when one fires for this request.
    bool take(const std::string& op, Fault* out);
    // Holds a request for a delay fault's time, or until stopDelays().
    void delay(qint64 ms);
    // Ends every delay now and any later one at once: the server is stopping.
    void stopDelays();

private:
    std::mutex m_mutex;
    std::condition_variable m_wake;
    std::vector<Fault> m_faults; // guarded by m_mutex
    bool m_stopping = false;     // guarded by m_mutex
};
