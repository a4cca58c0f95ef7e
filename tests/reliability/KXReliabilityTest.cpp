#include "KXReliabilityTest.h"

#include <QDir>
#include <QTest>

void CKXReliabilityTest::init()
{
    m_env = std::make_unique<CKXApiFixture>();
    QVERIFY2(m_env->setUp(), qPrintable(m_env->errorString()));
}

void CKXReliabilityTest::cleanup()
{
    m_env.reset();
}

void waitForEnd(long long handle, ApiTaskRecord* out)
{
    QVERIFY(handle != 0);
    QTRY_VERIFY_WITH_TIMEOUT(CKXApiFixture::record(handle).finals > 0, kFinishMs);
    // Once the finishing thread has deleted the transfer nothing can report for it any more.
    QTRY_COMPARE_WITH_TIMEOUT(Transfer::transferCount(), 0, kFinishMs);
    *out = CKXApiFixture::record(handle);
    QCOMPARE(out->finals, 1);
}

void checkCode(const ApiTaskRecord& record, int expected)
{
    const int code = int(record.code);
    const QString seen = QStringLiteral("code %1 (%2), http %3, expected %4")
                             .arg(QString::number(code), record.task.errorInfo,
                                  QString::number(record.task.httpCode), QString::number(expected));
    if (expected == kTransportFailure) {
        // libcurl's codes lie below 100; the library's own (1001 and up) mean something else.
        QVERIFY2(code > 0 && code < 100, qPrintable(seen));
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

QStringList filesIn(const QString& folder)
{
    return QDir(folder).entryList(QDir::Files | QDir::Hidden, QDir::Name);
}
