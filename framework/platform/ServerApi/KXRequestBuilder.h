#pragma once

// Builds one request of the wire protocol (docs/protocol.md): server address, path,
// percent-encoded query, headers, body, and hands it to the library thread. A malformed input does
// not stop the building: it marks the request rejected, and the request then completes at once
// with ErrorBadArgument on the library thread like any other outcome.
//
// A value used on the caller's thread, one per request, dropped after submit().

#include "KXHttpExchange.h"

#include <QJsonObject>

class CKXRequestBuilder
{
public:
    // host: the model's server; empty means the configured one. An empty host with an address
    // that is complete already (plain addresses) is given through fromAddress().
    explicit CKXRequestBuilder(const QString& host = QString());
    static CKXRequestBuilder fromAddress(const QString& address);

    CKXRequestBuilder& path(const QString& path);
    CKXRequestBuilder& query(const char* key, const QString& value);
    CKXRequestBuilder& header(const QByteArray& name, const QString& value);
    CKXRequestBuilder& accountSession();
    CKXRequestBuilder& shareSession(const QString& sessionId);
    CKXRequestBuilder& shareToken(const QString& token);
    CKXRequestBuilder& range(const QString& range);
    CKXRequestBuilder& postJson(const QJsonObject& body);
    CKXRequestBuilder& putData(const QByteArray& data);
    CKXRequestBuilder& putFile(const QString& localPath, qint64 expectedSize);
    // `length` bytes of the file from `offset` on, read while they are sent.
    CKXRequestBuilder& putFileRange(const QString& localPath, qint64 offset, qint64 length);
    CKXRequestBuilder& require(bool condition, const char* what);
    CKXRequestBuilder& retryable();
    CKXRequestBuilder& followRedirects();

    qint64 receiveText(ServerApi::ResponseCallback onResponse);
    qint64 receiveData(ServerApi::DataCallback onData, ServerApi::ResponseCallback onResponse,
                       ServerApi::DownloadProgressCallback onProgress);
    qint64 receiveFile(const QString& localPath, ServerApi::ResponseCallback onResponse,
                       ServerApi::DownloadProgressCallback onProgress);
    qint64 sendWithProgress(ServerApi::ResponseCallback onResponse,
                            ServerApi::UploadProgressCallback onProgress);

private:
    struct PlainAddress
    {
    };
    explicit CKXRequestBuilder(PlainAddress);
    void reject(const QString& reason);
    qint64 submit();

    KXHttpExchange m_exchange;
    QByteArray m_query;
};
