#pragma once

// The engine's own read-only view of its stored tasks, for tools that show them beside (or after)
// a run: the rows of the task table read through the task JSON converter, with what each task has
// done so far, and where the engine keeps its database and logs. Internal: exported from the
// library for the tools of this project but not installed with the public headers.
//
// Never writes and never creates the file (a missing file reads as no tasks), so it is safe
// beside a running engine. Each object owns its own Qt SQL connection, and so is used on the thread
// that made it only.

#include "kxtransfer_export.h"

#include <QList>
#include <QString>

struct KXStoredTask
{
    QString id;
    qint32 state = 0;
    qint64 size = 0;
    qint64 doneBytes = 0; // finished blocks of a chunked task, else the saved byte count
    int blocksDone = 0;
    bool isUpload = false;
    QString localPath;
    QString remotePath; // a share link's task: the link's code, then the path inside it
    QString address;    // the plain address of a URL download
    int errorCode = 0;
    QString errorInfo;
};

class KXTRANSFER_EXPORT CKXTaskDatabase
{
public:
    explicit CKXTaskDatabase(const QString& file);
    ~CKXTaskDatabase();
    CKXTaskDatabase(const CKXTaskDatabase&) = delete;
    CKXTaskDatabase& operator=(const CKXTaskDatabase&) = delete;

    // The database the engine uses once its user path is configured.
    static QString databaseFile();
    // The folder of Transfer.log and DB.log. Not created.
    static QString logFolder();

    // All tasks in id order. false with a message when the file exists but cannot be read.
    bool tasks(QList<KXStoredTask>& out, QString& error);
    // false when there is no such row (or no readable file).
    bool find(const QString& id, KXStoredTask& out);
    QString file() const { return m_file; }

    // The task JSON's state text without its "State" prefixes: "Working|Paused"; "None" for 0.
    static QString stateName(qint32 state);
    // The size of one block of a chunked task; a file larger than this is moved in blocks.
    static qint64 blockSize();

private:
    bool open(QString& error);
    // false with an empty error when the table is missing, with the error when unreadable.
    bool hasTaskTable(QString& error);
    // All rows, or the one of `id` when it is not empty.
    bool query(const QString& id, QList<KXStoredTask>& out, QString& error);
    // Finished blocks of `tasks`, which are all rows or the one row of `id`.
    void addBlockProgress(const QString& id, QList<KXStoredTask>& tasks);

    QString m_file;
    QString m_connection;
    bool m_open = false;
};
