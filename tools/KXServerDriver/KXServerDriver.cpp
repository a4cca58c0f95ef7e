#include "KXServerDriver.h"

#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonDocument>
#include <QNetworkProxy>
#include <QSslCertificate>
#include <QSslConfiguration>
#include <QSslSocket>
#include <QStandardPaths>
#include <QUrl>

#include <memory>

namespace {

const int kStartTimeoutMs = 15000;
const int kStopTimeoutMs = 15000;
const int kKillTimeoutMs = 5000;
const int kAdminTimeoutMs = 30000;
const QLatin1String kListening("listening on ");

QByteArray requestText(const QByteArray& method, const QUrl& url, const QString& adminToken,
                       const QByteArray& body)
{
    QByteArray text = method + ' ' + url.path(QUrl::FullyEncoded).toUtf8();
    if (url.hasQuery()) {
        text += '?' + url.query(QUrl::FullyEncoded).toUtf8();
    }
    text += " HTTP/1.1\r\nHost: " + url.host().toUtf8() + ':' + QByteArray::number(url.port()) +
            "\r\nX-KX-Admin: " + adminToken.toUtf8() + "\r\nConnection: close\r\n";
    if (method != "GET") {
        text +=
            "Content-Type: application/json\r\nContent-Length: " + QByteArray::number(body.size()) + "\r\n";
    }
    return text + "\r\n" + body;
}

// The body of a chunked answer; what follows the last chunk (trailers) is ignored.
QByteArray unchunk(const QByteArray& data)
{
    QByteArray body;
    int at = 0;
    for (;;) {
        const int lineEnd = data.indexOf("\r\n", at);
        bool ok = false;
        const int size =
            lineEnd < 0 ? 0 : data.mid(at, lineEnd - at).split(';').first().trimmed().toInt(&ok, 16);
        if (!ok || size <= 0) {
            return body;
        }
        body += data.mid(lineEnd + 2, size);
        at = lineEnd + 2 + size + 2;
    }
}

// Splits what the server sent into status, headers and body; false when it is not an HTTP answer.
bool parseAnswer(const QByteArray& data, KXAdminReply& reply)
{
    const int headEnd = data.indexOf("\r\n\r\n");
    if (headEnd < 0 || !data.startsWith("HTTP/1.")) {
        return false;
    }
    const QList<QByteArray> lines = data.left(headEnd).split('\n');
    const QList<QByteArray> statusLine = lines.first().simplified().split(' ');
    reply.status = statusLine.size() > 1 ? statusLine.at(1).toInt() : 0;
    for (int i = 1; i < lines.size(); ++i) {
        const int colon = lines.at(i).indexOf(':');
        if (colon > 0) {
            reply.headers.insert(lines.at(i).left(colon).trimmed().toLower(),
                                 lines.at(i).mid(colon + 1).trimmed());
        }
    }
    reply.body = data.mid(headEnd + 4);
    if (reply.headers.value("transfer-encoding").toLower() == "chunked") {
        reply.body = unchunk(reply.body);
    }
    return reply.status > 0;
}

int msLeft(const QDeadlineTimer& deadline)
{
    return static_cast<int>(qMax<qint64>(1, deadline.remainingTime()));
}

// A socket connected (for https: encrypted, trusting `caFile`) to the URL's host, or one that is
// not connected and whose error says why.
std::unique_ptr<QTcpSocket> connectTo(const QUrl& url, const QString& caFile, const QDeadlineTimer& deadline)
{
    const auto port = static_cast<quint16>(url.port());
    if (url.scheme() != QLatin1String("https")) {
        auto socket = std::make_unique<QTcpSocket>();
        socket->setProxy(QNetworkProxy::NoProxy);
        socket->connectToHost(url.host(), port);
        socket->waitForConnected(msLeft(deadline));
        return socket;
    }
    auto socket = std::make_unique<QSslSocket>();
    socket->setProxy(QNetworkProxy::NoProxy);
    QSslConfiguration config = socket->sslConfiguration();
    config.setCaCertificates(QSslCertificate::fromPath(caFile));
    socket->setSslConfiguration(config);
    socket->connectToHostEncrypted(url.host(), port);
    if (!socket->waitForEncrypted(msLeft(deadline))) {
        socket->abort();
    }
    return socket;
}

// Everything the server sends until it closes the connection (the request asks it to) or the
// deadline passes.
QByteArray readToClose(QTcpSocket& socket, const QDeadlineTimer& deadline)
{
    QByteArray answer;
    while (socket.state() == QAbstractSocket::ConnectedState && !deadline.hasExpired()) {
        socket.waitForReadyRead(msLeft(deadline));
        answer += socket.readAll();
    }
    return answer + socket.readAll();
}

} // namespace

QJsonObject KXAdminReply::json() const
{
    return QJsonDocument::fromJson(body).object();
}

CKXServerDriver::~CKXServerDriver()
{
    stop();
}

QString CKXServerDriver::findBinary(const QString& builtBinDir)
{
    const QString name = QStringLiteral("kxserver");
    const QString beside = QDir(QCoreApplication::applicationDirPath()).filePath(name);
    if (QFileInfo(beside).isExecutable()) {
        return beside;
    }
    const QString built = builtBinDir.isEmpty() ? QString() : QDir(builtBinDir).filePath(name);
    if (!built.isEmpty() && QFileInfo(built).isExecutable()) {
        return built;
    }
    return QStandardPaths::findExecutable(name);
}

bool CKXServerDriver::start(const KXServerLaunch& launch, QString& error)
{
    stop();
    m_launch = launch;
    m_baseUrl.clear();
    m_port = 0;
    const int cert = launch.extraArgs.indexOf(QStringLiteral("--tls-cert"));
    m_caFile = cert >= 0 && cert + 1 < launch.extraArgs.size() ? launch.extraArgs.at(cert + 1) : QString();

    QStringList args{QStringLiteral("--root"), launch.root, QStringLiteral("--listen"),
                     QStringLiteral("127.0.0.1:%1").arg(launch.port)};
    if (!launch.token.isEmpty()) {
        args << QStringLiteral("--token") << launch.token;
    }
    if (!launch.adminToken.isEmpty()) {
        args << QStringLiteral("--admin-token") << launch.adminToken;
    }
    m_process.setStandardErrorFile(launch.stderrFile.isEmpty() ? QProcess::nullDevice() : launch.stderrFile,
                                   QIODevice::Append);
    m_process.start(launch.binary, args + launch.extraArgs);
    if (!m_process.waitForStarted(kStartTimeoutMs)) {
        error = QStringLiteral("cannot start %1: %2").arg(launch.binary, m_process.errorString());
        return false;
    }
    if (!waitForAddress(error)) {
        kill();
        return false;
    }
    return true;
}

bool CKXServerDriver::waitForAddress(QString& error)
{
    const QDeadlineTimer deadline(kStartTimeoutMs);
    while (!m_process.canReadLine() && m_process.state() == QProcess::Running && !deadline.hasExpired()) {
        m_process.waitForReadyRead(static_cast<int>(qMax<qint64>(1, deadline.remainingTime())));
    }
    const QString line = QString::fromUtf8(m_process.readLine()).trimmed();
    if (line.startsWith(kListening)) {
        m_baseUrl = line.mid(kListening.size());
        m_port = QUrl(m_baseUrl).port();
        return true;
    }
    if (m_process.state() != QProcess::Running) {
        error = QStringLiteral("kxserver ended at start:\n%1").arg(stderrTail());
    } else {
        error = QStringLiteral("kxserver did not report its address within %1 s").arg(kStartTimeoutMs / 1000);
    }
    return false;
}

bool CKXServerDriver::isRunning() const
{
    return m_process.state() == QProcess::Running;
}

bool CKXServerDriver::stop()
{
    if (m_process.state() == QProcess::NotRunning) {
        return false;
    }
    m_process.terminate();
    if (!m_process.waitForFinished(kStopTimeoutMs)) {
        kill();
        return false;
    }
    return m_process.exitStatus() == QProcess::NormalExit && m_process.exitCode() == 0;
}

void CKXServerDriver::kill()
{
    if (m_process.state() != QProcess::NotRunning) {
        m_process.kill();
        m_process.waitForFinished(kKillTimeoutMs);
    }
}

QString CKXServerDriver::stderrTail(int lines) const
{
    QFile file(m_launch.stderrFile);
    if (m_launch.stderrFile.isEmpty() || !file.open(QIODevice::ReadOnly)) {
        return QString();
    }
    const QStringList all = QString::fromUtf8(file.readAll()).split(QLatin1Char('\n'));
    return all.mid(qMax(0, all.size() - lines)).join(QLatin1Char('\n'));
}

KXAdminReply CKXServerDriver::admin(const QByteArray& method, const QString& path,
                                    const QJsonObject& body) const
{
    const QUrl url(m_baseUrl + path);
    const QDeadlineTimer deadline(kAdminTimeoutMs);
    std::unique_ptr<QTcpSocket> socket = connectTo(url, m_caFile, deadline);
    QByteArray answer;
    if (socket->state() == QAbstractSocket::ConnectedState) {
        const QByteArray payload =
            method == "GET" ? QByteArray() : QJsonDocument(body).toJson(QJsonDocument::Compact);
        socket->write(requestText(method, url, m_launch.adminToken, payload));
        answer = readToClose(*socket, deadline);
    }
    KXAdminReply reply;
    if (!parseAnswer(answer, reply)) {
        reply = KXAdminReply();
        const QString what = answer.isEmpty() ? socket->errorString() : QStringLiteral("not an HTTP answer");
        reply.error = QStringLiteral("%1 %2: %3").arg(QString::fromLatin1(method), path, what);
    }
    return reply;
}
