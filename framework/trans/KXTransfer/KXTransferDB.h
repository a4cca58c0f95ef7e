#pragma once

#include "KXDbBase.h"

#include <QList>
#include <QString>
#include <QStringList>

#include <memory>

class CKXBlockTask;
class CKXTransferTask;
struct SubTaskInfo;

// The state of unfinished transfers across runs: one row per sub-task in "transfer_v1" and one row
// per block in "block_v1", each carrying the record's JSON text beside a few plain columns.
// Every operation returns false and logs when it fails; ids must not hold a "'" and are refused
// when they do.
//
// Ownership and threads: the task store creates the one instance of the process and owns it; any
// thread may call any operation (the base serialises them). Loaded blocks belong to the caller.
class CKXTransferDB : public CKXDbBase
{
public:
    explicit CKXTransferDB(const QString& dbPath);

    bool isMultiTable() const override { return true; }
    QStringList getTableNames() const override;
    using CKXDbBase::getCreateTableString;
    QString getCreateTableString(const QString& table) const override;

    static QString getTransferTableName();
    static QString getBlockTableName();

    // Inserts or replaces the sub-task's row.
    bool AddTransferTask(CKXTransferTask& task);
    bool DelTransferTask(const QString& subTaskId);
    // Fills `task` from the stored JSON; false when there is no row or its text is not a task.
    bool LoadTransferTask(const QString& subTaskId, CKXTransferTask& task);

    bool AddBlockTask(CKXBlockTask& block);
    // Stores the rows AddBlockTask would store for each block, in one transaction. A block that
    // cannot be stored is logged and skipped; the result is then false.
    bool AddBlockTaskFormList(const QList<CKXBlockTask*>& blocks);
    bool DelBlockTask(const QString& blockId);
    // Deletes every block of a sub-task.
    bool DelBlockTasks(const QString& subTaskId);
    bool LoadBlockTask(const QString& blockId, CKXBlockTask& block);
    // Appends new blocks ordered by index; the caller owns them. When any row cannot be read,
    // nothing is appended and the result is false, so a transfer never runs on a partial list.
    bool LoadBlockTasks(const QString& subTaskId, QList<CKXBlockTask*>& blocks);

private:
    bool blockStatement(CKXBlockTask& block, QString& sql);
    // The owning record last parsed while loading blocks, with the text it came from.
    struct OwnerCache
    {
        QString text;
        std::shared_ptr<const SubTaskInfo> record;
    };
    bool fillBlockFromRow(const Row& row, CKXBlockTask& block, OwnerCache& owners);
};
