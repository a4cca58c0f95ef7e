#pragma once

// Carries one transfer through the engine from the calling (main) thread: builds the task record
// from the command's operands, gives it a stable id (so the same command resumes), starts it,
// shows its progress, pauses it on Ctrl-C and reads its outcome. One transfer at a time; the
// engine's callbacks reach the runner through a registry of CKXJobState keyed by sub-task id.
// The engine must be set up (CKXEngine::setUp) first. Used from one thread: the main thread, or
// for a command over several files one worker thread per runner (see CKXBatchRunner).

#include <QString>
#include <QStringList>

#include <functional>
#include <memory>

class CKXProgressPrinter;
class CKXJobState;
struct SubTaskInfo;

struct KXTransferJob
{
    enum Kind
    {
        Upload,
        Download,
        Url,
    };
    Kind kind = Upload;
    QString local;  // local file as given
    QString remote; // remote path (Upload, Download) or the address (Url); inside the share for a link
    QString server; // server address, part of the derived id
    bool overwrite = false;
    QString taskId; // empty: derived from the other members
    // Upload or Download through a share link instead of the account's own space.
    bool viaLink = false;
    QString linkCode;
    QString password; // the link's, if it has one
};

struct KXTransferOutcome
{
    enum Status
    {
        Done,
        Failed,
        Paused,
    };
    Status status = Failed;
    int code = 0;
    QString message;
    QString taskId;
    QString localPath;
    QString remotePath;
    qint64 size = 0;
    qint64 doneBytes = 0; // when paused
    qint64 elapsedMs = 0;
    bool chunked = false;
    bool quick = false;     // the server already held every block
    bool resumable = false; // a later run continues where this one stopped

    int exitCode() const;
    // "error <code> <name>: <message>"
    QString errorLine() const;
};

class CKXTransferRunner
{
public:
    explicit CKXTransferRunner(CKXProgressPrinter& printer);

    KXTransferOutcome run(const KXTransferJob& job);
    // Told (done, total) bytes as the printer is, on the thread that calls run().
    void setProgressSink(std::function<void(qint64, qint64)> sink) { m_sink = std::move(sink); }
    // true when a paused transfer's thread did not end in time: the engine must not be deinit'ed.
    bool threadsBusy() const { return m_busy; }

    // ErrorCode name, or a description of the library's own numbers.
    static QString codeName(int code);
    // A name-based UUID of the parts, in the braced form the engine uses for its own ids.
    static QString deriveTaskId(const QStringList& parts);
    // Where a download to path lands when it may not replace an existing file.
    static QString freeName(const QString& path);

private:
    bool prepare(const KXTransferJob& job, SubTaskInfo& task, KXTransferOutcome& outcome);
    bool prepareUpload(const KXTransferJob& job, SubTaskInfo& task, KXTransferOutcome& outcome);
    bool prepareDownload(const KXTransferJob& job, SubTaskInfo& task, KXTransferOutcome& outcome);
    void prepareUrl(const KXTransferJob& job, SubTaskInfo& task, KXTransferOutcome& outcome);
    // Sends the task through the job's share link; a link and path is a task of its own.
    static void throughLink(const KXTransferJob& job, SubTaskInfo& task);
    void discardCompletedRow(const SubTaskInfo& task, bool isUrl);
    void discardRow(const SubTaskInfo& task, bool isUrl);
    // Whether a failed task has blocks that a later run would not move again.
    static bool hasFinishedBlocks(const SubTaskInfo& task);
    void execute(const SubTaskInfo& task, bool isUrl, KXTransferOutcome& outcome);
    bool follow(const SubTaskInfo& task, const std::shared_ptr<CKXJobState>& state,
                KXTransferOutcome& outcome);
    void pause(long long handle, const std::shared_ptr<CKXJobState>& state, KXTransferOutcome& outcome);
    void abandon(KXTransferOutcome& outcome);
    static QString labelFor(const SubTaskInfo& task);
    void conclude(const SubTaskInfo& task, bool isUrl, const std::shared_ptr<CKXJobState>& state,
                  KXTransferOutcome& outcome);

    CKXProgressPrinter& m_printer;
    std::function<void(qint64, qint64)> m_sink;
    bool m_busy = false;
    bool m_consumedEarly = false; // a progress poll already took the completed record
    QString m_savedAs;            // the file a download is expected to end up in
};
