#pragma once

// The world the end-to-end tests of chunked transfers share: private XDG folders, one kxserver the
// engine is pointed at, a work folder per test function, and what the tests ask of them (task
// records for uploads and downloads, a task run to its final callback, the server's copy of a
// file, its counters, the blocks stored for a task). A test class derives from KXE2eTest, whose
// slots set the world up before the first test function and give each one a fresh folder, fresh
// counters, no faults and four blocks at a time; everything runs on the test thread.
// kx_chunked_runner builds its one task from the same records and waits on KXOutcomes.

#include "IKXTransfer.h"
#include "KXBlockTask.h"
#include "KXServerProcess.h"
#include "KXTestData.h"

#include <QMap>
#include <QMutex>
#include <QObject>
#include <QTemporaryDir>
#include <QWaitCondition>

#include <memory>

namespace KXChunkedE2e {

constexpr qint64 kBlock = 4194304;
constexpr int kWait = 120000;

QString newId();
// Writes `size` bytes drawn from `seed` (creating the folders); their SHA-256, "" on failure.
QString writeRandomFile(const QString& path, qint64 size, quint32 seed);

SubTaskInfo uploadTask(const QString& id, const QString& localPath, const QString& remotePath, qint64 size);
SubTaskInfo downloadTask(const QString& id, const QString& remotePath, const QString& localPath, qint64 size);
// The same task through the share link `code`; its remote path is then the path inside the share.
SubTaskInfo throughLink(SubTaskInfo task, const QString& code, const QString& password = QString());

// Points the server-API library at kxserver with the account's token.
void configureServer(const QString& baseUrl, const QString& token);

// The task's blocks as stored in the engine's database, as a resumed run would load them.
struct StoredBlocks
{
    explicit StoredBlocks(const QString& id);
    ~StoredBlocks() { qDeleteAll(list); }
    int withState(BlockTaskState state) const;
    QList<CKXBlockTask*> list;
};

} // namespace KXChunkedE2e

// What the callbacks reported for each task, by sub-task id. They come on transfer threads;
// m_mutex guards m_outcomes, and m_final is signalled with it held at each final callback.
class KXOutcomes
{
public:
    struct Outcome
    {
        int calls = 0; // final callbacks
        int progress = 0;
        ErrorCode code = NoError;
        SubTaskInfo record;
    };

    static void onError(long long handle, const SubTaskInfo& record, ErrorCode code);
    static void onProgress(long long handle, const SubTaskInfo& record, long long bytes);
    static Outcome get(const QString& id);
    // Blocks until the task's first final callback has come.
    static Outcome waitForFinal(const QString& id);

private:
    static QMutex m_mutex;
    static QWaitCondition m_final;
    static QMap<QString, Outcome> m_outcomes;
};

class KXE2eTest : public QObject
{
    Q_OBJECT

protected slots:
    void initTestCase();
    void init();
    void cleanup() { m_server.clearFaults(); }

protected:
    // Starts the task through the public API; its handle, 0 when the engine refused it.
    long long start(const SubTaskInfo& task);
    // Starts the task and waits for its next final callback; what it reported, code -1 when the
    // engine refused the task or no final callback came in time.
    KXOutcomes::Outcome run(const SubTaskInfo& task);
    // The SHA-256 of the server's copy, or "status <code>" when it cannot be read.
    QString serverSha256(const QString& remotePath);
    int stat(const char* name) { return m_server.stats().value(QLatin1String(name)).toInt(); }
    void setLimit(int limit)
    {
        Transfer::setConfig(TransferConfigMaxConcurrentCount, QString::number(limit));
    }

    QTemporaryDir m_home;
    KXServerProcess m_server;
    std::unique_ptr<QTemporaryDir> m_dir;
};
