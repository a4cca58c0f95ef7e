#include "KXTestHttp.h"

#include <QJsonDocument>
#include <QUrl>

#include <curl/curl.h>

#include <mutex>

namespace {

struct Exchange
{
    const QByteArray* body = nullptr;
    qsizetype sent = 0;
    TestHttpReply* reply = nullptr;
};

size_t readBody(char* buffer, size_t size, size_t count, void* user)
{
    auto* ex = static_cast<Exchange*>(user);
    qsizetype n = qMin<qsizetype>(static_cast<qsizetype>(size * count), ex->body->size() - ex->sent);
    memcpy(buffer, ex->body->constData() + ex->sent, static_cast<size_t>(n));
    ex->sent += n;
    return static_cast<size_t>(n);
}

size_t writeBody(char* data, size_t size, size_t count, void* user)
{
    static_cast<Exchange*>(user)->reply->body.append(data, static_cast<int>(size * count));
    return size * count;
}

size_t writeHeader(char* data, size_t size, size_t count, void* user)
{
    QByteArray line(data, static_cast<int>(size * count));
    int colon = line.indexOf(':');
    if (colon > 0) {
        static_cast<Exchange*>(user)->reply->headers.insert(line.left(colon).trimmed().toLower(),
                                                            line.mid(colon + 1).trimmed());
    }
    return size * count;
}

void initCurlOnce()
{
    static std::once_flag once;
    std::call_once(once, [] { curl_global_init(CURL_GLOBAL_ALL); });
}

// One exchange on `curl`; every option it sets is set again by the next exchange on the handle.
TestHttpReply perform(CURL* curl, const TestHttpRequest& request)
{
    TestHttpReply reply;
    Exchange ex{&request.body, 0, &reply};
    QByteArray url = request.url.toUtf8();
    curl_easy_setopt(curl, CURLOPT_URL, url.constData());
    curl_easy_setopt(curl, CURLOPT_CUSTOMREQUEST, request.method.constData());
    curl_easy_setopt(curl, CURLOPT_PATH_AS_IS, 1L);
    curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(curl, CURLOPT_TIMEOUT, 120L);
    const bool upload = request.method == "PUT" || request.method == "POST";
    curl_easy_setopt(curl, CURLOPT_UPLOAD, upload ? 1L : 0L);
    if (upload) {
        curl_easy_setopt(curl, CURLOPT_INFILESIZE_LARGE, static_cast<curl_off_t>(request.body.size()));
        curl_easy_setopt(curl, CURLOPT_READFUNCTION, readBody);
        curl_easy_setopt(curl, CURLOPT_READDATA, &ex);
    }
    curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, writeBody);
    curl_easy_setopt(curl, CURLOPT_WRITEDATA, &ex);
    curl_easy_setopt(curl, CURLOPT_HEADERFUNCTION, writeHeader);
    curl_easy_setopt(curl, CURLOPT_HEADERDATA, &ex);
    QByteArray caFile = request.caFile.toLocal8Bit();
    if (!caFile.isEmpty()) {
        curl_easy_setopt(curl, CURLOPT_CAINFO, caFile.constData());
    }
    curl_slist* headers =
        curl_slist_append(nullptr, request.expectContinue ? "Expect: 100-continue" : "Expect:");
    for (const QByteArray& header : request.headers) {
        headers = curl_slist_append(headers, header.constData());
    }
    curl_easy_setopt(curl, CURLOPT_HTTPHEADER, headers);
    reply.curlCode = curl_easy_perform(curl);
    long status = 0;
    curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &status);
    reply.status = static_cast<int>(status);
    curl_easy_setopt(curl, CURLOPT_HTTPHEADER, nullptr);
    curl_slist_free_all(headers);
    return reply;
}

} // namespace

QJsonObject TestHttpReply::json() const
{
    return QJsonDocument::fromJson(body).object();
}

TestHttpReply CKXTestHttp::send(const TestHttpRequest& request)
{
    initCurlOnce();
    CURL* curl = curl_easy_init();
    TestHttpReply reply = perform(curl, request);
    curl_easy_cleanup(curl);
    return reply;
}

CKXTestHttpSession::CKXTestHttpSession()
{
    initCurlOnce();
    m_curl = curl_easy_init();
}

CKXTestHttpSession::~CKXTestHttpSession()
{
    curl_easy_cleanup(static_cast<CURL*>(m_curl));
}

TestHttpReply CKXTestHttpSession::send(const TestHttpRequest& request)
{
    return perform(static_cast<CURL*>(m_curl), request);
}

TestHttpReply CKXTestHttp::get(const QString& url, const QList<QByteArray>& headers)
{
    return send({"GET", url, {}, headers, {}, false});
}

TestHttpReply CKXTestHttp::post(const QString& url, const QJsonObject& body, const QList<QByteArray>& headers)
{
    const QByteArray json = QJsonDocument(body).toJson(QJsonDocument::Compact);
    return send(
        {"POST", url, json, headers + QList<QByteArray>{"Content-Type: application/json"}, {}, false});
}

TestHttpReply CKXTestHttp::put(const QString& url, const QByteArray& body, const QList<QByteArray>& headers)
{
    return send({"PUT", url, body, headers, {}, false});
}

QString CKXTestHttp::encode(const QString& value)
{
    return QString::fromLatin1(QUrl::toPercentEncoding(value));
}
