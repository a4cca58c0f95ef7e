#include "KXRemoteMeta.h"

#include "KXInterrupt.h"
#include "KXTransferDefine.h"
#include "ServerApi.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QMutex>
#include <QWaitCondition>

#include <memory>

namespace {

const int kPollMs = 200;
const int kListPage = 1000;

// The answer travels from the library's thread to the waiting one.
struct Reply
{
    QMutex mutex;
    QWaitCondition arrived;
    bool done = false;
    ResponseData response;
};

// Header names as the server sent them, matched without regard to case.
QByteArray header(const ResponseData& response, const QByteArray& name)
{
    for (auto it = response.headers.cbegin(); it != response.headers.cend(); ++it) {
        if (it.key().compare(name, Qt::CaseInsensitive) == 0) {
            return it.value().trimmed();
        }
    }
    return QByteArray();
}

int codeFromServerText(const QString& code)
{
    if (code == QLatin1String("Invalid session") || code.contains(QLatin1String("token is not exist"))) {
        return SessionInvalid;
    }
    if (code == QLatin1String("nameentry_not_exist") || code == QLatin1String("source not found") ||
        code == QLatin1String("file/folder not found")) {
        return SourceNotFound;
    }
    if (code.contains(QLatin1String("forbidden"))) {
        return Forbidden;
    }
    if (code == QLatin1String("path_too_long")) {
        return PathTooLong;
    }
    if (code.contains(QLatin1String("private dc not allowed"))) {
        return PrivateDcNotAllowed;
    }
    if (code.contains(QLatin1String("download_file_VirusF"))) {
        return VirusFile;
    }
    return ServerError;
}

KXRemoteEntry entryFrom(const QJsonObject& object)
{
    KXRemoteEntry entry;
    entry.size = static_cast<qint64>(object.value(QStringLiteral("bytes")).toDouble());
    entry.isDir = object.value(QStringLiteral("is_dir")).toBool();
    entry.rev = object.value(QStringLiteral("rev")).toVariant().toString();
    entry.path = object.value(QStringLiteral("path")).toString();
    entry.modified = static_cast<qint64>(object.value(QStringLiteral("modified")).toDouble());
    return entry;
}

} // namespace

int CKXRemoteMeta::mapError(const ResponseData& response, QString& message)
{
    if (response.statusCode == 0) {
        message = response.errorString;
        return response.errorCode != 0 ? response.errorCode : ServerError;
    }
    const QJsonObject body = QJsonDocument::fromJson(response.body.toUtf8()).object();
    message = body.value(QStringLiteral("message")).toString();
    if (message.isEmpty()) {
        message = response.errorString.isEmpty() ? QStringLiteral("HTTP status %1").arg(response.statusCode)
                                                 : response.errorString;
    }
    const QJsonValue code = body.value(QStringLiteral("code"));
    return code.isString() ? codeFromServerText(code.toString()) : ServerError;
}

bool CKXRemoteMeta::await(const std::function<qint64(ServerApi::ResponseCallback)>& start,
                          ResponseData& response)
{
    auto reply = std::make_shared<Reply>();
    const qint64 request = start([reply](const ResponseData& answer) {
        QMutexLocker locker(&reply->mutex);
        reply->response = answer;
        reply->done = true;
        reply->arrived.wakeAll();
    });
    QMutexLocker locker(&reply->mutex);
    while (!reply->done) {
        if (CKXInterrupt::requested() && !m_interrupted) {
            m_interrupted = true;
            locker.unlock();
            ServerApi::Cancel(request); // its completion still comes, once
            locker.relock();
            continue;
        }
        reply->arrived.wait(&reply->mutex, kPollMs);
    }
    response = reply->response;
    return !m_interrupted;
}

bool CKXRemoteMeta::failed(const ResponseData& response)
{
    if (response.errorCode != 0 || response.statusCode < 200 || response.statusCode > 399) {
        m_code = mapError(response, m_message);
        return true;
    }
    return false;
}

bool CKXRemoteMeta::fetch(const QString& remotePath, KXRemoteEntry& out)
{
    KXServerApiMetaEntryModel model;
    model.entry.path = remotePath;
    ResponseData response;
    if (!await([&model](ServerApi::ResponseCallback done) { return ServerApi::MetaData(model, done); },
               response) ||
        failed(response)) {
        return false;
    }
    // A web page from a wrong address would otherwise pass for an empty file and be saved.
    const QJsonDocument answer = QJsonDocument::fromJson(response.body.toUtf8());
    const QJsonObject body = answer.object();
    if (!answer.isObject() || !body.value(QStringLiteral("bytes")).isDouble()) {
        const QByteArray type = header(response, "Content-Type");
        m_code = ServerError;
        m_message = QStringLiteral("the answer about %1 is not the server's metadata (%2, %3 bytes); "
                                   "is the server address right?")
                        .arg(remotePath,
                             type.isEmpty() ? QStringLiteral("no Content-Type") : QString::fromLatin1(type))
                        .arg(response.body.size());
        return false;
    }
    out = entryFrom(body);
    return true;
}

bool CKXRemoteMeta::list(const QString& folder, QList<KXRemoteEntry>& out)
{
    out.clear();
    int count = kListPage;
    while (count == kListPage) {
        if (!listPage(folder, out.size(), out, count)) {
            return false;
        }
    }
    return true;
}

bool CKXRemoteMeta::listPage(const QString& folder, qint64 offset, QList<KXRemoteEntry>& out, int& count)
{
    KXServerApiMetaEntryModel model;
    model.entry.path = folder;
    model.list = true;
    model.offset = offset;
    model.pageSize = kListPage;
    ResponseData response;
    if (!await([&model](ServerApi::ResponseCallback done) { return ServerApi::MetaData(model, done); },
               response) ||
        failed(response)) {
        return false;
    }
    QJsonParseError error;
    const QJsonObject body = QJsonDocument::fromJson(response.body.toUtf8(), &error).object();
    const QJsonValue contents = body.value(QStringLiteral("contents"));
    if (error.error == QJsonParseError::NoError && !body.value(QStringLiteral("is_dir")).toBool()) {
        m_code = ConflictWithFile;
        m_message = QStringLiteral("%1 is a file, not a folder").arg(folder);
        return false;
    }
    if (error.error != QJsonParseError::NoError || !contents.isArray()) {
        m_code = ServerError;
        m_message = QStringLiteral("the server's listing of %1 is not a JSON list").arg(folder);
        return false;
    }
    const QJsonArray entries = contents.toArray();
    for (const QJsonValue& entry : entries) {
        out.append(entryFrom(entry.toObject()));
    }
    count = entries.size();
    return true;
}

bool CKXRemoteMeta::fetchShared(const KXServerApiDeliveryDataModel& link, KXRemoteEntry& out)
{
    KXSeverApiDeliveryDLRouterModel model;
    model.link = link;
    model.range = QStringLiteral("bytes=0-0");
    ResponseData response;
    const bool answered = await(
        [&model](ServerApi::ResponseCallback done) {
            return ServerApi::DeliveryDownloadRouter(
                model, [](const QByteArray&) {}, done, [](const DownloadProgressData&) {});
        },
        response);
    if (!answered) {
        return false;
    }
    // An empty file has no first byte: its refusal still names the size, "bytes */0".
    const QByteArray range = header(response, "Content-Range");
    const bool emptyFile = response.statusCode == 416 && range == "bytes */0";
    if (!emptyFile && failed(response)) {
        return false;
    }
    const int slash = range.lastIndexOf('/');
    bool sized = false;
    out.size = slash >= 0 ? range.mid(slash + 1).toLongLong(&sized) : 0;
    if (!sized) {
        out.size = header(response, "Content-Length").toLongLong(&sized);
    }
    if (!sized || out.size < 0) {
        m_code = ServerError;
        m_message = QStringLiteral("the share link's answer tells no file size");
        return false;
    }
    out.isDir = false;
    out.rev = QString::fromLatin1(header(response, "ETag")).remove(QLatin1Char('"'));
    return true;
}
