#pragma once

// The world of one end-to-end engine test: private data and home folders, a kxserver on an
// ephemeral port, the server-API library pointed at it and the engine configured. The engine's two
// callbacks are plain functions, so what they report goes into one process-wide table of
// ApiTaskRecord per handle, guarded by a mutex and emptied by every setUp().
//
// Created and destroyed by the test thread (setUp in init(), destruction in cleanup()); the
// destructor shuts the engine down with Transfer::deinit.

#include "IKXTransfer.h"
#include "KXServerProcess.h"
#include "KXTestData.h"

#include <QStringList>
#include <QTemporaryDir>

#include <functional>
#include <memory>

// What the callbacks reported for one handle.
struct ApiTaskRecord
{
    int finals = 0;           // final (error) callbacks so far
    ErrorCode code = NoError; // the code of the last one
    SubTaskInfo task;         // the record it carried
    int progress = 0;         // progress callbacks so far
    qint64 lastBytes = 0;     // bytes of the last one
    bool readInFinal = false; // Transfer::taskInfo answered inside the final callback
};

// Long enough for a 4 MiB transfer on a loaded two-core machine.
constexpr int kFinishMs = 60000;

// Runs at the start of every callback, on the thread that reports; `final` tells the error
// callback from a progress report.
using ApiCallbackHook = std::function<void(long long handle, bool final)>;

class CKXApiFixture
{
public:
    explicit CKXApiFixture(const QStringList& serverArgs = {});
    ~CKXApiFixture();

    // False with errorString() when the server could not be started.
    bool setUp();
    QString errorString() const { return m_error; }
    CKXServerProcess& server() { return m_server; }

    // A path in the test's private work folder.
    QString localPath(const QString& name) const;
    // The state column of the task's row in transfer.db, -1 when it has no row.
    int dbRowState(const QString& subTaskId) const;
    // The number of the task's rows in the block table of transfer.db, of any state or of `state`.
    int dbBlockRows(const QString& subTaskId, int state = -1) const;

    // Starts the task and waits for its one final callback and for the finishing thread to take
    // it off the manager (fails the current test otherwise); `out` gets what was reported.
    void runToEnd(const SubTaskInfo& task, ApiTaskRecord* out, bool isUrl = false);
    // The same for a plain address downloaded into localPath.
    void runAddressToEnd(const QString& address, const QString& localPath, ApiTaskRecord* out);
    // A completed task is handed out once, then it is gone from the store and from transfer.db.
    void checkReadOnce(const QString& subTaskId, qint64 size);
    // Transfer::init with the recording callbacks; start() also starts it.
    static long long init(const SubTaskInfo& task, bool isUrl = false);
    static long long start(const SubTaskInfo& task, bool isUrl = false);
    static ApiTaskRecord record(long long handle);
    // Makes the final callback read the task at once, as a client that is told it ended would.
    static void readTaskInFinalCallback(bool read);
    // Installs `hook` for every later callback; setUp() removes it.
    static void setCallbackHook(ApiCallbackHook hook);

    static SubTaskInfo uploadTask(const QString& localPath, const QString& remotePath);
    static SubTaskInfo downloadTask(const QString& remotePath, qint64 size, const QString& localPath);

    // The server's copy of a file of the account's own space; false when there is none.
    bool readRemoteFile(const QString& remotePath, QByteArray* content);
    // Stores a file on the server directly, bypassing the engine.
    bool putRemoteFile(const QString& remotePath, const QByteArray& content);
    void configureServerApi(const QString& sessionId);

private:
    static void waitToEnd(long long handle, ApiTaskRecord* out);
    int dbValue(const QString& text, const QString& subTaskId) const;

    QTemporaryDir m_home;
    QTemporaryDir m_work;
    CKXServerProcess m_server;
    QString m_error;
};

// Runs `task` to its end in a test function, leaving it when that failed.
#define KX_RUN_TO_END(fixture, task, out, isUrl)                                                             \
    do {                                                                                                     \
        (fixture).runToEnd((task), (out), (isUrl));                                                          \
        if (QTest::currentTestFailed())                                                                      \
            return;                                                                                          \
    } while (0)

// The same for a plain address.
#define KX_RUN_ADDRESS_TO_END(fixture, address, localPath, out)                                              \
    do {                                                                                                     \
        (fixture).runAddressToEnd((address), (localPath), (out));                                            \
        if (QTest::currentTestFailed())                                                                      \
            return;                                                                                          \
    } while (0)
