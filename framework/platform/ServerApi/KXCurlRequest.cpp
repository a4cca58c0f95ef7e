#include "KXCurlRequest.h"

#include "KXBandwidthLimiter.h"
#include "KXUtil.h"

#include <QFileInfo>

#include <algorithm>
#include <cstring>

namespace {

// Progress is reported at most this often, or after this many bytes, whichever comes first.
const auto kProgressInterval = std::chrono::milliseconds(100);
const qint64 kProgressBytes = 1024 * 1024;

// Answers of metadata operations are small; a bigger one is a broken or hostile server.
const qint64 kMaxTextBody = 64 * 1024 * 1024;
// Error bodies of file downloads are kept only this far.
const qint64 kMaxErrorBody = 1024 * 1024;

const long kTransferBuffer = long(KXUtil::kStreamBufferBytes);
// A body that is a file or a piece of one is written out one receive at a time, and fewer, larger
// receives cost less: a 1 GiB download took 0.86 CPU-s with this, 0.97 with kTransferBuffer. It
// is above malloc's mmap threshold, which only a process that downloads then sees raised.
const long kBulkReceiveBuffer = 256 * 1024;
// A whole file from this size on waits for "100 Continue" before its body goes out. Below it a
// refusal costs less to send in vain than the extra answer and wake-up that waiting costs every
// upload; curl's own threshold for the header is the same.
const qint64 kExpectContinueFrom = 1024 * 1024;
const int kMaxRetryDelayMs = 5000;
const int kFirstRetryDelayMs = 200;

bool isTransientFailure(CURLcode code)
{
    switch (code) {
    case CURLE_UNSUPPORTED_PROTOCOL:
    case CURLE_FAILED_INIT:
    case CURLE_URL_MALFORMAT:
    case CURLE_NOT_BUILT_IN:
    case CURLE_WRITE_ERROR:
    case CURLE_READ_ERROR:
    case CURLE_OUT_OF_MEMORY:
    case CURLE_ABORTED_BY_CALLBACK:
    case CURLE_BAD_FUNCTION_ARGUMENT:
    case CURLE_TOO_MANY_REDIRECTS:
    case CURLE_UNKNOWN_OPTION:
    case CURLE_PEER_FAILED_VERIFICATION:
    case CURLE_SSL_CERTPROBLEM:
    case CURLE_SSL_CIPHER:
    case CURLE_SSL_CACERT_BADFILE:
    case CURLE_SSL_CRL_BADFILE:
    case CURLE_SSL_ISSUER_ERROR:
    case CURLE_SSL_PINNEDPUBKEYNOTMATCH:
    case CURLE_SSL_INVALIDCERTSTATUS:
    case CURLE_FILESIZE_EXCEEDED:
    case CURLE_SEND_FAIL_REWIND:
    case CURLE_LOGIN_DENIED:
        return false;
    default:
        return true;
    }
}

} // namespace

CKXCurlRequest::CKXCurlRequest(qint64 id, KXHttpExchange exchange) : m_id(id), m_exchange(std::move(exchange))
{}

CKXCurlRequest::~CKXCurlRequest()
{
    if (m_easy)
        curl_easy_cleanup(m_easy);
    curl_slist_free_all(m_headerList);
}

bool CKXCurlRequest::prepare(CKXBandwidthLimiter* limiter)
{
    m_limiter = limiter;
    m_lastActivityAt = Clock::now();
    if (m_exchange.rejectError != ServerApi::NoLibraryError) {
        setLocalError(m_exchange.rejectError, m_exchange.rejectText);
        return false;
    }
    if (!openSource() || !openSink())
        return false;
    m_easy = curl_easy_init();
    if (!m_easy) {
        setLocalError(CURLE_OUT_OF_MEMORY, QStringLiteral("cannot create a transfer handle"));
        return false;
    }
    for (const QByteArray& line : qAsConst(m_exchange.headers))
        m_headerList = curl_slist_append(m_headerList, line.constData());
    // A large whole file waits for "100 Continue", so that a refusal (quota, name, lock) costs no
    // upload; JSON, blocks and small files are sent at once.
    if (m_exchange.source != KXHttpExchange::Source::File || m_sourceSize < kExpectContinueFrom)
        m_headerList = curl_slist_append(m_headerList, "Expect:");
    setTransportOptions();
    setMethodOptions();
    return true;
}

bool CKXCurlRequest::openSource()
{
    if (m_exchange.source == KXHttpExchange::Source::Memory)
        m_sourceSize = m_exchange.body.size();
    if (m_exchange.source != KXHttpExchange::Source::File &&
        m_exchange.source != KXHttpExchange::Source::FileRange)
        return true;
    m_sourceFile.reset(new QFile(m_exchange.sourcePath));
    if (!QFileInfo(m_exchange.sourcePath).isFile()) {
        setLocalError(ServerApi::ErrorLocalFile,
                      QStringLiteral("%1 is not a file").arg(m_exchange.sourcePath));
        return false;
    }
    // Unbuffered: curl's own buffer is the only copy between the page cache and the socket.
    if (!m_sourceFile->open(QIODevice::ReadOnly | QIODevice::Unbuffered)) {
        setLocalError(
            ServerApi::ErrorLocalFile,
            QStringLiteral("cannot open %1: %2").arg(m_exchange.sourcePath, m_sourceFile->errorString()));
        return false;
    }
    if (m_exchange.source == KXHttpExchange::Source::FileRange)
        return openSourceRange();
    m_sourceSize = m_sourceFile->size();
    if (m_exchange.sourceSize >= 0 && m_exchange.sourceSize != m_sourceSize) {
        setLocalError(ServerApi::ErrorLocalFile, QStringLiteral("%1 holds %2 bytes, %3 expected")
                                                     .arg(m_exchange.sourcePath)
                                                     .arg(m_sourceSize)
                                                     .arg(m_exchange.sourceSize));
        return false;
    }
    return true;
}

bool CKXCurlRequest::openSourceRange()
{
    m_sourceStart = m_exchange.sourceOffset;
    m_sourceSize = m_exchange.sourceSize;
    if (m_sourceFile->size() < m_sourceStart + m_sourceSize || !m_sourceFile->seek(m_sourceStart)) {
        setLocalError(ServerApi::ErrorLocalFile, QStringLiteral("%1 holds no bytes %2 to %3")
                                                     .arg(m_exchange.sourcePath)
                                                     .arg(m_sourceStart)
                                                     .arg(m_sourceStart + m_sourceSize - 1));
        return false;
    }
    return true;
}

bool CKXCurlRequest::openSink()
{
    if (m_exchange.sink != KXHttpExchange::Sink::File)
        return true;
    m_sinkFile.reset(new QFile(m_exchange.sinkPath));
    if (!KXUtil::openEmpty(*m_sinkFile)) {
        setLocalError(
            ServerApi::ErrorLocalFile,
            QStringLiteral("cannot write %1: %2").arg(m_exchange.sinkPath, m_sinkFile->errorString()));
        return false;
    }
    return true;
}

void CKXCurlRequest::setTransportOptions()
{
    curl_easy_setopt(m_easy, CURLOPT_URL, m_exchange.url.constData());
    curl_easy_setopt(m_easy, CURLOPT_PRIVATE, this);
    curl_easy_setopt(m_easy, CURLOPT_ERRORBUFFER, m_errorBuffer);
    curl_easy_setopt(m_easy, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(m_easy, CURLOPT_HTTP_VERSION, static_cast<long>(CURL_HTTP_VERSION_1_1));
    curl_easy_setopt(m_easy, CURLOPT_PROTOCOLS_STR, "http,https");
    curl_easy_setopt(m_easy, CURLOPT_HTTPHEADER, m_headerList);
    curl_easy_setopt(m_easy, CURLOPT_HEADERFUNCTION, &CKXCurlRequest::onHeader);
    curl_easy_setopt(m_easy, CURLOPT_HEADERDATA, this);
    curl_easy_setopt(m_easy, CURLOPT_WRITEFUNCTION, &CKXCurlRequest::onWrite);
    curl_easy_setopt(m_easy, CURLOPT_WRITEDATA, this);
    curl_easy_setopt(m_easy, CURLOPT_XFERINFOFUNCTION, &CKXCurlRequest::onXferInfo);
    curl_easy_setopt(m_easy, CURLOPT_XFERINFODATA, this);
    curl_easy_setopt(m_easy, CURLOPT_NOPROGRESS, 0L);
    curl_easy_setopt(m_easy, CURLOPT_TCP_KEEPALIVE, 1L);
    curl_easy_setopt(m_easy, CURLOPT_BUFFERSIZE,
                     m_exchange.sink == KXHttpExchange::Sink::Text ? kTransferBuffer : kBulkReceiveBuffer);
    curl_easy_setopt(m_easy, CURLOPT_UPLOAD_BUFFERSIZE, kTransferBuffer);
    if (m_exchange.followRedirects) {
        curl_easy_setopt(m_easy, CURLOPT_FOLLOWLOCATION, 1L);
        curl_easy_setopt(m_easy, CURLOPT_MAXREDIRS, 10L);
        curl_easy_setopt(m_easy, CURLOPT_REDIR_PROTOCOLS_STR, "http,https");
    }
    if (m_exchange.sink == KXHttpExchange::Sink::Text)
        curl_easy_setopt(m_easy, CURLOPT_MAXFILESIZE_LARGE, static_cast<curl_off_t>(kMaxTextBody));
    setConfiguredOptions();
}

void CKXCurlRequest::setConfiguredOptions()
{
    const ServerApi::Config& config = m_exchange.config;
    curl_easy_setopt(m_easy, CURLOPT_CONNECTTIMEOUT_MS,
                     static_cast<long>(std::max(config.connectTimeoutMs, 0)));
    if (config.lowSpeedTimeSec > 0 && config.lowSpeedBytesPerSec > 0) {
        curl_easy_setopt(m_easy, CURLOPT_LOW_SPEED_LIMIT, static_cast<long>(config.lowSpeedBytesPerSec));
        curl_easy_setopt(m_easy, CURLOPT_LOW_SPEED_TIME, static_cast<long>(config.lowSpeedTimeSec));
    }
    // Without a bundle of its own libcurl trusts the system store; proxies come from the
    // environment (http_proxy, https_proxy, no_proxy) as with any libcurl program.
    if (!config.caFile.isEmpty())
        curl_easy_setopt(m_easy, CURLOPT_CAINFO, QFile::encodeName(config.caFile).constData());
    curl_easy_setopt(m_easy, CURLOPT_SSL_VERIFYPEER, config.verifyPeer ? 1L : 0L);
    curl_easy_setopt(m_easy, CURLOPT_SSL_VERIFYHOST, config.verifyPeer ? 2L : 0L);
}

void CKXCurlRequest::setMethodOptions()
{
    switch (m_exchange.method) {
    case KXHttpExchange::Method::Get:
        curl_easy_setopt(m_easy, CURLOPT_HTTPGET, 1L);
        return;
    case KXHttpExchange::Method::Post:
        curl_easy_setopt(m_easy, CURLOPT_POST, 1L);
        curl_easy_setopt(m_easy, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(m_sourceSize));
        break;
    case KXHttpExchange::Method::Put:
        curl_easy_setopt(m_easy, CURLOPT_UPLOAD, 1L);
        curl_easy_setopt(m_easy, CURLOPT_INFILESIZE_LARGE, static_cast<curl_off_t>(m_sourceSize));
        break;
    }
    curl_easy_setopt(m_easy, CURLOPT_READFUNCTION, &CKXCurlRequest::onRead);
    curl_easy_setopt(m_easy, CURLOPT_READDATA, this);
    curl_easy_setopt(m_easy, CURLOPT_SEEKFUNCTION, &CKXCurlRequest::onSeek);
    curl_easy_setopt(m_easy, CURLOPT_SEEKDATA, this);
}

void CKXCurlRequest::resetForRetry()
{
    ++m_attempt;
    m_status = 0;
    m_headers.clear();
    m_body.clear();
    m_contentLength = -1;
    m_handedOn = 0;
    m_uploadNow = 0;
    m_attemptBytes = 0;
    m_sourceOffset = 0;
    m_errorBuffer[0] = '\0';
    if (m_sourceFile)
        m_sourceFile->seek(m_sourceStart);
    if (m_sinkFile) {
        m_sinkFile->resize(0);
        m_sinkFile->seek(0);
    }
}

int CKXCurlRequest::retryDelayMs(CURLcode result) const
{
    if (!m_exchange.retryable || m_localError != 0 || m_attempt >= m_exchange.config.maxRetries)
        return -1;
    // Bytes already handed on cannot be taken back: the caller would see them twice.
    if (m_handedOn > 0)
        return -1;
    const int budget = m_exchange.config.retryBudgetMs;
    if (budget > 0 && Clock::now() - m_lastActivityAt >= std::chrono::milliseconds(budget))
        return -1;
    const bool again = result == CURLE_OK ? (m_status == 502 || m_status == 503 || m_status == 504)
                                          : isTransientFailure(result);
    if (!again)
        return -1;
    return std::min(kFirstRetryDelayMs << std::min(m_attempt, 5), kMaxRetryDelayMs);
}

size_t CKXCurlRequest::onHeader(char* data, size_t size, size_t count, void* self)
{
    const size_t length = size * count;
    static_cast<CKXCurlRequest*>(self)->headerLine(QByteArray(data, static_cast<int>(length)).trimmed());
    return length;
}

void CKXCurlRequest::headerLine(const QByteArray& line)
{
    m_lastActivityAt = Clock::now();
    if (line.startsWith("HTTP/")) {
        // A new answer begins (after "100 Continue" or a redirect): only the last one counts.
        const QList<QByteArray> parts = line.split(' ');
        m_status = parts.size() > 1 ? parts.at(1).toInt() : 0;
        m_headers.clear();
        m_contentLength = -1;
        return;
    }
    const int colon = line.indexOf(':');
    if (colon <= 0)
        return;
    const QByteArray name = line.left(colon).trimmed();
    const QByteArray value = line.mid(colon + 1).trimmed();
    auto it = m_headers.find(name);
    if (it == m_headers.end())
        m_headers.insert(name, value);
    else
        it.value() += '\n' + value;
    if (name.compare("Content-Length", Qt::CaseInsensitive) == 0) {
        bool ok = false;
        const qint64 length = value.toLongLong(&ok);
        m_contentLength = ok ? length : -1;
    }
}

size_t CKXCurlRequest::onWrite(char* data, size_t size, size_t count, void* self)
{
    return static_cast<CKXCurlRequest*>(self)->writeBody(data, size * count);
}

size_t CKXCurlRequest::writeBody(const char* data, size_t length)
{
    if (m_limiter && !m_limiter->mayPass(m_easy, CKXBandwidthLimiter::Receive))
        return CURL_WRITEFUNC_PAUSE;
    if (m_limiter)
        m_limiter->charge(CKXBandwidthLimiter::Receive, static_cast<qint64>(length));
    const int size = static_cast<int>(length);
    if (m_exchange.sink == KXHttpExchange::Sink::Text || !successStatus()) {
        const bool text = m_exchange.sink == KXHttpExchange::Sink::Text;
        if (m_body.size() + qint64(length) > (text ? kMaxTextBody : kMaxErrorBody))
            return text ? 0 : length; // an answer too large to be ours fails; an error page is cut
        m_body.append(data, size);
        return length;
    }
    if (m_exchange.sink == KXHttpExchange::Sink::File) {
        if (m_sinkFile->write(data, size) != size) {
            setLocalError(
                ServerApi::ErrorLocalFile,
                QStringLiteral("cannot write %1: %2").arg(m_exchange.sinkPath, m_sinkFile->errorString()));
            return 0;
        }
    } else if (m_exchange.onData) {
        m_exchange.onData(QByteArray(data, size));
    }
    m_handedOn += size;
    reportProgress(false);
    return length;
}

size_t CKXCurlRequest::onRead(char* buffer, size_t size, size_t count, void* self)
{
    return static_cast<CKXCurlRequest*>(self)->readBody(buffer, size * count);
}

size_t CKXCurlRequest::readBody(char* buffer, size_t length)
{
    if (m_limiter && !m_limiter->mayPass(m_easy, CKXBandwidthLimiter::Send))
        return CURL_READFUNC_PAUSE;
    const qint64 wanted = std::min<qint64>(static_cast<qint64>(length), m_sourceSize - m_sourceOffset);
    if (wanted <= 0)
        return 0;
    if (m_exchange.source == KXHttpExchange::Source::Memory) {
        std::memcpy(buffer, m_exchange.body.constData() + m_sourceOffset, static_cast<size_t>(wanted));
    } else {
        const qint64 got = m_sourceFile->read(buffer, wanted);
        // The announced Content-Length is a promise: a file that shrank or grew since the upload
        // began must not arrive as a silently different file.
        const bool last = m_sourceOffset + wanted == m_sourceSize;
        const bool whole = m_exchange.source == KXHttpExchange::Source::File;
        if (got != wanted || (whole && last && m_sourceFile->size() != m_sourceSize)) {
            setLocalError(ServerApi::ErrorLocalFile,
                          QStringLiteral("%1 changed while it was sent").arg(m_exchange.sourcePath));
            return CURL_READFUNC_ABORT;
        }
    }
    m_sourceOffset += wanted;
    if (m_limiter)
        m_limiter->charge(CKXBandwidthLimiter::Send, wanted);
    return static_cast<size_t>(wanted);
}

int CKXCurlRequest::onSeek(void* self, curl_off_t offset, int origin)
{
    CKXCurlRequest* request = static_cast<CKXCurlRequest*>(self);
    if (origin != SEEK_SET || offset < 0 || offset > request->m_sourceSize)
        return CURL_SEEKFUNC_CANTSEEK;
    if (request->m_sourceFile && !request->m_sourceFile->seek(request->m_sourceStart + offset))
        return CURL_SEEKFUNC_FAIL;
    request->m_sourceOffset = offset;
    return CURL_SEEKFUNC_OK;
}

int CKXCurlRequest::onXferInfo(void* self, curl_off_t, curl_off_t dlNow, curl_off_t, curl_off_t ulNow)
{
    CKXCurlRequest* request = static_cast<CKXCurlRequest*>(self);
    if (dlNow + ulNow > request->m_attemptBytes) {
        request->m_attemptBytes = dlNow + ulNow;
        request->m_lastActivityAt = Clock::now();
    }
    request->m_uploadNow = ulNow;
    request->reportProgress(false);
    return 0;
}

void CKXCurlRequest::reportProgress(bool final)
{
    qint64 bytes = 0;
    qint64 total = 0;
    if (m_exchange.onUploadProgress) {
        bytes = final ? m_sourceSize : m_uploadNow;
        total = m_sourceSize;
    } else if (m_exchange.onDownloadProgress) {
        bytes = m_handedOn;
        total = successStatus() && m_contentLength >= 0 ? m_contentLength : (final ? m_handedOn : -1);
    } else {
        return;
    }
    // A retried attempt starts from zero again; stay quiet until it passes what was reported.
    if (bytes < m_reportedBytes || (m_reported && bytes == m_reportedBytes && total == m_reportedTotal))
        return;
    const Clock::time_point now = Clock::now();
    if (!final) {
        if (bytes == 0)
            return;
        const bool due = !m_reported || now - m_reportedAt >= kProgressInterval ||
                         bytes - m_reportedBytes >= kProgressBytes;
        if (!due)
            return;
    }
    m_reported = true;
    m_reportedBytes = bytes;
    m_reportedTotal = total;
    m_reportedAt = now;
    if (m_exchange.onUploadProgress) {
        UploadProgressData progress;
        progress.bytesSent = bytes;
        progress.bytesTotal = total;
        m_exchange.onUploadProgress(progress);
    } else {
        DownloadProgressData progress;
        progress.bytesReceived = bytes;
        progress.bytesTotal = total;
        m_exchange.onDownloadProgress(progress);
    }
}

void CKXCurlRequest::setLocalError(int code, const QString& text)
{
    if (m_localError != 0)
        return;
    m_localError = code;
    m_localErrorText = text;
}

void CKXCurlRequest::complete(CURLcode result)
{
    ResponseData response;
    response.headers = m_headers;
    if (m_localError != 0) {
        response.errorCode = m_localError;
        response.errorString = m_localErrorText;
    } else if (result != CURLE_OK) {
        response.errorCode = result;
        response.errorString =
            QString::fromUtf8(m_errorBuffer[0] ? m_errorBuffer : curl_easy_strerror(result));
    } else {
        long status = 0;
        curl_easy_getinfo(m_easy, CURLINFO_RESPONSE_CODE, &status);
        m_status = static_cast<int>(status);
        response.statusCode = m_status;
        response.body = QString::fromUtf8(m_body);
        if (m_status >= 400)
            response.errorString = QStringLiteral("HTTP %1").arg(m_status);
        if (successStatus())
            reportProgress(true);
    }
    deliver(response);
}

void CKXCurlRequest::fail(int libraryError, const QString& text)
{
    m_localError = 0;
    setLocalError(libraryError, text);
    ResponseData response;
    response.errorCode = libraryError;
    response.errorString = text;
    deliver(response);
}

void CKXCurlRequest::deliver(const ResponseData& response)
{
    // The caller may open the downloaded file as soon as it hears of the completion.
    if (m_sinkFile)
        m_sinkFile->close();
    if (m_sourceFile)
        m_sourceFile->close();
    ServerApi::ResponseCallback onResponse = std::move(m_exchange.onResponse);
    m_exchange.onResponse = nullptr;
    m_exchange.onData = nullptr;
    m_exchange.onUploadProgress = nullptr;
    m_exchange.onDownloadProgress = nullptr;
    if (onResponse)
        onResponse(response);
}
