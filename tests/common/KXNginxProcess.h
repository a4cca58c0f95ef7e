#pragma once

// A real nginx for tests: serves a folder on a free loopback port with byte ranges and accepts
// PUT (the dav module), from a private prefix with its own configuration. Started by start(),
// stopped by the destructor.

#include <QProcess>
#include <QString>
#include <QTemporaryDir>

class KXNginxProcess
{
public:
    ~KXNginxProcess() { stop(); }

    // Starts nginx serving `root`. False (with errorString()) when nginx is missing or did not come up.
    bool start(const QString& root);
    void stop();

    QString baseUrl() const { return QStringLiteral("http://127.0.0.1:%1").arg(m_port); }
    QString errorString() const { return m_error; }

private:
    QTemporaryDir m_prefix;
    QProcess m_process;
    quint16 m_port = 0;
    QString m_error;
};
