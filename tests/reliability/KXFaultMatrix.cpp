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

namespace {

void setRetries(CKXApiFixture& env, int retries)
{
    ServerApi::Config config = ServerApi::config();
    config.baseUrl = env.server().baseUrl();
    config.maxRetries = retries;
    ServerApi::configure(config);
}

void restartWhenHeld(CKXApiFixture& env, int requests)
{
    CKXServerProcess& server = env.server();
    // The held request has arrived once the server has seen `requests` requests; it stays in flight
    // for as long as its delay lasts, far longer than this wait. The server is killed only once it
    // is alone in flight: a block before it may still be streaming, and bytes already handed on are
    // never retried.
    QVERIFY(server.waitForStats(
        [requests](const QJsonObject& now) {
            return now.value(QLatin1String("requests")).toInt() >= requests &&
                   now.value(QLatin1String("inflight")).toInt() == 1;
        },
        kFinishMs));
    server.kill9();
    QVERIFY2(server.restart(), qPrintable(server.errorString()));
    // The port stays unless another process took it meanwhile.
    setRetries(env, ServerApi::config().maxRetries);
}

void run(CKXApiFixture& env, const SubTaskInfo& task, const QJsonObject& fault, int restartAt, int retries,
         int expected)
{
    QVERIFY(env.server().resetStats());
    if (!fault.isEmpty()) {
        QVERIFY(env.server().armFault(fault));
    }
    setRetries(env, retries);
    const long long handle = CKXApiFixture::start(task);
    QVERIFY(handle != 0);
    if (restartAt > 0) {
        restartWhenHeld(env, restartAt);
        if (QTest::currentTestFailed()) {
            return;
        }
    }
    ApiTaskRecord record;
    waitForEnd(handle, &record);
    if (!QTest::currentTestFailed()) {
        checkCode(record, expected);
    }
}

} // namespace

void KXFault::runRow(CKXApiFixture& env, const SubTaskInfo& task)
{
    QFETCH(QJsonObject, fault);
    QFETCH(int, expected);
    QFETCH(int, restartAt);
    QFETCH(int, retries);
    run(env, task, fault, restartAt, retries, expected);
}

void KXFault::resume(CKXApiFixture& env, const SubTaskInfo& task)
{
    QVERIFY(env.server().clearFaults());
    run(env, task, QJsonObject(), 0, ServerApi::Config().maxRetries, NoError);
}
