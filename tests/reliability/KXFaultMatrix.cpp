#include "KXFaultMatrix.h"

#include "IKXTransfer.h"
#include "ServerApiConfig.h"

#include <QTest>

namespace {

// libcurl's codes lie below 100; the library's own (1001 and up) mean something else.
bool isTransportCode(int code)
{
    return code > 0 && code < 100;
}

} // namespace

void CKXFaultMatrix::addColumns()
{
    QTest::addColumn<bool>("chunked");
    QTest::addColumn<QJsonObject>("fault");
    QTest::addColumn<int>("expected");
    QTest::addColumn<int>("restartAt");
    QTest::addColumn<int>("retries");
}

void CKXFaultMatrix::addRow(const char* name, bool chunked, const QJsonObject& fault, int expected,
                            int restartAt, int retries)
{
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
    QTRY_VERIFY_WITH_TIMEOUT(CKXApiFixture::record(handle).finals > 0, kFinishMs);
    // Once the finishing thread has deleted the transfer nothing can report for it any more.
    QTRY_COMPARE_WITH_TIMEOUT(Transfer::transferCount(), 0, kFinishMs);
    *out = CKXApiFixture::record(handle);
    QCOMPARE(out->finals, 1);
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
    ServerApi::Config config = ServerApi::config();
    config.baseUrl = server.baseUrl();
    ServerApi::configure(config);
}

void CKXFaultMatrix::checkCode(const ApiTaskRecord& record, int expected)
{
    const int code = int(record.code);
    const QString seen = QStringLiteral("code %1 (%2), http %3, expected %4")
                             .arg(QString::number(code), record.task.errorInfo,
                                  QString::number(record.task.httpCode), QString::number(expected));
    if (expected == kTransportFailure) {
        QVERIFY2(isTransportCode(code), qPrintable(seen));
        QCOMPARE(record.task.httpCode, 0);
    } else {
        QVERIFY2(code == expected, qPrintable(seen));
    }
    if (code == NoError) {
        // A resumed task keeps the error fields of its earlier failure; the state tells success.
        QCOMPARE(record.task.state, StateCompleted);
    } else {
        QCOMPARE(record.task.state, StateError);
        QCOMPARE(int(record.task.errorCode), code);
    }
}

void CKXFaultMatrix::resume(const SubTaskInfo& task, ApiTaskRecord* out)
{
    QVERIFY(m_env.server().clearFaults());
    runFaulted(task, QJsonObject(), 0, ServerApi::Config().maxRetries, out);
    if (QTest::currentTestFailed()) {
        return;
    }
    checkCode(*out, NoError);
}
