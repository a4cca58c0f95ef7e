#pragma once

// What a command over several files moves: one job per file, worked out from the operands before
// anything starts. Local trees are walked without following symbolic links; remote trees are
// listed through the metadata request. An entry that cannot be moved (an unreadable file, a
// remote folder that cannot be listed) becomes a failure, reported once beside the jobs; a missing
// local operand refuses the whole command. Value objects, built on the main thread.

#include "KXTransferRunner.h"

#include <QList>
#include <QString>
#include <QStringList>

struct KXToolOptions;

struct KXBatchFailure
{
    int code = 0;
    QString path;
    QString message;
};

struct KXBatchJob
{
    KXTransferJob job; // local and remote name the file itself, never a folder
    qint64 size = -1;  // the source's size, -1 while unknown
};

struct KXBatchPlan
{
    QList<KXBatchJob> jobs;
    QList<KXBatchFailure> failures;
    QStringList notes; // entries left alone on purpose (symbolic links, empty folders)
};

class CKXBatchPlanner
{
public:
    // false: nothing may start; errorText() says why, or interrupted() when Ctrl-C cut a listing.
    bool plan(const KXToolOptions& options, KXBatchPlan& out);
    QString errorText() const { return m_error; }
    bool interrupted() const { return m_interrupted; }

    // The name a local or remote operand gives its tree's top folder at the target.
    static QString treeName(const QString& operand);

private:
    bool planUpload(const KXToolOptions& options, KXBatchPlan& out);
    bool planDownload(const KXToolOptions& options, KXBatchPlan& out);
    void walkLocal(const QString& dir, const QString& remoteFolder, const KXTransferJob& model,
                   KXBatchPlan& out);
    bool walkRemote(const QString& folder, const QString& localFolder, const KXTransferJob& model,
                    KXBatchPlan& out);
    static KXTransferJob modelJob(const KXToolOptions& options, bool upload);

    QString m_error;
    bool m_interrupted = false;
};
