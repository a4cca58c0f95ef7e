#include "KXFaultMatrix.h"

#include "IKXTransfer.h"
#include "ServerApiConfig.h"

#include <QTest>

QJsonObject KXFault::act(const char* op, const char* action, int nth, int count)
{
    return {{"op", op}, {"action", action}, {"nth", nth}, {"count", count}};
}

QJsonObject KXFault::refusal(const char* op, int status, const char* code, int nth)
{
    return {{"op", op}, {"action", "status"}, {"status", status}, {"code", code}, {"nth", nth}};
}

QJsonObject KXFault::held(const char* op, int nth)
{
    return {{"op", op}, {"action", "delay"}, {"ms", 30000}, {"nth", nth}};
}

QJsonObject KXFault::slow(const char* op, int count)
{
    return {{"op", op}, {"action", "delay"}, {"ms", 1500}, {"count", count}};
}

void KXFault::addColumns()
{
    QTest::addColumn<bool>("chunked");
    QTest::addColumn<QJsonObject>("fault");
    QTest::addColumn<int>("expected");
    QTest::addColumn<int>("restartAt");
    QTest::addColumn<int>("retries");
}

void KXFault::row(const char* name, const QJsonObject& fault, int expected, int restartAt, int retries)
{
    const bool chunked = QByteArray(name).startsWith("chunked");
    QTest::newRow(name) << chunked << fault << expected << restartAt << retries;
}

void CKXFaultMatrix::setRetries(int retries)
{
    ServerApi::Config config = ServerApi::config();
    config.baseUrl = m_env.server().baseUrl();
    config.maxRetries = retries;
    ServerApi::configure(config);
}

void CKXFaultMatrix::runFaulted(const SubTaskInfo& task, const QJsonObject& fault, int restartAt, int retries,
                                ApiTaskRecord* out)
{
    CKXServerProcess& server = m_env.server();
    QVERIFY(server.resetStats());
    if (!fault.isEmpty()) {
        QVERIFY(server.armFault(fault));
    }
    setRetries(retries);
    const long long handle = CKXApiFixture::start(task);
    QVERIFY(handle != 0);
    if (restartAt > 0) {
        restartWhenHeld(restartAt);
        if (QTest::currentTestFailed()) {
            return;
        }
    }
    waitForEnd(handle, out);
}

void CKXFaultMatrix::restartWhenHeld(int requests)
{
    CKXServerProcess& server = m_env.server();
    // The held request has arrived once the server has seen `requests` requests; it stays in flight
    // for as long as its delay lasts, far longer than this wait.
    QTRY_VERIFY_WITH_TIMEOUT(server.stats().value(QLatin1String("requests")).toInt() >= requests &&
                                 server.stats().value(QLatin1String("inflight")).toInt() >= 1,
                             kFinishMs);
    server.kill9();
    QVERIFY2(server.restart(), qPrintable(server.errorString()));
    // The port stays unless another process took it meanwhile.
    setRetries(ServerApi::config().maxRetries);
}

void CKXFaultMatrix::resume(const SubTaskInfo& task)
{
    QVERIFY(m_env.server().clearFaults());
    ApiTaskRecord record;
    runFaulted(task, QJsonObject(), 0, ServerApi::Config().maxRetries, &record);
    if (QTest::currentTestFailed()) {
        return;
    }
    checkCode(record, NoError);
}
