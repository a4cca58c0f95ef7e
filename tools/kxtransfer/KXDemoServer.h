#pragma once

// A private kxserver for the demo: started through the server driver on a free loopback port with
// its own root folder and random tokens, asked for its admin counters, stopped by the destructor.
// Owned by the demo, used on the main thread only.

#include "KXServerDriver.h"

#include <QJsonObject>
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

    QString baseUrl() const { return m_driver.baseUrl(); }
    QString token() const { return m_token; }

    bool stats(QJsonObject& out, QString& error);
    bool resetStats(QString& error);

private:
    bool adminRequest(const QByteArray& method, const QString& path, QByteArray& body, QString& error);

    CKXServerDriver m_driver;
    QString m_token;
    QString m_adminToken;
};
