#include "KXFaultInjector.h"

#include <algorithm>
#include <chrono>

namespace {

const char* const kOps[] = {"metadata",     "auth",   "file_upload", "download", "hash",
                            "block_upload", "commit", "share_auth",  "log",      "folder"};
const char* const kActions[] = {"status", "drop", "delay", "wrong_hash", "no_session"};

ServerError bad(const std::string& why)
{
    return ServerError::make(400, "bad request", why);
}

} // namespace

bool CKXFaultInjector::knownOp(const std::string& op)
{
    return std::find(std::begin(kOps), std::end(kOps), op) != std::end(kOps);
}

ServerError CKXFaultInjector::arm(const QJsonObject& params)
{
    Fault f;
    f.op = params.value("op").toString().toStdString();
    f.action = params.value("action").toString().toStdString();
    if (!knownOp(f.op)) {
        return bad("unknown op '" + f.op + "'");
    }
    if (std::find(std::begin(kActions), std::end(kActions), f.action) == std::end(kActions)) {
        return bad("unknown action '" + f.action + "'");
    }
    f.nth = static_cast<qint64>(params.value("nth").toDouble(1));
    f.count = static_cast<qint64>(params.value("count").toDouble(1));
    f.status = params.value("status").toInt(500);
    f.code = params.value("code").toString(QStringLiteral("internal")).toStdString();
    f.ms = static_cast<qint64>(params.value("ms").toDouble(1000));
    if (f.nth < 1 || f.count < 1 || f.status < 400 || f.status > 599 || f.ms < 0 || f.ms > 600000) {
        return bad("nth and count must be >= 1, status 400..599, ms 0..600000");
    }
    std::lock_guard<std::mutex> lock(m_mutex);
    m_faults.push_back(f);
    return {};
}

void CKXFaultInjector::clear()
{
    std::lock_guard<std::mutex> lock(m_mutex);
    m_faults.clear();
}

bool CKXFaultInjector::take(const std::string& op, Fault* out)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    bool fired = false;
    for (Fault& f : m_faults) {
        if (f.op != op) {
            continue;
        }
        ++f.seen;
        if (!fired && f.seen >= f.nth && f.seen < f.nth + f.count) {
            *out = f;
            fired = true;
        }
    }
    m_faults.erase(std::remove_if(m_faults.begin(), m_faults.end(),
                                  [](const Fault& f) { return f.seen >= f.nth + f.count - 1; }),
                   m_faults.end());
    return fired;
}

void CKXFaultInjector::delay(qint64 ms)
{
    std::unique_lock<std::mutex> lock(m_mutex);
    m_wake.wait_for(lock, std::chrono::milliseconds(ms), [this] { return m_stopping; });
}

void CKXFaultInjector::stopDelays()
{
    std::lock_guard<std::mutex> lock(m_mutex);
    m_stopping = true;
    m_wake.notify_all();
}
