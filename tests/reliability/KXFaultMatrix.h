#pragma once

// The rows of a fault table and the steps every row takes: arm a fault on kxserver (or restart the
// server while one request is held there), run the task through the public API to its one final
// callback, check the code it reported, and later run the same sub-task again with the fault gone.
//
// Created by a test function on the test thread over that test's CKXApiFixture, which outlives it.

#include "KXApiFixture.h"

#include <QJsonObject>

// The expected code of a row that fails in the transport: any libcurl code, and no HTTP status.
constexpr int kTransportFailure = -1;

class CKXFaultMatrix
{
public:
    explicit CKXFaultMatrix(CKXApiFixture& env) : m_env(env) {}

    // The columns every row fills: chunked (bool), fault (QJsonObject, empty for none),
    // restartAt (int: 0, or the request count at which the held request is in flight and the
    // server is killed and started again), retries (int, the library's transport retries) and
    // expected (int: an ErrorCode, an HTTP status or kTransportFailure).
    static void addColumns();
    static void addRow(const char* name, bool chunked, const QJsonObject& fault, int expected,
                       int restartAt = 0, int retries = 3);

    // Starts the task under the row's fault and waits for its end; `out` gets what was reported.
    // Fails the current test when the task hangs or reports more than once.
    void runFaulted(const SubTaskInfo& task, const QJsonObject& fault, int restartAt, int retries,
                    ApiTaskRecord* out);
    // Compares the reported code with the row's expectation.
    static void checkCode(const ApiTaskRecord& record, int expected);
    // Clears every fault, gives the library its usual retries and runs the same sub-task again;
    // it must now succeed.
    void resume(const SubTaskInfo& task, ApiTaskRecord* out);

private:
    void setRetries(int retries);
    void restartWhenHeld(int requests);

    CKXApiFixture& m_env;
};
