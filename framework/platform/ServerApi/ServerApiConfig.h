#pragma once

// Configuration of the server-API library, set by the host application (the engine never
// configures it). configure() may be called at any time; requests started afterwards use the new
// values. shutdown() completes every pending request with ErrorShutdown and stops the library's
// thread; the next request starts it again.

#include "serverapi_export.h"

#include <QString>

namespace ServerApi {

struct SERVERAPI_EXPORT Config
{
    QString baseUrl;   // "http://127.0.0.1:8080": server of every operation without its own host
    QString sessionId; // session token, sent as the X-ORBALA-SESS-ID header
    QString caFile;    // PEM bundle to trust for HTTPS; empty: the system store
    bool verifyPeer = true;
    int connectTimeoutMs = 15000;
    int lowSpeedBytesPerSec = 1; // abort a transfer slower than this ...
    int lowSpeedTimeSec = 30;    // ... for this long (the default: 30 s without a byte)
    qint64 maxSendBytesPerSec = 0; // whole-library send limit; 0: none
    qint64 maxRecvBytesPerSec = 0; // whole-library receive limit; 0: none
    int maxRetries = 3;            // transport retries of requests that are safe to repeat
    // No retry starts once a request has gone this long without a byte moving either way (counted
    // from its first attempt), so a silent server costs one stall, not one per attempt, while a
    // slow transfer that breaks is still repeated. 0: no limit besides maxRetries.
    int retryBudgetMs = 30000;
    int maxConnections = 16;       // connections kept open at once
};

SERVERAPI_EXPORT void configure(const Config& config);
SERVERAPI_EXPORT Config config();
SERVERAPI_EXPORT void shutdown();

} // namespace ServerApi
