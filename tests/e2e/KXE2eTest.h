#pragma once

// The world the end-to-end tests of chunked transfers share: private XDG folders, one kxserver the
// engine is pointed at, a work folder per test function, and what the tests ask of them (a task
// run to its final callback, the server's copy of a file, its counters, the blocks stored for a
// task). A test class derives from KXE2eTest, whose slots set the world up before the first test
// function and give each one a fresh folder, fresh counters, no faults and four blocks at a time;
// everything runs on the test thread.

#include "IKXTransfer.h"
#include "KXChunkedE2e.h"
#include "KXServerProcess.h"
#include "KXTestData.h"

#include <QObject>
#include <QProcess>
#include <QTemporaryDir>

#include <functional>
#include <memory>

namespace KXChunkedE2e {

constexpr int kWait = 120000;

QString newId();
// Writes `size` bytes drawn from `seed` (creating the folders); their SHA-256, "" on failure.
QString writeRandomFile(const QString& path, qint64 size, quint32 seed);

// kx_chunked_runner in a child process, so that a test can kill it with SIGKILL part-way. The
// destructor kills a runner still going.
class KXRunnerProcess
{
public:
    explicit KXRunnerProcess(const QStringList& args);
    ~KXRunnerProcess() { kill9(); }
    // The last "blocks_done" count printed so far.
    int blocksDone();
    // The runner's last line once it ended by itself within kWait ("done <code> <state>"), else "".
    QString finish();
    void kill9();

private:
    QProcess m_process;
    int m_blocksDone = 0;
    QString m_lastLine;
};

} // namespace KXChunkedE2e

class KXE2eTest : public QObject
{
    Q_OBJECT

protected slots:
    void initTestCase();
    void init();
    void cleanup() { m_server.clearFaults(); }

protected:
    // Starts the task (through the public API unless `start` is given) and waits for its next
    // final callback; false on a time-out.
    bool run(const SubTaskInfo& task, KXOutcomes::Outcome& outcome, const std::function<void()>& start = {});
    // The SHA-256 of the server's copy, or "status <code>" when it cannot be read.
    QString serverSha256(const QString& remotePath);
    bool putRemote(const QString& remotePath, const QByteArray& content);
    int stat(const char* name) { return m_server.stats().value(QLatin1String(name)).toInt(); }
    void setLimit(int limit)
    {
        Transfer::setConfig(TransferConfigMaxConcurrentCount, QString::number(limit));
    }
    // The runner's arguments for one task against this server.
    QStringList runnerArgs(const QString& id, const QString& local, const QString& remote, qint64 size) const;

    QTemporaryDir m_home;
    KXServerProcess m_server;
    std::unique_ptr<QTemporaryDir> m_dir;
};
