#pragma once

// What the reliability suites share: a fresh end-to-end world for every test function, and the
// checks of how a task ended and of the files it left.
//
// A suite's test class derives from CKXReliabilityTest; its init() creates the CKXApiFixture on the
// test thread and its cleanup() deletes it there, which shuts the engine down and stops the server.

#include "KXApiFixture.h"

#include <QObject>

#include <memory>

// The expected code of a task that fails in the transport: any libcurl code, and no HTTP status.
constexpr int kTransportFailure = -1;

class CKXReliabilityTest : public QObject
{
    Q_OBJECT

protected:
    CKXApiFixture& env() { return *m_env; }

private slots:
    void init();
    void cleanup();

private:
    std::unique_ptr<CKXApiFixture> m_env;
};

// Waits for the one final callback of a started task and for the finishing thread to let go of it.
void waitForEnd(long long handle, ApiTaskRecord* out);
// Compares the reported code (an ErrorCode, an HTTP status or kTransportFailure) and the state
// that goes with it.
void checkCode(const ApiTaskRecord& record, int expected);
// The files, hidden ones included, directly in `folder`, by name.
QStringList filesIn(const QString& folder);
