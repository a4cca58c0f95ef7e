#pragma once

// Blocking HTTP exchanges over libcurl for tests and benchmarks: one call, one request, the whole
// answer in memory. Safe to call from any number of threads at once (one easy handle per call).
// The only place outside the server-API library where the tests and benchmarks call libcurl.

#include <QByteArray>
#include <QJsonObject>
#include <QList>
#include <QMap>
#include <QString>

struct TestHttpRequest
{
    QByteArray method = "GET";
    QString url;
    QByteArray body;
    QList<QByteArray> headers;   // "Name: value"
    QString caFile;              // PEM to trust for https; empty: the system store
    bool expectContinue = false; // send "Expect: 100-continue" (curl's habit for large bodies)
};

struct TestHttpReply
{
    int status = 0;   // 0 when no answer arrived
    int curlCode = 0; // CURLcode of the exchange
    QByteArray body;
    QMap<QByteArray, QByteArray> headers; // names in lower case, last value wins

    QJsonObject json() const;
    // The "code" of an error answer.
    QString code() const { return json().value("code").toString(); }
};

class CKXTestHttp
{
public:
    static TestHttpReply send(const TestHttpRequest& request);

    static TestHttpReply get(const QString& url, const QList<QByteArray>& headers = {});
    static TestHttpReply post(const QString& url, const QJsonObject& body,
                              const QList<QByteArray>& headers = {});
    static TestHttpReply put(const QString& url, const QByteArray& body,
                             const QList<QByteArray>& headers = {});
    // Percent-encodes a query value.
    static QString encode(const QString& value);
};

// The same exchanges over one kept-alive connection, as a client that sends many requests in a row
// does. One object per thread; the connection closes with the object.
class CKXTestHttpSession
{
public:
    CKXTestHttpSession();
    ~CKXTestHttpSession();
    CKXTestHttpSession(const CKXTestHttpSession&) = delete;
    CKXTestHttpSession& operator=(const CKXTestHttpSession&) = delete;

    TestHttpReply send(const TestHttpRequest& request);

private:
    void* m_curl; // CURL*, kept out of this header
};
