#include "KXServerProcess.h"

#include <QDir>
#include <QElapsedTimer>
#include <QJsonDocument>
#include <QUrl>

namespace {

constexpr int kStartTimeoutMs = 15000;

QString tempBase()
{
    QString base = qEnvironmentVariable("KX_TEST_TMP");
    if (base.isEmpty()) {
        return QDir::tempPath();
    }
    QDir().mkpath(base);
    return base;
}

} // namespace

CKXServerProcess::CKXServerProcess(QStringList extraArgs) : m_extraArgs(std::move(extraArgs))
{
    int cert = m_extraArgs.indexOf(QStringLiteral("--tls-cert"));
    if (cert >= 0 && cert + 1 < m_extraArgs.size()) {
        m_caFile = m_extraArgs.at(cert + 1);
    }
}

CKXServerProcess::~CKXServerProcess()
{
    stop();
}

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
    m_dir.reset(new QTemporaryDir(tempBase() + QStringLiteral("/kxserver-XXXXXX")));
    if (!m_dir->isValid()) {
        m_error = QStringLiteral("cannot create a temporary folder");
        return false;
    }
    return launch(0);
}

bool CKXServerProcess::launch(int port)
{
    m_process.reset(new QProcess());
    m_process->setStandardErrorFile(logPath(), QIODevice::Append);
    QStringList args{"--root",  rootPath(), "--listen",      QStringLiteral("127.0.0.1:%1").arg(port),
                     "--token", m_token,    "--admin-token", m_adminToken};
    m_process->start(QStringLiteral(KX_BIN_DIR "/kxserver"), args + m_extraArgs);
    QElapsedTimer timer;
    timer.start();
    while (!m_process->canReadLine() && m_process->state() != QProcess::NotRunning &&
           timer.elapsed() < kStartTimeoutMs) {
        m_process->waitForReadyRead(100);
    }
    QString line = QString::fromUtf8(m_process->readLine()).trimmed();
    if (!line.startsWith(QLatin1String("listening on "))) {
        m_error =
            QStringLiteral("kxserver did not start (see %1): %2").arg(logPath(), m_process->errorString());
        m_process->kill();
        m_process->waitForFinished(5000);
        return false;
    }
    m_baseUrl = line.mid(13);
    m_port = QUrl(m_baseUrl).port();
    return true;
}

bool CKXServerProcess::isRunning() const
{
    return m_process && m_process->state() == QProcess::Running;
}

bool CKXServerProcess::stop()
{
    if (!isRunning()) {
        return false;
    }
    m_process->terminate();
    if (!m_process->waitForFinished(15000)) {
        m_process->kill();
        m_process->waitForFinished(5000);
        return false;
    }
    return m_process->exitStatus() == QProcess::NormalExit && m_process->exitCode() == 0;
}

void CKXServerProcess::kill9()
{
    if (isRunning()) {
        m_process->kill();
        m_process->waitForFinished(5000);
    }
}

bool CKXServerProcess::restart()
{
    if (!m_dir) {
        return start();
    }
    stop();
    return launch(m_port) || launch(0);
}

TestHttpReply CKXServerProcess::admin(const QByteArray& method, const QString& path, const QJsonObject& body)
{
    TestHttpRequest request;
    request.method = method;
    request.url = m_baseUrl + path;
    request.caFile = m_caFile;
    request.headers = {"X-KX-Admin: " + m_adminToken.toUtf8()};
    if (method != "GET") {
        request.body = QJsonDocument(body).toJson(QJsonDocument::Compact);
        request.headers.append("Content-Type: application/json");
    }
    return CKXTestHttp::send(request);
}

QJsonObject CKXServerProcess::stats()
{
    return admin("GET", QStringLiteral("/admin/stats")).json();
}

bool CKXServerProcess::resetStats()
{
    return admin("POST", QStringLiteral("/admin/stats/reset")).status == 200;
}

bool CKXServerProcess::armFault(const QJsonObject& fault)
{
    return admin("POST", QStringLiteral("/admin/faults"), fault).status == 200;
}

bool CKXServerProcess::clearFaults()
{
    return admin("DELETE", QStringLiteral("/admin/faults")).status == 200;
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
