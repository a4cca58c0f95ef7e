#include "KXTransferParse.h"

#include "KXJsonUtil.h"
#include "KXLoggerWrapper.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QJsonParseError>
#include <QJsonValue>
#include <QRegExp>

#include <rapidjson/document.h>

#include <cmath>
#include <limits>

namespace {

// An object document of `body`, or an empty object when the text is not a JSON object. Answers
// that do not parse carry nothing the success paths could use.
QJsonObject jsonObjectOf(const QString& body)
{
    QJsonParseError error{};
    const QJsonDocument doc = QJsonDocument::fromJson(body.toUtf8(), &error);
    if (error.error != QJsonParseError::NoError || !doc.isObject()) {
        return QJsonObject();
    }
    return doc.object();
}

// Stores `object[key]` into `target` only when it is a string, so a missing or mistyped key
// leaves what was there.
void readString(const QJsonObject& object, const QString& key, QString& target)
{
    const QJsonValue value = object.value(key);
    if (value.isString()) {
        target = value.toString();
    }
}

// Servers send "state" as a JSON number, which may carry a fraction or be out of range.
qint32 truncatedState(double value)
{
    if (std::isnan(value)) {
        return 0;
    }
    const double low = std::numeric_limits<qint32>::min();
    const double high = std::numeric_limits<qint32>::max();
    return static_cast<qint32>(std::trunc(qBound(low, value, high)));
}

struct ErrorRule
{
    enum Match
    {
        Equals,
        Contains,
    };
    Match match;
    const char* text;
    ErrorCode code;
};

// Longer server texts contain shorter ones ("root parent folder conflict with file" holds
// "parent folder conflict with file", which holds "conflict with file"), so the order is
// significant. The numbers of the conflict pairs are the established client codes and do not
// follow the order of the rows.
const ErrorRule kErrorRules[] = {
    {ErrorRule::Equals, "Invalid session", SessionInvalid},
    {ErrorRule::Contains, "token is not exist", SessionInvalid},
    {ErrorRule::Equals, "target name exists", TargetExists},
    {ErrorRule::Equals, "folder_already_existed", TargetExists},
    {ErrorRule::Equals, "source not found", SourceNotFound},
    {ErrorRule::Equals, "nameentry_not_exist", SourceNotFound},
    {ErrorRule::Equals, "file/folder not found", SourceNotFound},
    {ErrorRule::Contains, "forbidden", Forbidden},
    {ErrorRule::Equals, "path_too_long", PathTooLong},
    {ErrorRule::Contains, "space limit", NoSpace},
    {ErrorRule::Contains, "file is locked", FileLocked},
    {ErrorRule::Contains, "private dc not allowed", PrivateDcNotAllowed},
    {ErrorRule::Contains, "invalid.hash", ContentHashError},
    {ErrorRule::Contains, "content_hash_error", ContentHashError},
    {ErrorRule::Contains, "root parent folder conflict with file", RootParentConflictWithFile},
    {ErrorRule::Contains, "root parent folder conflict with folder", RootParentConflictWithFolder},
    {ErrorRule::Contains, "parent folder conflict with folder", ParentConflictWithFolder},
    {ErrorRule::Contains, "parent folder conflict with file", ParentConflictWithFile},
    {ErrorRule::Contains, "conflict with folder", ConflictWithFolder},
    {ErrorRule::Contains, "conflict with file", ConflictWithFile},
    {ErrorRule::Contains, "file type limit", FileTypeLimit},
    {ErrorRule::Contains, "download_file_VirusF", VirusFile},
};

bool ruleMatches(const ErrorRule& rule, const QString& code)
{
    const QString text = QString::fromLatin1(rule.text);
    if (rule.match == ErrorRule::Equals) {
        return code == text;
    }
    return code.contains(text, Qt::CaseSensitive);
}

// Reads an authorisation answer with the fast reader. Returns the problem text, or nullptr
// when `doc` holds an object (with a "result" member when `needResult`).
const char* authAnswerProblem(const QString& body, rapidjson::Document& doc, bool needResult)
{
    if (body.isEmpty()) {
        return "data body is empty";
    }
    if (!CKXJsonUtil::parseObject(body, doc) || (needResult && !doc.HasMember("result"))) {
        return "json string is not correct";
    }
    return nullptr;
}

} // namespace

// ---------------------------------------------------------------------------------------------
// CKXParseProcessor

void CKXParseProcessor::ParseResp(const ResponseData& response)
{
    m_response = response;
    m_body = response.body;
    m_headers = response.headers;
    m_statusCode = response.statusCode;
    m_errorCode = response.errorCode;

    // Unsigned arithmetic keeps the range test free of overflow for any status.
    if (static_cast<quint32>(m_statusCode) - 200u <= 199u) {
        onComplete(m_body);
    } else {
        onError(m_body);
    }

    if (m_errorMsg.message.isEmpty()) {
        m_errorMsg.message = response.errorString;
    }
}

void CKXParseProcessor::onComplete(const QString& /*body*/) {}

void CKXParseProcessor::onError(const QString& body)
{
    if (body.isEmpty()) {
        return;
    }
    QJsonParseError parseError{};
    const QJsonDocument doc = QJsonDocument::fromJson(body.toUtf8(), &parseError);
    if (parseError.error != QJsonParseError::NoError) {
        m_errorMsg.state = parseError.error;
        m_errorMsg.message = parseError.errorString();
        return;
    }
    if (!doc.isObject()) {
        return;
    }
    const QJsonObject object = doc.object();
    readString(object, QStringLiteral("message"), m_errorMsg.message);
    readString(object, QStringLiteral("msgcode"), m_errorMsg.msgcode);
    const QJsonValue state = object.value(QStringLiteral("state"));
    if (state.isDouble()) {
        m_errorMsg.state = truncatedState(state.toDouble());
    }
    const QJsonValue code = object.value(QStringLiteral("code"));
    if (code.isString()) {
        m_errorMsg.code = code.toString();
        m_errorCode = transferErrorCode(m_errorMsg.code);
    }
    readString(object, QStringLiteral("type"), m_errorMsg.type);
}

bool CKXParseProcessor::hasError() const
{
    return m_errorCode != 0 || m_statusCode < 200 || m_statusCode > 399;
}

ErrorCode CKXParseProcessor::transferErrorCode(const QString& code) const
{
    for (const ErrorRule& rule : kErrorRules) {
        if (ruleMatches(rule, code)) {
            return rule.code;
        }
    }
    return ServerError;
}

void CKXParseProcessor::setParseFailure(const QString& message, qint32 state)
{
    m_errorMsg.message = message;
    m_errorMsg.state = state;
}

// ---------------------------------------------------------------------------------------------
// KXBaseParse

void KXBaseParse::onComplete(const QString& body)
{
    // A renewed session travels in the body, not in a response header.
    readString(jsonObjectOf(body), QStringLiteral("X-ORBALA-SESS-ID"), m_sessionId);
}

QString KXBaseParse::s()
{
    const QByteArray raw = headers().value(QByteArrayLiteral("Set-Cookie"));
    QString cookies = QString::fromUtf8(raw.constData()); // up to the first NUL
    cookies.replace(QRegExp(QStringLiteral("[\r\n]")), QStringLiteral(";"));

    QString candidate;
    const QStringList pieces = cookies.split(QLatin1Char(';'), Qt::KeepEmptyParts);
    for (const QString& piece : pieces) {
        if (piece.startsWith(QLatin1String("S="), Qt::CaseSensitive)) {
            candidate = piece;
        }
    }
    m_s = candidate.isEmpty() ? QString() : candidate.split(QLatin1Char('=')).last();
    return m_s;
}

// ---------------------------------------------------------------------------------------------
// CKXQueryHashParse, CKXCommitHashParse

void CKXQueryHashParse::onComplete(const QString& body)
{
    pHash(body);
}

void CKXQueryHashParse::pHash(const QString& body)
{
    const QJsonObject object = jsonObjectOf(body);
    readString(object, QStringLiteral("upload_id"), m_uploadId);
    const QJsonValue needed = object.value(QStringLiteral("needed_block"));
    if (!needed.isArray()) {
        return;
    }
    const QJsonArray hashes = needed.toArray();
    for (const QJsonValue& hash : hashes) {
        if (hash.isString()) {
            m_blockHashes.append(hash.toString());
        }
    }
}

void CKXCommitHashParse::onComplete(const QString& body)
{
    pHash(body);
    pMeta(body);
    parsePath(m_meta);
}

QString CKXCommitHashParse::getMetaString(const QString& text)
{
    const int key = text.indexOf(QLatin1String("\"metadata\":{"));
    if (key <= 0) {
        return text;
    }
    const int open = text.indexOf(QLatin1Char('{'), key);
    if (open <= 0) {
        return text;
    }
    int depth = 0;
    for (int i = open; i < text.size(); ++i) {
        const QChar c = text.at(i);
        if (c == QLatin1Char('{')) {
            ++depth;
        } else if (c == QLatin1Char('}') && --depth == 0) {
            return text.mid(open, i - open + 1);
        }
    }
    return text;
}

void CKXCommitHashParse::pMeta(const QString& text)
{
    m_meta = getMetaString(text);
}

void CKXCommitHashParse::parsePath(const QString& meta)
{
    readString(jsonObjectOf(meta), QStringLiteral("path"), m_path);
}

// ---------------------------------------------------------------------------------------------
// Block and whole-file uploads

void CKXChunkedUploadParse::onComplete(const QString& body)
{
    const QJsonObject object = jsonObjectOf(body);
    readString(object, QStringLiteral("upload_id"), m_uploadId);
    readString(object, QStringLiteral("hash"), m_hash);
    readString(object, QStringLiteral("status"), m_status);
}

void CKXUploadParse::onComplete(const QString& body)
{
    m_meta = body;
    readString(jsonObjectOf(body), QStringLiteral("path"), m_path);
}

void CKXDeliveryUploadParse::onComplete(const QString& body)
{
    m_meta = body;
}

void CKXDeliveryDownloadParse::onComplete(const QString& /*body*/) {}

void CKXDlRouterParse::onComplete(const QString& /*body*/) {}

// ---------------------------------------------------------------------------------------------
// Authorisations

void CKXAuthUplaodParse::onComplete(const QString& body)
{
    rapidjson::Document doc;
    if (const char* problem = authAnswerProblem(body, doc, false)) {
        TLOG_ERROR(QStringLiteral("[TransParseBase]: ") + QString::fromLatin1(problem));
        setParseFailure(QString::fromLatin1(problem), ResponseInvalid);
        return;
    }
    m_dataServerHost = CKXJsonUtil::getString(doc, "region", QString());
}

void CKXDeliveryAuthUploadParse::onComplete(const QString& body)
{
    rapidjson::Document doc;
    if (const char* problem = authAnswerProblem(body, doc, true)) {
        TLOG_ERROR(QStringLiteral("[TransParseBase]: ") + QString::fromLatin1(problem));
        setParseFailure(QString::fromLatin1(problem), ResponseInvalid);
        return;
    }
    // Anything but the literal true (a number, a string) is no grant.
    m_result = doc["result"].IsTrue();
    m_deliverySessionId = CKXJsonUtil::getString(doc, "session_id", QString());
    m_uploadUrl = CKXJsonUtil::getString(doc, "upload_url", QString());
    m_lbc = CKXJsonUtil::getString(doc, "LBC", QString());
}
