#include "KXDemoServer.h"

#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonDocument>
#include <QRegularExpression>
#include <QStandardPaths>
#include <QThread>
#include <QUuid>

#include <curl/curl.h>

namespace {

const int kStartTimeoutMs = 10000;
const int kStopTimeoutMs = 5000;
const long kAdminTimeoutSec = 10;

QString randomToken()
{
    return QUuid::createUuid().toString(QUuid::Id128);
}

size_t appendBody(char* data, size_t size, size_t count, void* target)
{
    static_cast<QByteArray*>(target)->append(data, static_cast<int>(size * count));
    return size * count;
}

} // namespace

CKXDemoServer::CKXDemoServer() : m_token(randomToken()), m_adminToken(randomToken()) {}

CKXDemoServer::~CKXDemoServer()
{
    stop();
}

QString CKXDemoServer::findBinary()
{
    const QString beside = QDir(QCoreApplication::applicationDirPath()).filePath(QStringLiteral("kxserver"));
    if (QFileInfo(beside).isExecutable()) {
        return beside;
    }
#ifdef KX_BUILD_BIN_DIR
    const QString built = QDir(QStringLiteral(KX_BUILD_BIN_DIR)).filePath(QStringLiteral("kxserver"));
    if (QFileInfo(built).isExecutable()) {
        return built;
    }
#endif
    return QStandardPaths::findExecutable(QStringLiteral("kxserver"));
}

bool CKXDemoServer::start(const QString& binary, const QString& root, const QString& logDir, QString& error)
{
    m_stdoutFile = QDir(logDir).filePath(QStringLiteral("kxserver.out"));
    m_stderrFile = QDir(logDir).filePath(QStringLiteral("kxserver.err"));
    m_process.setStandardOutputFile(m_stdoutFile);
    m_process.setStandardErrorFile(m_stderrFile);
    m_process.setProgram(binary);
    m_process.setArguments({QStringLiteral("--root"), root, QStringLiteral("--listen"),
                            QStringLiteral("127.0.0.1:0"), QStringLiteral("--token"), m_token,
                            QStringLiteral("--admin-token"), m_adminToken});
    m_process.start();
    if (!m_process.waitForStarted(kStartTimeoutMs)) {
        error = QStringLiteral("cannot start %1: %2").arg(binary, m_process.errorString());
        return false;
    }
    return waitForAddress(error);
}

bool CKXDemoServer::waitForAddress(QString& error)
{
    static const QRegularExpression listening(QStringLiteral("^listening on (http://\\S+)"));
    QDeadlineTimer deadline(kStartTimeoutMs);
    while (!deadline.hasExpired()) {
        QFile out(m_stdoutFile);
        if (out.open(QIODevice::ReadOnly)) {
            const QString first = QString::fromUtf8(out.readLine()).trimmed();
            const QRegularExpressionMatch match = listening.match(first);
            if (match.hasMatch()) {
                m_baseUrl = match.captured(1);
                return true;
            }
        }
        if (m_process.state() == QProcess::NotRunning) {
            error = QStringLiteral("kxserver ended at start:\n%1").arg(logTail());
            return false;
        }
        QThread::msleep(20); // polling a file that another process writes
    }
    error = QStringLiteral("kxserver did not report its address within %1 s").arg(kStartTimeoutMs / 1000);
    return false;
}

void CKXDemoServer::stop()
{
    if (m_process.state() == QProcess::NotRunning) {
        return;
    }
    m_process.terminate();
    if (!m_process.waitForFinished(kStopTimeoutMs)) {
        m_process.kill();
        m_process.waitForFinished(kStopTimeoutMs);
    }
}

QString CKXDemoServer::logTail() const
{
    QString text;
    for (const QString& name : {m_stdoutFile, m_stderrFile}) {
        QFile file(name);
        if (file.open(QIODevice::ReadOnly)) {
            const QStringList lines = QString::fromUtf8(file.readAll()).split(QLatin1Char('\n'));
            text += lines.mid(qMax(0, lines.size() - 10)).join(QLatin1Char('\n'));
        }
    }
    return text;
}

bool CKXDemoServer::adminRequest(bool post, const QString& path, QByteArray& body, QString& error)
{
    CURL* curl = curl_easy_init();
    if (!curl) {
        error = QStringLiteral("libcurl could not be initialised");
        return false;
    }
    const QByteArray url = (m_baseUrl + path).toUtf8();
    const QByteArray header = "X-KX-Admin: " + m_adminToken.toUtf8();
    curl_slist* headers = curl_slist_append(nullptr, header.constData());
    curl_easy_setopt(curl, CURLOPT_URL, url.constData());
    curl_easy_setopt(curl, CURLOPT_HTTPHEADER, headers);
    curl_easy_setopt(curl, CURLOPT_TIMEOUT, kAdminTimeoutSec);
    curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, appendBody);
    curl_easy_setopt(curl, CURLOPT_WRITEDATA, &body);
    if (post) {
        curl_easy_setopt(curl, CURLOPT_POSTFIELDS, "");
    }
    const CURLcode result = curl_easy_perform(curl);
    long status = 0;
    curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &status);
    curl_slist_free_all(headers);
    curl_easy_cleanup(curl);
    if (result != CURLE_OK || status != 200) {
        error = result != CURLE_OK ? QString::fromUtf8(curl_easy_strerror(result))
                                   : QStringLiteral("HTTP status %1 for %2").arg(status).arg(path);
        return false;
    }
    return true;
}

bool CKXDemoServer::stats(QJsonObject& out, QString& error)
{
    QByteArray body;
    if (!adminRequest(false, QStringLiteral("/admin/stats"), body, error)) {
        return false;
    }
    out = QJsonDocument::fromJson(body).object();
    return true;
}

bool CKXDemoServer::resetStats(QString& error)
{
    QByteArray body;
    return adminRequest(true, QStringLiteral("/admin/stats/reset"), body, error);
}
