#pragma once

// Shared by the end-to-end tests of chunked transfers and their runner executable: task records
// for uploads and downloads against kxserver, the blocks the engine stored for a task, and the
// final results of tasks as the engine's error callback reports them.

#include "KXBlockTask.h"
#include "KXTransferDefine.h"

#include <QMap>
#include <QMutex>
#include <QString>

namespace KXChunkedE2e {

constexpr qint64 kBlock = 4194304;

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

// What the error callback reported for each task, by sub-task id. The callback comes on a transfer
// thread; m_mutex guards m_outcomes.
class KXOutcomes
{
public:
    struct Outcome
    {
        int calls = 0;
        ErrorCode code = NoError;
        SubTaskInfo record;
    };

    static void onError(long long handle, const SubTaskInfo& record, ErrorCode code);
    static bool has(const QString& id);
    static Outcome get(const QString& id);

private:
    static QMutex m_mutex;
    static QMap<QString, Outcome> m_outcomes;
};
