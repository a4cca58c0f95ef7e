#pragma once

// Moves the files of a batch plan through the engine, a few at once: each file is carried by its
// own CKXTransferRunner on a worker thread of the runner's private pool, while the calling (main)
// thread draws one summary line and prints each failure once. A file whose target already holds
// it (same size, not older) is skipped, so running the same command again resumes the batch.
// Ctrl-C stops starting files and pauses the running ones. The runner owns the pool and waits for
// it before run() returns; m_mutex guards the tally the workers and the main thread share, and the
// map of target folders' listings (each listing is made once, by the first job that needs it).

#include <QHash>
#include <QMutex>
#include <QString>
#include <QStringList>
#include <QVector>
#include <QWaitCondition>

#include <memory>

struct KXBatchPlan;
struct KXBatchFailure;
struct KXBatchJob;
struct KXToolOptions;
class CKXProgressPrinter;

struct KXBatchSummary
{
    int total = 0;
    int sent = 0;
    int skipped = 0; // the target already held the file
    int failed = 0;
    int paused = 0; // stopped by Ctrl-C, or never started because of it
    qint64 bytes = 0;
    qint64 elapsedMs = 0;
    bool busy = false; // a transfer thread did not end: the engine must not be deinit'ed

    int exitCode() const;
    QString text() const;
};

class CKXBatchRunner
{
public:
    CKXBatchRunner(const KXToolOptions& options, CKXProgressPrinter& printer);

    KXBatchSummary run(const KXBatchPlan& plan);

    // "error <code> <name>: <path>: <message>"
    static QString errorLine(const KXBatchFailure& failure);
    // Whether a target of targetSize written at targetTime already holds a source of sourceSize
    // written at sourceTime; a time of 0 is unknown and then the sizes decide.
    static bool alreadyThere(qint64 targetSize, qint64 targetTime, qint64 sourceSize, qint64 sourceTime);

private:
    enum Result
    {
        Sent,
        Skipped,
        Failed,
        Paused,
    };
    struct Slot
    {
        qint64 done = 0;
        qint64 total = 0;
    };

    struct RemoteFolder;

    void carry(int index, const KXBatchJob& item); // on a worker thread
    bool targetHolds(const KXBatchJob& item, bool& interrupted);
    // The listing of a target folder of uploads, made by the first job that needs it.
    std::shared_ptr<RemoteFolder> remoteFolder(const QString& folder);
    void settle(int index, Result result, const QString& line, bool busy);
    void follow(const KXBatchPlan& plan);
    void drawProgress(int settled);

    const KXToolOptions& m_options;
    CKXProgressPrinter& m_printer;

    QMutex m_mutex;
    QWaitCondition m_changed;
    QVector<Slot> m_slots;
    QStringList m_lines; // failures not yet printed
    KXBatchSummary m_summary;
    int m_settled = 0;
    QHash<QString, std::shared_ptr<RemoteFolder>> m_remoteFolders;
};
