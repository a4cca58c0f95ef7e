#pragma once

// kx_chunked_runner in a child process: one chunked task of the engine in a process of its own, so
// that a test can kill it with SIGKILL part-way and start it again with the same task. Created,
// used and destroyed by one test thread; the destructor kills a runner still going.

#include <QProcess>
#include <QStringList>

class CKXServerProcess;

class KXRunnerProcess
{
public:
    // With `home` the runner keeps its database there instead of under this process's XDG_DATA_HOME.
    explicit KXRunnerProcess(const QStringList& args, const QString& home = {});
    ~KXRunnerProcess() { kill9(); }

    // True once the engine inside has started the task, within `ms`.
    bool started(int ms) { return m_process.canReadLine() || m_process.waitForReadyRead(ms); }
    // The runner's last line ("done <code> <state>") once it has ended by itself within `ms`, else "".
    QString finish(int ms);
    void kill9();

    // The arguments of an upload of `local` to `remote` on `server` (or a download, the other way)
    // of `size` bytes under sub-task `id`, `concurrency` blocks at a time.
    static QStringList args(const CKXServerProcess& server, const QString& id, const QString& local,
                            const QString& remote, qint64 size, bool download, int concurrency);

private:
    QProcess m_process;
    QByteArray m_output;
};
