#pragma once

// One request on the wire: its libcurl easy handle, the body it sends, where the answer goes, its
// progress reports and its single completion.
//
// Created by CKXCurlEngine on the caller's thread from a finished KXHttpExchange, then owned by
// the library thread's worker (CKXCurlWorker), which alone calls its methods and deletes it after
// complete(). No lock: everything here runs on the library thread.

#include "KXHttpExchange.h"

#include <curl/curl.h>

#include <QFile>

#include <chrono>
#include <memory>

class CKXBandwidthLimiter;

class CKXCurlRequest
{
public:
    CKXCurlRequest(qint64 id, KXHttpExchange exchange);
    ~CKXCurlRequest();
    CKXCurlRequest(const CKXCurlRequest&) = delete;
    CKXCurlRequest& operator=(const CKXCurlRequest&) = delete;

    qint64 id() const { return m_id; }
    CURL* handle() const { return m_easy; }
    // Found unusable when it was built: complete it at once with failureCode(), failureText().
    bool rejected() const { return m_exchange.rejectError != ServerApi::NoLibraryError; }

    // Sets up the easy handle and opens the local files for the first attempt. False: the request
    // cannot be sent; complete it with the error kept by failure().
    bool prepare(CKXBandwidthLimiter* limiter);
    // Rewinds body and answer for another attempt on the same handle.
    void resetForRetry();
    // After a finished attempt: milliseconds to wait before sending it again, or -1 for no retry.
    int retryDelayMs(CURLcode result) const;

    // Ends the request with the outcome of its last attempt, or with a library error of its own
    // (cancel, shutdown, local file). Calls the final progress report and the completion; nothing
    // of this request is called afterwards.
    void complete(CURLcode result);
    void fail(int libraryError, const QString& text);
    int failureCode() const { return rejected() ? m_exchange.rejectError : m_localError; }
    QString failureText() const { return rejected() ? m_exchange.rejectText : m_localErrorText; }

private:
    using Clock = std::chrono::steady_clock;

    static size_t onHeader(char* data, size_t size, size_t count, void* self);
    static size_t onWrite(char* data, size_t size, size_t count, void* self);
    static size_t onRead(char* buffer, size_t size, size_t count, void* self);
    static int onSeek(void* self, curl_off_t offset, int origin);
    static int onXferInfo(void* self, curl_off_t dlTotal, curl_off_t dlNow, curl_off_t ulTotal,
                          curl_off_t ulNow);

    bool openSource();
    bool openSourceRange();
    bool openSink();
    void setMethodOptions();
    void setTransportOptions();
    void setConfiguredOptions();
    void headerLine(const QByteArray& line);
    size_t writeBody(const char* data, size_t length);
    size_t readBody(char* buffer, size_t length);
    bool successStatus() const { return m_status >= 200 && m_status < 300; }
    void setLocalError(int code, const QString& text);
    void reportProgress(bool final);
    void deliver(const ResponseData& response);

    qint64 m_id;
    KXHttpExchange m_exchange;
    CURL* m_easy = nullptr;
    curl_slist* m_headerList = nullptr;
    CKXBandwidthLimiter* m_limiter = nullptr;
    char m_errorBuffer[CURL_ERROR_SIZE] = {};

    std::unique_ptr<QFile> m_sourceFile;
    std::unique_ptr<QFile> m_sinkFile;
    qint64 m_sourceStart = 0; // where the bytes sent begin in m_sourceFile
    qint64 m_sourceSize = 0;
    qint64 m_sourceOffset = 0;

    // the answer of the current attempt
    int m_status = 0;
    QHash<QByteArray, QByteArray> m_headers;
    QByteArray m_body;
    qint64 m_contentLength = -1;
    qint64 m_handedOn = 0; // bytes of a 2xx body given to the data callback or the file

    int m_attempt = 0;
    // when a byte last moved either way (or the first attempt began); read by retryDelayMs
    Clock::time_point m_lastActivityAt = Clock::now();
    curl_off_t m_attemptBytes = 0; // bytes moved by the current attempt, as libcurl counts them
    int m_localError = 0;
    QString m_localErrorText;

    // progress already reported: cumulative and never going back, even across attempts
    bool m_reported = false;
    qint64 m_reportedBytes = 0;
    qint64 m_reportedTotal = 0;
    qint64 m_uploadNow = 0;
    Clock::time_point m_reportedAt;
};
