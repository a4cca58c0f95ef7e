#pragma once

// Read-only view of the engine's transfer.db: the rows of transfer_v1 with what each task has
// done so far. Never writes and never creates the file (a missing file reads as no tasks), so it
// is safe beside a running engine. Each object owns its own Qt SQL connection; main thread only.

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
    QString remotePath;
    QString address; // the plain address of a URL download
    int errorCode = 0;
    QString errorInfo;
};

class CKXTaskDatabase
{
public:
    explicit CKXTaskDatabase(const QString& file);
    ~CKXTaskDatabase();
    CKXTaskDatabase(const CKXTaskDatabase&) = delete;
    CKXTaskDatabase& operator=(const CKXTaskDatabase&) = delete;

    // All tasks in id order. false with a message when the file exists but cannot be read.
    bool tasks(QList<KXStoredTask>& out, QString& error);
    // false when there is no such row (or no readable file).
    bool find(const QString& id, KXStoredTask& out);

    // "Working", "Paused|Error", ... ; "None" for 0.
    static QString stateName(qint32 state);

private:
    bool open(QString& error);
    // false with an empty error when the table is missing, with the error when unreadable.
    bool hasTaskTable(QString& error);
    // All rows, or the one of `id` when it is not empty.
    bool query(const QString& id, QList<KXStoredTask>& out, QString& error);
    void addBlockProgress(QList<KXStoredTask>& tasks);

    QString m_file;
    QString m_connection;
    bool m_open = false;
};
