#pragma once

// Binds handlers to cpp-httplib routes and wraps each request: refuses bodies whose framing is
// ambiguous, counts it, keeps it in flight, applies the fault armed for its operation, and tidies
// the connection afterwards. Routes whose
// bodies can be large get a preflight check that also answers "Expect: 100-continue", so a
// refused upload is refused before a byte of its body travels.
//
// Owned by the server; routes are added before serving and never change afterwards, so the
// connection threads read them without a lock.

#include "core/KXServerTypes.h"

#include <functional>
#include <regex>
#include <string>
#include <vector>

namespace httplib {
class Server;
struct Request;
struct Response;
class ContentReader;
} // namespace httplib

class CKXFaultInjector;
class CKXRequest;
class CKXServerLog;
class CKXServerStats;

class CKXRouter
{
public:
    using Handler = std::function<void(CKXRequest&)>;
    using Preflight = std::function<ServerError(const httplib::Request&, const std::smatch&)>;

    // The op "admin" marks test hooks: they need the admin token and are neither counted nor
    // subject to faults.
    CKXRouter(httplib::Server& server, CKXServerStats& stats, CKXFaultInjector& faults, CKXServerLog& log,
              std::string adminToken);

    void get(const std::string& pattern, const std::string& op, Handler handler);
    void post(const std::string& pattern, const std::string& op, Handler handler);
    void put(const std::string& pattern, const std::string& op, Handler handler, Preflight preflight = {});
    void del(const std::string& pattern, const std::string& op, Handler handler);

private:
    void dispatch(const std::string& op, const Handler& handler, const httplib::Request& req,
                  httplib::Response& res, const httplib::ContentReader* reader);
    bool applyFault(CKXRequest& request);
    int onExpectContinue(const httplib::Request& req, httplib::Response& res);
    // Answers `error` before the body is read and closes the connection afterwards.
    void refuseEarly(const ServerError& error, httplib::Response& res);
    // Runs once the answer is written: logs it, and ends a connection the answer closes.
    void onLog(const httplib::Request& req, const httplib::Response& res);

    struct PreflightRoute
    {
        std::string method;
        std::regex pattern;
        Preflight check;
    };

    httplib::Server& m_server;
    CKXServerStats& m_stats;
    CKXFaultInjector& m_faults;
    CKXServerLog& m_log;
    const std::string m_adminToken;
    std::vector<PreflightRoute> m_preflights;
};
