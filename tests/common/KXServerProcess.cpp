#include "KXServerProcess.h"

#include <QDir>
#include <QTest>

CKXServerProcess::CKXServerProcess(QStringList extraArgs) : m_extraArgs(std::move(extraArgs)) {}

QString CKXServerProcess::rootPath() const
{
    return m_dir ? m_dir->filePath(QStringLiteral("root")) : QString();
}

QString CKXServerProcess::logPath() const
{
    return m_dir ? m_dir->filePath(QStringLiteral("kxserver.log")) : QString();
}

QList<QByteArray> CKXServerProcess::sessionHeader() const
{
    return {"X-ORBALA-SESS-ID: " + m_token.toUtf8()};
}

bool CKXServerProcess::start()
{
    const QString base = qEnvironmentVariable("KX_TEST_TMP", QDir::tempPath());
    QDir().mkpath(base);
    m_dir.reset(new QTemporaryDir(base + QStringLiteral("/kxserver-XXXXXX")));
    if (!m_dir->isValid()) {
        m_error = QStringLiteral("cannot create a temporary folder");
        return false;
    }
    return launch(0);
}

bool CKXServerProcess::launch(int port)
{
    KXServerLaunch launch;
    launch.binary = QStringLiteral(KX_BIN_DIR "/kxserver");
    launch.root = rootPath();
    launch.port = port;
    launch.token = m_token;
    launch.adminToken = m_adminToken;
    launch.extraArgs = m_extraArgs;
    launch.stderrFile = logPath();
    QString error;
    if (!m_driver.start(launch, error)) {
        m_error = QStringLiteral("kxserver did not start (see %1): %2").arg(logPath(), error);
        return false;
    }
    return true;
}

bool CKXServerProcess::restart()
{
    if (!m_dir) {
        return start();
    }
    const int port = m_driver.port();
    stop();
    return launch(port) || launch(0);
}

TestHttpReply CKXServerProcess::admin(const QByteArray& method, const QString& path, const QJsonObject& body)
{
    const KXAdminReply answer = m_driver.admin(method, path, body);
    return {answer.status, 0, answer.body, answer.headers};
}

bool CKXServerProcess::waitForStats(const std::function<bool(const QJsonObject&)>& holds, int timeoutMs)
{
    return QTest::qWaitFor([&] { return holds(stats()); }, timeoutMs);
}

TestHttpReply CKXServerProcess::getFile(const QString& remotePath) const
{
    return CKXTestHttp::get(baseUrl() + QStringLiteral("/v1/files?path=") + CKXTestHttp::encode(remotePath),
                            sessionHeader());
}

bool CKXServerProcess::putFile(const QString& remotePath, const QByteArray& content) const
{
    const QString url =
        baseUrl() + QStringLiteral("/v1/files?overwrite=true&path=") + CKXTestHttp::encode(remotePath);
    return CKXTestHttp::put(url, content, sessionHeader()).status == 200;
}

QString CKXServerProcess::createShare(const QString& path, bool upload, const QString& password)
{
    QJsonObject body{{"path", path}, {"upload", upload}, {"password", password}};
    TestHttpReply reply = admin("POST", QStringLiteral("/admin/share"), body);
    return reply.status == 200 ? reply.json().value("code").toString() : QString();
}

bool CKXServerProcess::setLocked(const QString& path, bool locked)
{
    return admin("POST", QStringLiteral("/admin/lock"), QJsonObject{{"path", path}, {"locked", locked}})
               .status == 200;
}

bool CKXServerProcess::flagVirus(const QString& path)
{
    return admin("POST", QStringLiteral("/admin/virus"), QJsonObject{{"path", path}}).status == 200;
}
