#include "KXDemoServer.h"

#include <QDir>
#include <QJsonDocument>
#include <QUuid>

namespace {

QString randomToken()
{
    return QUuid::createUuid().toString(QUuid::Id128);
}

} // namespace

CKXDemoServer::CKXDemoServer() : m_token(randomToken()), m_adminToken(randomToken()) {}

CKXDemoServer::~CKXDemoServer()
{
    stop();
}

QString CKXDemoServer::findBinary()
{
#ifdef KX_BUILD_BIN_DIR
    return CKXServerDriver::findBinary(QStringLiteral(KX_BUILD_BIN_DIR));
#else
    return CKXServerDriver::findBinary();
#endif
}

bool CKXDemoServer::start(const QString& binary, const QString& root, const QString& logDir, QString& error)
{
    KXServerLaunch launch;
    launch.binary = binary;
    launch.root = root;
    launch.token = m_token;
    launch.adminToken = m_adminToken;
    launch.stderrFile = QDir(logDir).filePath(QStringLiteral("kxserver.err"));
    return m_driver.start(launch, error);
}

void CKXDemoServer::stop()
{
    m_driver.stop();
}

bool CKXDemoServer::adminRequest(const QByteArray& method, const QString& path, QByteArray& body,
                                 QString& error)
{
    const KXAdminReply reply = m_driver.admin(method, path);
    if (reply.status != 200) {
        error = reply.status == 0 ? reply.error
                                  : QStringLiteral("HTTP status %1 for %2").arg(reply.status).arg(path);
        return false;
    }
    body = reply.body;
    return true;
}

bool CKXDemoServer::stats(QJsonObject& out, QString& error)
{
    QByteArray body;
    if (!adminRequest("GET", QStringLiteral("/admin/stats"), body, error)) {
        return false;
    }
    out = QJsonDocument::fromJson(body).object();
    return true;
}

bool CKXDemoServer::resetStats(QString& error)
{
    QByteArray body;
    return adminRequest("POST", QStringLiteral("/admin/stats/reset"), body, error);
}
