#include "KXRouter.h"

#include "core/KXSecret.h"
#include "http/KXHttpUtil.h"
#include "http/KXRequest.h"
#include "ops/KXFaultInjector.h"
#include "ops/KXServerLog.h"
#include "ops/KXServerStats.h"

#include <httplib.h>

#include <algorithm>

CKXRouter::CKXRouter(httplib::Server& server, CKXServerStats& stats, CKXFaultInjector& faults,
                     CKXServerLog& log, std::string adminToken)
    : m_server(server), m_stats(stats), m_faults(faults), m_log(log), m_adminToken(std::move(adminToken))
{
    m_server.set_expect_100_continue_handler(
        [this](const httplib::Request& req, httplib::Response& res) { return onExpectContinue(req, res); });
    m_server.set_error_handler(httplib::Server::HandlerWithResponse([](const httplib::Request&,
                                                                       httplib::Response& res) {
        if (!res.body.empty() || res.content_length_ > 0) {
            return httplib::Server::HandlerResponse::Unhandled;
        }
        const char* code = res.status == 404   ? "not found"
                           : res.status == 416 ? "invalid range"
                                               : "bad request";
        res.set_content(KXHttp::compact(KXHttp::errorBody(ServerError::make(res.status, code, res.reason))),
                        "application/json");
        return httplib::Server::HandlerResponse::Handled;
    }));
    m_server.set_pre_routing_handler([this](const httplib::Request& req, httplib::Response& res) {
        ServerError error = KXHttp::framingError(req);
        if (error.ok()) {
            return httplib::Server::HandlerResponse::Unhandled;
        }
        refuseEarly(error, res);
        return httplib::Server::HandlerResponse::Handled;
    });
    m_server.set_logger(
        [this](const httplib::Request& req, const httplib::Response& res) { onLog(req, res); });
}

void CKXRouter::get(const std::string& pattern, const std::string& op, Handler handler)
{
    m_server.Get(pattern, [this, op, handler](const httplib::Request& req, httplib::Response& res) {
        dispatch(op, handler, req, res, nullptr);
    });
}

void CKXRouter::post(const std::string& pattern, const std::string& op, Handler handler)
{
    m_server.Post(pattern, [this, op, handler](const httplib::Request& req, httplib::Response& res,
                                               const httplib::ContentReader& reader) {
        dispatch(op, handler, req, res, &reader);
    });
}

void CKXRouter::put(const std::string& pattern, const std::string& op, Handler handler, Preflight preflight)
{
    m_server.Put(pattern, [this, op, handler](const httplib::Request& req, httplib::Response& res,
                                              const httplib::ContentReader& reader) {
        dispatch(op, handler, req, res, &reader);
    });
    if (preflight) {
        m_preflights.push_back(PreflightRoute{"PUT", std::regex(pattern), std::move(preflight)});
    }
}

void CKXRouter::del(const std::string& pattern, const std::string& op, Handler handler)
{
    m_server.Delete(pattern, [this, op, handler](const httplib::Request& req, httplib::Response& res,
                                                 const httplib::ContentReader& reader) {
        dispatch(op, handler, req, res, &reader);
    });
}

void CKXRouter::dispatch(const std::string& op, const Handler& handler, const httplib::Request& req,
                         httplib::Response& res, const httplib::ContentReader* reader)
{
    if (op == "admin") {
        CKXRequest request(req, res, reader, nullptr, nullptr);
        if (KXSecret::constantTimeEquals(m_adminToken, req.get_header_value("X-KX-Admin"))) {
            handler(request);
        } else {
            request.replyError(ServerError::make(403, "forbidden", "X-KX-Admin missing or wrong"));
        }
        request.finish();
        return;
    }
    m_stats.add(CKXServerStats::Requests);
    Fault fault;
    bool fires = m_faults.take(op, &fault);
    CKXRequest request(req, res, reader, &m_stats, fires ? &fault : nullptr);
    request.setInflightToken(m_stats.enterRequest());
    if (!applyFault(request)) {
        handler(request);
    }
    request.finish();
}

// Faults that act before the handler; true when the request is answered already.
bool CKXRouter::applyFault(CKXRequest& request)
{
    if (request.faultIs("delay")) {
        m_faults.delay(request.fault().ms);
        return false;
    }
    if (request.faultIs("status")) {
        const Fault& f = request.fault();
        request.replyError(ServerError::make(f.status, f.code, "injected fault"));
        return true;
    }
    return false;
}

int CKXRouter::onExpectContinue(const httplib::Request& req, httplib::Response& res)
{
    ServerError error = KXHttp::framingError(req);
    for (const PreflightRoute& route : m_preflights) {
        std::smatch match;
        if (!error.ok() || route.method != req.method || !std::regex_match(req.path, match, route.pattern)) {
            continue;
        }
        error = route.check(req, match);
        break;
    }
    if (error.ok()) {
        return 100;
    }
    refuseEarly(error, res);
    // This early answer is written without httplib's usual framing headers.
    res.set_header("Content-Length", std::to_string(res.body.size()));
    return error.status;
}

void CKXRouter::refuseEarly(const ServerError& error, httplib::Response& res)
{
    m_stats.add(CKXServerStats::Requests);
    res.status = error.status;
    res.set_header("Connection", "close");
    res.set_content(KXHttp::compact(KXHttp::errorBody(error)), "application/json");
}

void CKXRouter::onLog(const httplib::Request& req, const httplib::Response& res)
{
    // The path only: raw addresses carry the session in the query. Control characters a client
    // smuggled into the path must not forge log lines.
    std::string path = req.path;
    std::replace_if(
        path.begin(), path.end(), [](unsigned char c) { return c < 0x20 || c == 0x7f; }, '?');
    m_log.line(req.remote_addr + " " + req.method + " " + path + " " + std::to_string(res.status));
    // The answer is out. httplib keeps a connection only the answer marked for closing (the rest
    // of its request is still unread), and would take what follows for a new request.
    if (res.get_header_value("Connection") == "close" && req.get_header_value("Connection") != "close") {
        KXHttp::dropConnection(req);
    }
}
