#pragma once

// The rows of a fault table and the steps every row takes: arm a fault on kxserver (or restart the
// server while one request is held there), run the task through the public API to its one final
// callback, check the code it reported, and later run the same sub-task again with the fault gone.
// Called on the test thread by a table's test function, over that test's CKXApiFixture.

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

// Runs the task under the current row's fault to its one final callback and checks the code the
// row expects; fails the current test when the task hangs, reports twice or reports another code.
void runRow(CKXApiFixture& env, const SubTaskInfo& task);
// Clears every fault, gives the library its usual retries and runs the same sub-task again; it
// must now succeed.
void resume(CKXApiFixture& env, const SubTaskInfo& task);
} // namespace KXFault
