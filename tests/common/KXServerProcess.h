#pragma once

// The reference server kxserver for tests, run through the server driver: start() launches the
// built binary on 127.0.0.1 with a fresh temporary root, one session token and an admin token.
// The test hooks (counters, faults, share links, locks) are reached through the admin calls below.
// kill9() and restart() simulate a crash and a restart on the same root (and, when it is free,
// the same port). The destructor stops the server.
//
// Created, used and destroyed by one test thread (it owns a QProcess); needs a
// QCoreApplication. Admin calls block until answered.

#include "KXServerDriver.h"
#include "KXTestHttp.h"

#include <QJsonObject>
#include <QStringList>
#include <QTemporaryDir>

#include <functional>
#include <memory>

class CKXServerProcess
{
public:
    // `extraArgs` go to kxserver as they are, e.g. {"--quota", "1000"}, {"--token", "second"},
    // {"--tls-cert", cert, "--tls-key", key} (admin calls then trust that certificate).
    explicit CKXServerProcess(QStringList extraArgs = {});
    ~CKXServerProcess() { stop(); }
    CKXServerProcess(const CKXServerProcess&) = delete;
    CKXServerProcess& operator=(const CKXServerProcess&) = delete;

    bool start();
    bool isRunning() const { return m_driver.isRunning(); }
    // Graceful stop (SIGTERM); true when the server exited cleanly.
    bool stop() { return m_driver.stop(); }
    void kill9() { m_driver.kill(); }
    // Starts again on the same root; the base URL stays the same unless its port was taken.
    bool restart();

    QString baseUrl() const { return m_driver.baseUrl(); } // "http://127.0.0.1:PORT"
    QString token() const { return m_token; }              // "kx-dev-token"
    QString rootPath() const;                              // the store: blocks/, meta.db, events.log
    QString logPath() const;                               // the server's request log
    QString errorString() const { return m_error; }
    // {"X-ORBALA-SESS-ID: <token>"}, ready for CKXTestHttp.
    QList<QByteArray> sessionHeader() const;
    // A whole file of the token's own space, read or (over)written with the session, outside the
    // engine: setting up a download, checking what an upload left.
    TestHttpReply getFile(const QString& remotePath) const;
    bool putFile(const QString& remotePath, const QByteArray& content) const;

    QJsonObject stats() { return admin("GET", QStringLiteral("/admin/stats")).json(); }
    bool resetStats() { return admin("POST", QStringLiteral("/admin/stats/reset")).status == 200; }
    // Waits until `holds` is true of one snapshot of the counters, within `timeoutMs`. Counters
    // read in separate looks may come from different moments, and QTRY_VERIFY looks once more
    // after its loop: a count that flickers (a short request in flight) would fail it at once.
    bool waitForStats(const std::function<bool(const QJsonObject&)>& holds, int timeoutMs);
    bool armFault(const QJsonObject& fault)
    {
        return admin("POST", QStringLiteral("/admin/faults"), fault).status == 200;
    }
    bool clearFaults() { return admin("DELETE", QStringLiteral("/admin/faults")).status == 200; }
    // The code of a new share link on `path` of the token's own space; empty on failure.
    QString createShare(const QString& path, bool upload = false, const QString& password = {});
    bool setLocked(const QString& path, bool locked);
    bool flagVirus(const QString& path);
    // Any other admin request; `path` like "/admin/stats".
    TestHttpReply admin(const QByteArray& method, const QString& path, const QJsonObject& body = {});

private:
    bool launch(int port);

    QStringList m_extraArgs;
    QString m_token = QStringLiteral("kx-dev-token");
    QString m_adminToken = QStringLiteral("kx-admin-token");
    std::unique_ptr<QTemporaryDir> m_dir;
    CKXServerDriver m_driver;
    QString m_error;
};

// The same class under the name the test suites may spell without the prefix.
using KXServerProcess = CKXServerProcess;
