#include "KXRequest.h"

#include "http/KXHttpUtil.h"
#include "ops/KXServerStats.h"

#include <QJsonDocument>

#include <httplib.h>

#include <algorithm>
#include <cctype>

#include <malloc.h>

namespace {

// A hash query or commit of a 1 TiB file lists 262144 hashes of 67 bytes each in compact JSON;
// 72 per hash and 64 KiB for the other members leave room for spacing.
constexpr qint64 kMaxFileBytes = qint64(1) << 40;
constexpr qint64 kMaxJsonBytes = kMaxFileBytes / kBlockSize * 72 + 65536;
constexpr qint64 kMaxDrainBytes = 8 * 1024 * 1024;
// A JSON body this large leaves megabytes in the thread's malloc arena when it is freed.
constexpr qint64 kTrimAfterJsonBytes = 1024 * 1024;

} // namespace

CKXRequest::CKXRequest(const httplib::Request& req, httplib::Response& res,
                       const httplib::ContentReader* reader, CKXServerStats* stats, const Fault* fault)
    : m_req(req), m_res(res), m_reader(reader), m_stats(stats), m_fault(fault ? *fault : Fault()),
      m_hasFault(fault != nullptr), m_dropPending(fault && fault->action == "drop")
{}

std::string CKXRequest::param(const char* key) const
{
    return m_req.get_param_value(key);
}

std::string CKXRequest::header(const char* key) const
{
    return m_req.get_header_value(key);
}

std::string CKXRequest::match(size_t index) const
{
    return index < m_req.matches.size() ? m_req.matches[index].str() : std::string();
}

qint64 CKXRequest::contentLength() const
{
    std::string value = m_req.get_header_value("Content-Length");
    bool ok = !value.empty() &&
              std::all_of(value.begin(), value.end(), [](unsigned char c) { return std::isdigit(c) != 0; }) &&
              value.size() < 19;
    return ok ? std::stoll(value) : -1;
}

bool CKXRequest::readBody(const Sink& sink)
{
    m_bodyRead = true;
    if (!m_reader) {
        return true;
    }
    qint64 length = contentLength();
    // A drop fault lets half of the body in, then cuts the connection.
    qint64 dropAt = m_dropPending ? std::max<qint64>(length < 0 ? 65536 : length / 2, 1) : -1;
    qint64 seen = 0;
    bool ok = (*m_reader)([&](const char* data, size_t size) {
        if (dropAt >= 0 && seen + static_cast<qint64>(size) >= dropAt) {
            return false;
        }
        seen += static_cast<qint64>(size);
        if (m_stats) {
            m_stats->add(CKXServerStats::BytesReceived, static_cast<qint64>(size));
        }
        return sink(data, size);
    });
    if (dropAt >= 0) {
        dropNow();
        return false;
    }
    if (!ok) {
        // Whatever is left of the body is still on the wire; the connection cannot be reused.
        m_res.set_header("Connection", "close");
    }
    return ok;
}

ServerError CKXRequest::readJson(QJsonObject* out)
{
    const ServerError tooLarge = ServerError::make(
        413, "request too large", "JSON bodies are limited to " + std::to_string(kMaxJsonBytes) + " bytes");
    if (contentLength() > kMaxJsonBytes) {
        return tooLarge;
    }
    // One buffer of the announced size, parsed in place: the body is held once, not copied.
    QByteArray body;
    body.reserve(static_cast<int>(std::max<qint64>(contentLength(), 0)));
    bool fits = true;
    bool complete = readBody([&](const char* data, size_t size) {
        fits = body.size() + static_cast<qint64>(size) <= kMaxJsonBytes;
        if (fits) {
            body.append(data, static_cast<int>(size));
        }
        return fits;
    });
    if (!fits) {
        return tooLarge;
    }
    if (!complete) {
        return ServerError::make(400, "bad request", "the request body ended early");
    }
    m_trimAfter = body.size() > kTrimAfterJsonBytes;
    QJsonParseError error;
    QJsonDocument doc = QJsonDocument::fromJson(body, &error);
    body = QByteArray();
    if (error.error != QJsonParseError::NoError) {
        return ServerError::make(400, "bad request", "malformed JSON: " + error.errorString().toStdString());
    }
    if (!doc.isObject()) {
        return ServerError::make(400, "bad request", "the body must be a JSON object");
    }
    *out = doc.object();
    return {};
}

bool CKXRequest::faultIs(const char* action) const
{
    return m_hasFault && m_fault.action == action;
}

bool CKXRequest::takeDrop()
{
    bool pending = m_dropPending;
    m_dropPending = false;
    return pending;
}

void CKXRequest::dropNow()
{
    m_dropPending = false;
    KXHttp::dropConnection(m_req);
}

void CKXRequest::replyStream(qint64 length, Source source)
{
    if (length <= 0) {
        m_res.set_content("", "application/octet-stream");
        return;
    }
    // A drop fault sends the first half of the body, then cuts the connection.
    qint64 limit = takeDrop() ? length / 2 : length;
    std::shared_ptr<void> inflight = m_inflight;
    auto provider = [source = std::move(source), limit, inflight](size_t offset, size_t want,
                                                                  httplib::DataSink& sink) {
        qint64 at = static_cast<qint64>(offset);
        if (at >= limit) {
            return false;
        }
        return source(at, std::min<qint64>(static_cast<qint64>(want), limit - at),
                      [&sink](const char* data, size_t size) { return sink.write(data, size); });
    };
    m_res.set_content_provider(static_cast<size_t>(length), "application/octet-stream", provider);
}

void CKXRequest::replyJson(const QJsonObject& body, int status)
{
    m_res.status = status;
    m_res.set_content(KXHttp::compact(body), "application/json");
}

void CKXRequest::replyError(const ServerError& error)
{
    // An error body is never a part of the file: httplib would otherwise cut it by the request's
    // Range (or turn it into an empty 416). The Request is httplib's own non-const local.
    const_cast<httplib::Request&>(m_req).ranges.clear();
    replyJson(KXHttp::errorBody(error), error.status);
}

void CKXRequest::finish()
{
    if (m_trimAfter) {
        // glibc keeps what a thread freed in that thread's arena; without this a burst of large
        // hash queries would leave the server at its peak size for good.
        ::malloc_trim(0);
    }
    if (m_dropPending) {
        if (m_reader && !m_bodyRead) {
            readBody([](const char*, size_t) { return true; });
        } else {
            dropNow();
        }
        return;
    }
    if (!m_reader || m_bodyRead) {
        return;
    }
    qint64 length = contentLength();
    if (length >= 0 && length <= kMaxDrainBytes && m_res.status != 413) {
        readBody([](const char*, size_t) { return true; });
    } else {
        m_res.set_header("Connection", "close");
    }
}
