#pragma once

// The world the end-to-end tests of chunked transfers share: private XDG folders, one kxserver the
// engine is pointed at, a work folder per test function, and what the tests ask of them (a task
// run to its final callback, the server's copy of a file, its counters, the blocks stored for a
// task). A test class derives from KXE2eTest, calls setUpWorld() from initTestCase() and
// setUpCase() from init(); everything runs on the test thread.

#include "KXBlockTask.h"
#include "KXChunkedE2e.h"
#include "KXServerProcess.h"

#include <QObject>
#include <QProcess>
#include <QTemporaryDir>

#include <functional>
#include <memory>

namespace KXChunkedE2e {

constexpr int kWait = 120000;

QString newId();
QByteArray fileBytes(const QString& path);

// The task's blocks as stored in the engine's database, as a resumed run would load them.
struct StoredBlocks
{
    explicit StoredBlocks(const QString& id);
    ~StoredBlocks();
    int withState(BlockTaskState state) const;
    QList<CKXBlockTask*> list;
};

// kx_chunked_runner in a child process, so that a test can kill it with SIGKILL part-way. The
// destructor kills a runner still going.
class KXRunnerProcess
{
public:
    explicit KXRunnerProcess(const QStringList& args);
    ~KXRunnerProcess();
    // The last "blocks_done" count printed so far.
    int blocksDone();
    // The exit code of a normal end within kWait, -1 otherwise.
    int finish();
    void kill9();
    QString lastLine() const { return m_lastLine; }

private:
    void readLines();

    QProcess m_process;
    int m_blocksDone = 0;
    QString m_lastLine;
};

} // namespace KXChunkedE2e

class KXE2eTest : public QObject
{
protected:
    void setUpWorld();
    void setUpCase();
    // Starts the task (through the public API unless `start` is given) and waits for its next
    // final callback; false on a time-out.
    bool run(const SubTaskInfo& task, KXOutcomes::Outcome& outcome, const std::function<void()>& start = {});
    // The SHA-256 of the server's copy, or "status <code>" when it cannot be read.
    QString serverSha256(const QString& remotePath);
    bool putRemote(const QString& remotePath, const QByteArray& content);
    int stat(const char* name) { return m_server.stats().value(QLatin1String(name)).toInt(); }
    // The runner's arguments for one task against this server.
    QStringList runnerArgs(const QString& id, const QString& local, const QString& remote, qint64 size) const;

    QTemporaryDir m_home;
    KXServerProcess m_server;
    std::unique_ptr<QTemporaryDir> m_dir;
};
