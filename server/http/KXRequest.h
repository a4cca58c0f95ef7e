#pragma once

// One HTTP request as the handlers see it: parameters, the body (streamed, counted, and cut short
// when a "drop" fault is armed), the reply, and the fault that applies to it. Lives in the stack
// frame of the router's dispatch, on the connection's thread.

#include "core/KXServerTypes.h"
#include "ops/KXFaultInjector.h"

#include <QJsonObject>

#include <functional>
#include <memory>
#include <string>

namespace httplib {
struct Request;
struct Response;
class ContentReader;
} // namespace httplib

class CKXServerStats;

class CKXRequest
{
public:
    using Sink = std::function<bool(const char* data, size_t size)>;

    // `reader` is null when the request carries no body; `stats` null for requests that are not
    // counted (the test hooks); `fault` null when none fires.
    CKXRequest(const httplib::Request& req, httplib::Response& res, const httplib::ContentReader* reader,
               CKXServerStats* stats, const Fault* fault);

    const httplib::Request& http() const { return m_req; }
    httplib::Response& response() { return m_res; }
    std::string param(const char* key) const;
    std::string header(const char* key) const;
    std::string match(size_t index) const; // capture group of the route pattern

    bool hasBody() const { return m_reader != nullptr; }
    qint64 contentLength() const; // -1 when not announced
    // Feeds the body to `sink` as it arrives; false when it ended early or `sink` refused.
    bool readBody(const Sink& sink);
    // Reads a JSON object body no larger than the largest request needs (the block hashes of a
    // 1 TiB file); a larger announced body is refused before it is read.
    ServerError readJson(QJsonObject* out);

    bool faultIs(const char* action) const;
    const Fault& fault() const { return m_fault; }
    // The caller takes over an armed "drop" (a download cuts its body short itself).
    bool takeDrop();
    void dropNow();

    // Writes up to `want` bytes from `offset` into the body to `write`; false when it cannot.
    using Source = std::function<bool(qint64 offset, qint64 want, const Sink& write)>;
    // Answers with a body of `length` bytes that `source` yields as the client takes them; an
    // armed "drop" sends the first half, then cuts the connection. The request stays counted as
    // in flight until the body is sent.
    void replyStream(qint64 length, Source source);
    void replyJson(const QJsonObject& body, int status = 200);
    void replyError(const ServerError& error);

    void setInflightToken(std::shared_ptr<void> token) { m_inflight = std::move(token); }
    const std::shared_ptr<void>& inflightToken() const { return m_inflight; }

    // After the handler: returns the memory a large JSON body took to the system, carries out a
    // pending drop, and reads away an unread small body so the
    // connection stays usable (a large one, or one refused as too large, closes the connection
    // instead).
    void finish();

private:
    const httplib::Request& m_req;
    httplib::Response& m_res;
    const httplib::ContentReader* m_reader;
    CKXServerStats* m_stats;
    Fault m_fault;
    bool m_hasFault;
    bool m_dropPending;
    bool m_bodyRead = false;
    bool m_trimAfter = false; // a large JSON body was parsed: hand freed memory back when done
    std::shared_ptr<void> m_inflight;
};
