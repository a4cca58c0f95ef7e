#include "KXRequestBuilder.h"

#include "KXConfigStore.h"
#include "KXCurlEngine.h"

#include <QJsonDocument>
#include <QUrl>

namespace {

// A value that would end a header line early must never reach the wire.
bool safeHeaderValue(const QString& value)
{
    return !value.contains(QLatin1Char('\r')) && !value.contains(QLatin1Char('\n')) &&
           !value.contains(QChar(0));
}

QString withoutTrailingSlash(QString address)
{
    while (address.endsWith(QLatin1Char('/')))
        address.chop(1);
    return address;
}

} // namespace

CKXRequestBuilder::CKXRequestBuilder(const QString& host)
{
    m_exchange.config = CKXConfigStore::inst().get();
    const QString base = withoutTrailingSlash((host.isEmpty() ? m_exchange.config.baseUrl : host).trimmed());
    if (base.isEmpty())
        reject(QStringLiteral("no server address configured"));
    m_exchange.url = base.toUtf8();
}

CKXRequestBuilder::CKXRequestBuilder(PlainAddress)
{
    m_exchange.config = CKXConfigStore::inst().get();
}

CKXRequestBuilder CKXRequestBuilder::fromAddress(const QString& address)
{
    CKXRequestBuilder builder{PlainAddress()};
    builder.m_exchange.url = address.trimmed().toUtf8();
    if (builder.m_exchange.url.isEmpty())
        builder.reject(QStringLiteral("empty address"));
    return builder;
}

CKXRequestBuilder& CKXRequestBuilder::path(const QString& path)
{
    m_exchange.url += path.toUtf8();
    return *this;
}

CKXRequestBuilder& CKXRequestBuilder::query(const char* key, const QString& value)
{
    m_query += (m_query.isEmpty() ? "?" : "&") + QByteArray(key) + '=' + QUrl::toPercentEncoding(value);
    return *this;
}

CKXRequestBuilder& CKXRequestBuilder::header(const QByteArray& name, const QString& value)
{
    if (!safeHeaderValue(value))
        reject(QStringLiteral("line break in the value of %1").arg(QString::fromLatin1(name)));
    else
        m_exchange.headers << name + ": " + value.toUtf8();
    return *this;
}

CKXRequestBuilder& CKXRequestBuilder::accountSession()
{
    if (!m_exchange.config.sessionId.isEmpty())
        header("X-ORBALA-SESS-ID", m_exchange.config.sessionId);
    return *this;
}

CKXRequestBuilder& CKXRequestBuilder::shareSession(const QString& sessionId)
{
    if (sessionId.isEmpty())
        return *this;
    header("X-Share-Session", sessionId);
    return header("Cookie", QStringLiteral("S=") + sessionId);
}

CKXRequestBuilder& CKXRequestBuilder::shareToken(const QString& token)
{
    if (!token.isEmpty())
        header("X-Share-Token", token);
    return *this;
}

CKXRequestBuilder& CKXRequestBuilder::range(const QString& range)
{
    if (!range.isEmpty())
        header("Range", range);
    return *this;
}

CKXRequestBuilder& CKXRequestBuilder::postJson(const QJsonObject& body)
{
    m_exchange.method = KXHttpExchange::Method::Post;
    m_exchange.source = KXHttpExchange::Source::Memory;
    m_exchange.body = QJsonDocument(body).toJson(QJsonDocument::Compact);
    m_exchange.headers << "Content-Type: application/json";
    return *this;
}

CKXRequestBuilder& CKXRequestBuilder::putData(const QByteArray& data)
{
    m_exchange.method = KXHttpExchange::Method::Put;
    m_exchange.source = KXHttpExchange::Source::Memory;
    m_exchange.body = data;
    m_exchange.headers << "Content-Type: application/octet-stream";
    return *this;
}

CKXRequestBuilder& CKXRequestBuilder::putFile(const QString& localPath, qint64 expectedSize)
{
    require(!localPath.isEmpty(), "local file");
    m_exchange.method = KXHttpExchange::Method::Put;
    m_exchange.source = KXHttpExchange::Source::File;
    m_exchange.sourcePath = localPath;
    // A size of 0 is what an unset model holds: take the file as it is then.
    m_exchange.sourceSize = expectedSize > 0 ? expectedSize : -1;
    m_exchange.headers << "Content-Type: application/octet-stream";
    return *this;
}

CKXRequestBuilder& CKXRequestBuilder::putFileRange(const QString& localPath, qint64 offset, qint64 length)
{
    require(!localPath.isEmpty() && offset >= 0 && length > 0, "file range");
    m_exchange.method = KXHttpExchange::Method::Put;
    m_exchange.source = KXHttpExchange::Source::FileRange;
    m_exchange.sourcePath = localPath;
    m_exchange.sourceOffset = offset;
    m_exchange.sourceSize = length;
    m_exchange.headers << "Content-Type: application/octet-stream";
    return *this;
}

CKXRequestBuilder& CKXRequestBuilder::require(bool condition, const char* what)
{
    if (!condition)
        reject(QStringLiteral("missing or malformed %1").arg(QString::fromLatin1(what)));
    return *this;
}

CKXRequestBuilder& CKXRequestBuilder::retryable()
{
    m_exchange.retryable = true;
    return *this;
}

CKXRequestBuilder& CKXRequestBuilder::followRedirects()
{
    m_exchange.followRedirects = true;
    return *this;
}

void CKXRequestBuilder::reject(const QString& reason)
{
    if (m_exchange.rejectError != ServerApi::NoLibraryError)
        return;
    m_exchange.rejectError = ServerApi::ErrorBadArgument;
    m_exchange.rejectText = reason;
}

qint64 CKXRequestBuilder::receiveText(ServerApi::ResponseCallback onResponse)
{
    m_exchange.onResponse = std::move(onResponse);
    return submit();
}

qint64 CKXRequestBuilder::receiveData(ServerApi::DataCallback onData, ServerApi::ResponseCallback onResponse,
                                      ServerApi::DownloadProgressCallback onProgress)
{
    m_exchange.sink = KXHttpExchange::Sink::Data;
    m_exchange.onData = std::move(onData);
    m_exchange.onDownloadProgress = std::move(onProgress);
    return receiveText(std::move(onResponse));
}

qint64 CKXRequestBuilder::receiveFile(const QString& localPath, ServerApi::ResponseCallback onResponse,
                                      ServerApi::DownloadProgressCallback onProgress)
{
    require(!localPath.isEmpty(), "local file");
    m_exchange.sink = KXHttpExchange::Sink::File;
    m_exchange.sinkPath = localPath;
    m_exchange.onDownloadProgress = std::move(onProgress);
    return receiveText(std::move(onResponse));
}

qint64 CKXRequestBuilder::sendWithProgress(ServerApi::ResponseCallback onResponse,
                                           ServerApi::UploadProgressCallback onProgress)
{
    m_exchange.onUploadProgress = std::move(onProgress);
    return receiveText(std::move(onResponse));
}

qint64 CKXRequestBuilder::submit()
{
    m_exchange.url += m_query;
    return CKXCurlEngine::inst().submit(std::move(m_exchange));
}
