#pragma once

// The rows of a fault table and the steps every row takes: arm a fault on kxserver (or restart the
// server while one request is held there), run the task through the public API to its one final
// callback, check the code it reported, and later run the same sub-task again with the fault gone.
//
// Created by a test function on the test thread over that test's CKXApiFixture, which outlives it.

#include "KXReliabilityTest.h"

#include <QJsonObject>

// Faults for kxserver's fault table, each on the requests of one operation `op`.
namespace KXFault {
// `count` requests from the `nth` on get `action` ("drop", "wrong_hash").
QJsonObject act(const char* op, const char* action, int nth = 1, int count = 1);
// The `nth` request is answered with `status` and the server's error `code`.
QJsonObject refusal(const char* op, int status, const char* code, int nth = 1);
// The `nth` request is held long enough to restart the server meanwhile, short of any client time-out.
QJsonObject held(const char* op, int nth);
// `count` requests are answered late, though in time.
QJsonObject slow(const char* op, int count);

// The columns every row of a table fills: chunked (bool, the rows whose name starts with
// "chunked"), fault (QJsonObject, empty for none), restartAt (int: 0, or the request count at which
// the held request is in flight and the server is killed and started again), retries (int, the
// library's transport retries) and expected (int: an ErrorCode, an HTTP status or kTransportFailure).
void addColumns();
void row(const char* name, const QJsonObject& fault, int expected, int restartAt = 0, int retries = 3);
} // namespace KXFault

class CKXFaultMatrix
{
public:
    explicit CKXFaultMatrix(CKXApiFixture& env) : m_env(env) {}

    // Starts the task under the row's fault and waits for its end; `out` gets what was reported.
    // Fails the current test when the task hangs or reports more than once.
    void runFaulted(const SubTaskInfo& task, const QJsonObject& fault, int restartAt, int retries,
                    ApiTaskRecord* out);
    // Clears every fault, gives the library its usual retries and runs the same sub-task again;
    // it must now succeed.
    void resume(const SubTaskInfo& task);

private:
    void setRetries(int retries);
    void restartWhenHeld(int requests);

    CKXApiFixture& m_env;
};
