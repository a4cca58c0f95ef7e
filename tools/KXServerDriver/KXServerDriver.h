#pragma once

// The one way this project runs the reference server from outside: the demo, the tests and the
// benchmarks all start kxserver, learn its address and ask its admin endpoints through this class.
//
// start() launches the binary on 127.0.0.1 (any free port unless one is named) and waits for the
// first line it prints, "listening on <base URL>". Its standard output is that one line, so the
// pipe never fills; its standard error goes to a file or is dropped. admin() is a blocking
// HTTP/1.1 exchange on its own socket (no event loop is entered, so nothing else of the caller
// runs meanwhile); with "--tls-cert" among the arguments it trusts that certificate.
//
// Ownership and threads: the owner creates, uses and deletes it on one thread, which needs a
// QCoreApplication (it owns a QProcess). The destructor stops the server.

#include <QByteArray>
#include <QJsonObject>
#include <QMap>
#include <QProcess>
#include <QString>
#include <QStringList>

struct KXServerLaunch
{
    QString binary;        // the kxserver executable
    QString root;          // its store; created by the server when missing
    int port = 0;          // 0: any free port
    QString token;         // session token; empty: the server's default
    QString adminToken;    // empty: admin calls are refused
    QStringList extraArgs; // passed on as they are, e.g. {"--quota", "1000"}
    QString stderrFile;    // appended to; empty: dropped
};

struct KXAdminReply
{
    int status = 0; // 0 when no answer arrived; `error` then says why
    QString error;
    QByteArray body;
    QMap<QByteArray, QByteArray> headers; // names in lower case, last value wins

    QJsonObject json() const;
};

class CKXServerDriver
{
public:
    CKXServerDriver() = default;
    ~CKXServerDriver();
    CKXServerDriver(const CKXServerDriver&) = delete;
    CKXServerDriver& operator=(const CKXServerDriver&) = delete;

    // kxserver beside this program, else in `builtBinDir`, else on PATH; empty when none is found.
    static QString findBinary(const QString& builtBinDir = QString());

    // Stops a server still running first. False with a message when it does not report its address.
    bool start(const KXServerLaunch& launch, QString& error);
    bool isRunning() const;
    // SIGTERM, then SIGKILL when it lingers; true when the server exited cleanly by itself.
    bool stop();
    // SIGKILL, as a crash would end it.
    void kill();

    QString baseUrl() const { return m_baseUrl; } // "http://127.0.0.1:PORT" or "https://..."
    int port() const { return m_port; }
    // The last lines of the standard error file, for a failure report.
    QString stderrTail(int lines = 10) const;

    // `path` like "/admin/stats"; every method but GET sends `body` as JSON.
    KXAdminReply admin(const QByteArray& method, const QString& path, const QJsonObject& body = {}) const;

private:
    bool waitForAddress(QString& error);

    QProcess m_process;
    KXServerLaunch m_launch;
    QString m_caFile;
    QString m_baseUrl;
    int m_port = 0;
};
