#include "KXNginxProcess.h"

#include <QDir>
#include <QFile>
#include <QStandardPaths>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTest>

#include <unistd.h>

namespace {

quint16 freePort()
{
    QTcpServer probe;
    probe.listen(QHostAddress::LocalHost, 0);
    return probe.serverPort();
}

bool portAnswers(quint16 port)
{
    QTcpSocket socket;
    socket.connectToHost(QHostAddress::LocalHost, port);
    return socket.waitForConnected(200);
}

QString configText(const QString& prefix, const QString& root, quint16 port)
{
    QString text = QStringLiteral("worker_processes 1;\n"
                                  "pid %1/nginx.pid;\n"
                                  "error_log %1/error.log;\n"
                                  "events { worker_connections 256; }\n"
                                  "http {\n"
                                  "  access_log %1/access.log;\n"
                                  "  client_body_temp_path %1/body;\n"
                                  "  proxy_temp_path %1/proxy;\n"
                                  "  fastcgi_temp_path %1/fastcgi;\n"
                                  "  uwsgi_temp_path %1/uwsgi;\n"
                                  "  scgi_temp_path %1/scgi;\n"
                                  "  sendfile on;\n"
                                  "  default_type application/octet-stream;\n"
                                  "  server {\n"
                                  "    listen 127.0.0.1:%3;\n"
                                  "    root %2;\n"
                                  "    location / {\n"
                                  "      dav_methods PUT DELETE;\n"
                                  "      create_full_put_path on;\n"
                                  "      client_max_body_size 0;\n"
                                  "    }\n"
                                  "  }\n"
                                  "}\n")
                       .arg(prefix, root)
                       .arg(port);
    // As root, workers would drop to "nobody" and could not read a private temp folder.
    if (::getuid() == 0) {
        text.prepend(QStringLiteral("user root;\n"));
    }
    return text;
}

} // namespace

bool KXNginxProcess::start(const QString& root)
{
    // Debian keeps nginx in /usr/sbin, which a user's PATH may lack.
    QString binary = QStandardPaths::findExecutable(QStringLiteral("nginx"));
    if (binary.isEmpty()) {
        binary = QStandardPaths::findExecutable(QStringLiteral("nginx"), {QStringLiteral("/usr/sbin")});
    }
    if (binary.isEmpty()) {
        m_error = QStringLiteral("nginx is not installed (scripts/bootstrap installs nginx-light)");
        return false;
    }
    const QString prefix = m_prefix.path();
    for (int attempt = 0; attempt < 5; ++attempt) {
        m_port = freePort();
        QFile conf(prefix + QStringLiteral("/nginx.conf"));
        if (!conf.open(QIODevice::WriteOnly | QIODevice::Truncate)) {
            m_error = conf.errorString();
            return false;
        }
        conf.write(configText(prefix, QDir(root).absolutePath(), m_port).toUtf8());
        conf.close();
        m_process.setProcessChannelMode(QProcess::MergedChannels);
        m_process.start(binary, {QStringLiteral("-p"), prefix, QStringLiteral("-c"), conf.fileName(),
                                 QStringLiteral("-g"), QStringLiteral("daemon off;")});
        // A port taken meanwhile ends nginx at once; the next attempt draws another.
        const auto settled = [this] {
            return m_process.state() == QProcess::NotRunning || portAnswers(m_port);
        };
        if (QTest::qWaitFor(settled, 10000) && m_process.state() != QProcess::NotRunning) {
            return true;
        }
        m_process.waitForFinished(2000);
        m_error = QString::fromLocal8Bit(m_process.readAll());
    }
    return false;
}

void KXNginxProcess::stop()
{
    if (m_process.state() == QProcess::NotRunning) {
        return;
    }
    m_process.terminate();
    if (!m_process.waitForFinished(5000)) {
        m_process.kill();
        m_process.waitForFinished(2000);
    }
}
