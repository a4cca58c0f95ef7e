#include "KXRemoteMeta.h"

#include "KXInterrupt.h"
#include "KXTransferDefine.h"
#include "ServerApi.h"

#include <QJsonDocument>
#include <QJsonObject>
#include <QMutex>
#include <QWaitCondition>

#include <memory>

namespace {

const int kPollMs = 200;

// The answer travels from the library's thread to the waiting one.
struct Reply
{
    QMutex mutex;
    QWaitCondition arrived;
    bool done = false;
    ResponseData response;
};

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

bool CKXRemoteMeta::fetch(const QString& remotePath, KXRemoteEntry& out)
{
    KXServerApiMetaEntryModel model;
    model.entry.path = remotePath;
    auto reply = std::make_shared<Reply>();
    const qint64 request = ServerApi::MetaData(model, [reply](const ResponseData& response) {
        QMutexLocker locker(&reply->mutex);
        reply->response = response;
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
    const ResponseData response = reply->response;
    locker.unlock();
    if (m_interrupted) {
        return false;
    }
    if (response.errorCode != 0 || response.statusCode < 200 || response.statusCode > 399) {
        m_code = mapError(response, m_message);
        return false;
    }
    const QJsonObject body = QJsonDocument::fromJson(response.body.toUtf8()).object();
    out.size = static_cast<qint64>(body.value(QStringLiteral("bytes")).toDouble());
    out.isDir = body.value(QStringLiteral("is_dir")).toBool();
    out.rev = body.value(QStringLiteral("rev")).toVariant().toString();
    return true;
}
