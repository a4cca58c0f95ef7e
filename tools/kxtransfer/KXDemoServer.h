#pragma once

// A private kxserver for the demo: started on a free loopback port with its own root folder and
// random tokens, asked for its admin counters, stopped by the destructor. The server's output
// goes to files, never to a pipe, so it cannot block on a full pipe while nobody reads it.
// Owned by the demo, used on the main thread only.

#include <QJsonObject>
#include <QProcess>
#include <QString>

class CKXDemoServer
{
public:
    CKXDemoServer();
    ~CKXDemoServer();
    CKXDemoServer(const CKXDemoServer&) = delete;
    CKXDemoServer& operator=(const CKXDemoServer&) = delete;

    // kxserver beside this program, else in the build tree it was built in, else on PATH; "" if none.
    static QString findBinary();

    // Starts the server with its data in root and its output in logDir; waits for its address.
    bool start(const QString& binary, const QString& root, const QString& logDir, QString& error);
    void stop();

    QString baseUrl() const { return m_baseUrl; }
    QString token() const { return m_token; }
    // The last lines the server wrote, for a failure report.
    QString logTail() const;

    bool stats(QJsonObject& out, QString& error);
    bool resetStats(QString& error);

private:
    bool waitForAddress(QString& error);
    bool adminRequest(bool post, const QString& path, QByteArray& body, QString& error);

    QProcess m_process;
    QString m_stdoutFile;
    QString m_stderrFile;
    QString m_baseUrl;
    QString m_token;
    QString m_adminToken;
};
