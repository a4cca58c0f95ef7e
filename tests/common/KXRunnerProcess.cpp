#include "KXRunnerProcess.h"

#include "KXServerProcess.h"

KXRunnerProcess::KXRunnerProcess(const QStringList& args, const QString& home)
{
    if (!home.isEmpty()) {
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        environment.insert(QStringLiteral("HOME"), home);
        environment.insert(QStringLiteral("XDG_DATA_HOME"), home + QStringLiteral("/data"));
        m_process.setProcessEnvironment(environment);
    }
    m_process.setProcessChannelMode(QProcess::ForwardedErrorChannel);
    m_process.start(QStringLiteral(KX_BIN_DIR "/kx_chunked_runner"), args);
}

QString KXRunnerProcess::finish(int ms)
{
    // waitForFinished() is false for a process that has already ended.
    const bool running = m_process.state() != QProcess::NotRunning;
    if ((running && !m_process.waitForFinished(ms)) || m_process.exitStatus() != QProcess::NormalExit) {
        return QString();
    }
    m_output += m_process.readAllStandardOutput();
    return QString::fromUtf8(m_output.trimmed().split('\n').last().trimmed());
}

void KXRunnerProcess::kill9()
{
    m_process.kill(); // SIGKILL: no handler, no clean-up; a no-op once the process has ended
    m_process.waitForFinished();
}

QStringList KXRunnerProcess::args(const CKXServerProcess& server, const QString& id, const QString& local,
                                  const QString& remote, qint64 size, bool download, int concurrency)
{
    QStringList args;
    args << "--base" << server.baseUrl() << "--token" << server.token() << "--id" << id << "--local" << local
         << "--remote" << remote << "--size" << QString::number(size) << "--concurrency"
         << QString::number(concurrency);
    if (download) {
        args << QStringLiteral("--download");
    }
    return args;
}
