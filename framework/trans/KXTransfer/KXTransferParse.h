#pragma once

// Readers of the server's answers. A transfer creates one parser in the stack frame of a request,
// hands it the ResponseData once from the completion callback (ParseResp) and reads the accessors
// on its own thread after the callback has ended its event loop. One thread at a time touches a
// parser, so none holds a lock. Nothing here throws: every failure is left in the accessors.
//
// ParseResp sends a status in 200..399 to onComplete and anything else to onError. The base reads
// the server's error object; the concrete parsers override onComplete only.

#include "KXTransferDefine.h"
#include "ServerApiTypes.h"

#include <QByteArray>
#include <QHash>
#include <QString>
#include <QStringList>

// The fields of a server error answer. `state` also carries the JSON parse error number, and the
// authorisation parsers put ResponseInvalid there when the answer is unusable.
struct TransferErrorMessage
{
    QString message;
    QString msgcode;
    qint32 state = 0;
    QString code;
    QString type;
};

class CKXParseProcessor
{
public:
    CKXParseProcessor() = default;
    virtual ~CKXParseProcessor() = default;

    virtual void ParseResp(const ResponseData& response);
    virtual void onComplete(const QString& body);
    virtual void onError(const QString& body);

    virtual TransferErrorMessage errorMsg() const { return m_errorMsg; }
    virtual QString body() const { return m_body; }
    virtual qint32 statusCode() const { return m_statusCode; }
    // The library's error number, or the mapped ErrorCode when an error answer carried a "code".
    virtual qint32 errorCode() const { return m_errorCode; }
    virtual QHash<QByteArray, QByteArray> headers() const { return m_headers; }
    // True for a nonzero errorCode() or a status outside 200..399.
    virtual bool hasError() const;

    // Maps the server's "code" string; the tests run in a fixed order, first match wins.
    ErrorCode transferErrorCode(const QString& code) const;

protected:
    // For answers that arrive with a success status but cannot be used.
    void setParseFailure(const QString& message, qint32 state);

private:
    TransferErrorMessage m_errorMsg;
    QString m_body;
    qint32 m_statusCode = 0;
    qint32 m_errorCode = 0;
    QHash<QByteArray, QByteArray> m_headers;
    ResponseData m_response;
};

// Adds the renewed session id of the answer body and the "S" cookie of the answer headers.
class KXBaseParse : public CKXParseProcessor
{
public:
    void onComplete(const QString& body) override;

    QString sessiondId() const { return m_sessionId; }
    // The value of the last "Set-Cookie" piece that starts with "S=", taken after its last '='.
    QString s();

private:
    QString m_sessionId;
    QString m_s;
};

// Answer of a hash query: the upload session and the blocks the server still lacks.
class CKXQueryHashParse : public KXBaseParse
{
public:
    void onComplete(const QString& body) override;
    virtual void pHash(const QString& body);

    QString upload_id() const { return m_uploadId; }
    QStringList blockHashes() const { return m_blockHashes; }
    // False means the server holds every block already: a quick transfer.
    bool need_upload() const { return !m_blockHashes.isEmpty(); }

private:
    QString m_uploadId;
    QStringList m_blockHashes;
};

// Answer of a commit: the hash-query fields plus the new entry's metadata and path.
class CKXCommitHashParse : public CKXQueryHashParse
{
public:
    void onComplete(const QString& body) override;

    QString meta() const { return m_meta; }
    QString path() const { return m_path; }

    // The "metadata" object cut out of the raw text by counting braces, or the whole text when
    // there is none. Braces inside strings count too, so such values cut at the wrong place.
    static QString getMetaString(const QString& text);
    void pMeta(const QString& text);
    void parsePath(const QString& meta);

private:
    QString m_meta;
    QString m_path;
};

class CKXChunkedUploadParse : public KXBaseParse
{
public:
    void onComplete(const QString& body) override;

    QString uploadId() const { return m_uploadId; }
    QString hash() const { return m_hash; }
    QString status() const { return m_status; }

private:
    QString m_uploadId;
    QString m_hash;
    QString m_status;
};

// Answer of a whole-file upload: the body is the new entry's metadata.
class CKXUploadParse : public KXBaseParse
{
public:
    void onComplete(const QString& body) override;

    QString meta() const { return m_meta; }
    QString path() const { return m_path; }

private:
    QString m_meta;
    QString m_path;
};

// Answer of an upload authorisation: the data server the file goes to. An empty or malformed
// answer leaves the host empty and puts ResponseInvalid into errorMsg().state.
class CKXAuthUplaodParse : public KXBaseParse
{
public:
    void onComplete(const QString& body) override;

    QString getDataServerHost() const { return m_dataServerHost; }

private:
    QString m_dataServerHost;
};

class CKXDeliveryUploadParse : public KXBaseParse
{
public:
    void onComplete(const QString& body) override;

    QString meta() const { return m_meta; }

private:
    QString m_meta;
};

// The file data arrives through the data callback; only the status and error path matter.
class CKXDeliveryDownloadParse : public KXBaseParse
{
public:
    void onComplete(const QString& body) override;
};

// Answer of a share-link upload authorisation. Failures are reported as by CKXAuthUplaodParse.
class CKXDeliveryAuthUploadParse : public KXBaseParse
{
public:
    void onComplete(const QString& body) override;

    // True only for the JSON literal true; a number or a string reads as false.
    bool result() const { return m_result; }
    QString deliverySessionId() const { return m_deliverySessionId; }
    QString uploadUrl() const { return m_uploadUrl; }
    QString LBC() const { return m_lbc; }

private:
    bool m_result = false;
    QString m_deliverySessionId;
    QString m_uploadUrl;
    QString m_lbc;
};

// Ranged downloads: the data arrives through the data callback.
class CKXDlRouterParse : public KXBaseParse
{
public:
    void onComplete(const QString& body) override;
};
