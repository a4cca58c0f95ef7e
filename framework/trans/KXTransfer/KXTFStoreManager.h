#pragma once

#include "KXTransferDefine.h"

#include <QList>
#include <QMap>
#include <QMutex>
#include <QString>

class CKXTransferDB;

// The latest SubTaskInfo of every known sub-task, keyed by sub-task id, plus the global limits,
// the database folder and the one CKXTransferDB of the process. A completed task is handed out
// once: reading it forgets it and deletes its rows from the database.
//
// Ownership and threads: inst() creates the singleton on first call and clear() deletes it (the
// caller must make sure no thread still uses it); the store owns the database object. Any thread
// may call any operation. m_mutex guards m_tasks, the limits and m_dbDir; m_dbMutex guards the
// creation of m_db and m_unconfiguredDbs. Records leave the store only as copies; no lock is held while the
// database is called.
class CKXTFStoreManager
{
public:
    static CKXTFStoreManager* inst();
    static void clear();

    void addTaskInfo(const SubTaskInfo& info);
    // Copies the record into `out`; `out` is untouched when the id is unknown.
    bool getTaskInfo(const QString& subTaskId, SubTaskInfo& out);
    bool destroyTaskInfo(const QString& subTaskId);
    QList<SubTaskInfo> allTasks() const;

    QString taskInfoJson(const SubTaskInfo& info) const;
    bool taskInfoFormJson(const QString& json, SubTaskInfo& out) const;

    // 0 until configured.
    void setMaxConcurrentCount(int count);
    int maxConcurrentCount() const;
    // Stored and handed out; nothing throttles by it.
    void setSecSpeedLimit(qint64 bytesPerSecond);
    qint64 secSpeedLimit() const;
    void setDBPath(const QString& dir);
    QString dbPath() const;
    // databaseFileIn(dbPath()): empty while no folder is set, so that an unconfigured engine never
    // writes into the root of the file system.
    QString databaseFilePath() const;
    // The folder, a separator when it lacks one, then "transfer.db"; empty for an empty folder.
    static QString databaseFileIn(const QString& dir);
    // The folder the user-path configuration sets: the per-user data folder of "Transfer".
    static QString userDbDir();

    // Creates the database at databaseFilePath() and its tables on first call. Before a folder is
    // set it hands out a database whose every operation fails; once a folder is set the next call
    // makes the real one (the unusable one stays alive until the store dies, as callers may hold it).
    CKXTransferDB* db();

    // Opens the transfer log (again, after a shutdown) with the level named by `name`: a
    // QtKXLogger level number 0..3; anything else logs everything.
    void initLog(const QString& path, const QString& name);

private:
    CKXTFStoreManager() = default;
    ~CKXTFStoreManager();
    CKXTFStoreManager(const CKXTFStoreManager&) = delete;
    CKXTFStoreManager& operator=(const CKXTFStoreManager&) = delete;

    void forgetCompleted(const SubTaskInfo& info);

    mutable QMutex m_mutex;
    QMutex m_dbMutex;
    QMap<QString, SubTaskInfo> m_tasks;
    qint32 m_maxConcurrentCount = 0;
    qint64 m_secSpeedLimit = 0;
    QString m_dbDir;
    CKXTransferDB* m_db = nullptr;
    QList<CKXTransferDB*> m_unconfiguredDbs;
};
