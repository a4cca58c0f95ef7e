#include "KXTransferDB.h"

#include "KXBlockJsonConvert.h"
#include "KXBlockTask.h"
#include "KXJsonConvert.h"
#include "KXLoggerWrapper.h"
#include "KXTFStoreManager.h"
#include "KXTransferTask.h"

namespace {

// Statement templates, filled with QString::arg; %1 is always the table name.
const QString TRANSFERTASKDB_CREATE_TABLE = QStringLiteral("CREATE TABLE [%1] ("
                                                           "[id] text PRIMARY KEY, "
                                                           "[task_id] text, "
                                                           "[state] integer, "
                                                           "[size] bigint, "
                                                           "[send_size] bigint, "
                                                           "[sub_task_info] text, "
                                                           "[finger_mark] text, "
                                                           "[reserved1] text, "
                                                           "[reserved2] text"
                                                           " ); ");
const QString BLOCKTASKDB_CREATE_TABLE = QStringLiteral("CREATE TABLE [%1] ("
                                                        "[id] text PRIMARY KEY, "
                                                        "[sub_task_id] text, "
                                                        "[state] integer, "
                                                        "[is_upload] integer, "
                                                        "[sent] bigint, "
                                                        "[total] bigint, "
                                                        "[length] bigint, "
                                                        "[loc] bigint, "
                                                        "[idx] integer, "
                                                        "[hash] text, "
                                                        "[sub_task_info] text, "
                                                        "[is_quick_trans] integer, "
                                                        "[block_info] text, "
                                                        "[reserved1] text"
                                                        " ); ");
const QString TRANSFERTASKDB_UPDATE =
    QStringLiteral("REPLACE INTO %1 (id, task_id, state, size, send_size, sub_task_info, finger_mark, "
                   "reserved1, reserved2) "
                   "VALUES ('%2', '%3', '%4', '%5', '%6', '%7', '%8', '%9', '%10'); ");
const QString TRANSFERTASKDB_DELETE = QStringLiteral("DELETE FROM %1 WHERE id='%2'; ");
const QString TRANSFERTASKDB_QUERY = QStringLiteral("SELECT * FROM %1 WHERE id='%2';");
// The missing blanks after the last commas are as older files' statements had them.
const QString BLOCKTASKDB_UPDATE =
    QStringLiteral("REPLACE INTO %1 (id, sub_task_id, state, is_upload, sent, total, length, loc, idx, hash, "
                   "sub_task_info,is_quick_trans,block_info,reserved1) "
                   "VALUES ('%2', '%3', '%4', '%5', '%6', '%7', '%8', '%9', '%10', '%11', '%12', '%13', "
                   "'%14', '%15'); ");
const QString BLOCKTASKDB_DELETE = QStringLiteral("DELETE FROM %1 WHERE id='%2'; ");
const QString BLOCKTASKDB_TASK_DELETE = QStringLiteral("DELETE FROM %1 WHERE sub_task_id='%2'; ");
const QString BLOCKTASKDB_QUERY = QStringLiteral("SELECT * FROM %1 WHERE id='%2';");
const QString BLOCKTASKDB_TASK_QUERY =
    QStringLiteral("SELECT * FROM %1 WHERE sub_task_id='%2' ORDER BY idx ASC;");
// Stands in for "%" while a statement is filled: every arg() call replaces the lowest marker left
// anywhere in the string, including a "%2" inside a value filled in before.
const QString SUBSTITUTE = QStringLiteral("@#@#@#~^$^~#@#@#@");

const QString kTransferTable = QStringLiteral("transfer_v1");
const QString kBlockTable = QStringLiteral("block_v1");

// A value quoted for SQL and shielded from the following arg() calls.
QString sqlText(QString text)
{
    CKXDbBase::translateSqliteSpecialChar4Update(text);
    return text.replace(QLatin1Char('%'), SUBSTITUTE);
}

// Ids go into statements as they are; a quote would end the literal and change the statement.
bool validId(const QString& id)
{
    if (!id.contains(QLatin1Char('\''))) {
        return true;
    }
    DBLOG_ERROR(QStringLiteral("id holds a single quote, refused. [id]%1").arg(id));
    return false;
}

QString idText(const QString& id)
{
    return QString(id).replace(QLatin1Char('%'), SUBSTITUTE);
}

QString restorePercent(QString sql)
{
    return sql.replace(SUBSTITUTE, QStringLiteral("%"));
}

} // namespace

CKXTransferDB::CKXTransferDB(const QString& dbPath) : CKXDbBase(dbPath) {}

QStringList CKXTransferDB::getTableNames() const
{
    return {kTransferTable, kBlockTable};
}

QString CKXTransferDB::getCreateTableString(const QString& table) const
{
    if (table == kTransferTable) {
        return TRANSFERTASKDB_CREATE_TABLE.arg(table);
    }
    if (table == kBlockTable) {
        return BLOCKTASKDB_CREATE_TABLE.arg(table);
    }
    return QString();
}

QString CKXTransferDB::getTransferTableName()
{
    return kTransferTable;
}

QString CKXTransferDB::getBlockTableName()
{
    return kBlockTable;
}

bool CKXTransferDB::AddTransferTask(CKXTransferTask& task)
{
    // One snapshot, so the plain columns and the JSON text describe the same moment.
    const SubTaskInfo info = task.getSubTaskInfo();
    if (!validId(info.subTaskId) || !validId(info.taskId)) {
        return false;
    }
    const QString sql = TRANSFERTASKDB_UPDATE.arg(kTransferTable)
                            .arg(idText(info.subTaskId))
                            .arg(idText(info.taskId))
                            .arg(static_cast<int>(info.state))
                            .arg(info.size)
                            .arg(info.sendBytes)
                            .arg(sqlText(CKXJsonConvert::SubTaskInfo2JsonString(info)))
                            .arg(sqlText(info.fingerMark))
                            .arg(QString())
                            .arg(QString());
    return updateInternal(restorePercent(sql));
}

bool CKXTransferDB::DelTransferTask(const QString& subTaskId)
{
    if (!validId(subTaskId)) {
        return false;
    }
    return updateInternal(TRANSFERTASKDB_DELETE.arg(kTransferTable, subTaskId));
}

bool CKXTransferDB::LoadTransferTask(const QString& subTaskId, CKXTransferTask& task)
{
    if (!validId(subTaskId)) {
        return false;
    }
    const QString sql = TRANSFERTASKDB_QUERY.arg(kTransferTable, subTaskId);
    DBLOG_DEBUG(sql);
    QList<Row> rows;
    if (!queryInternal(sql, rows) || rows.isEmpty()) {
        return false;
    }
    if (!task.FromJson(rows.first().value(QStringLiteral("sub_task_info")).toString())) {
        DBLOG_ERROR(QStringLiteral("sub_task_info is not a task json. [id]%1").arg(subTaskId));
        return false;
    }
    return true;
}

bool CKXTransferDB::blockStatement(CKXBlockTask& block, QString& sql)
{
    const BlockTaskInfo info = block.getBlockTaskInfo();
    if (!validId(info.taskId) || !validId(info.subTaskId)) {
        return false;
    }
    sql = BLOCKTASKDB_UPDATE.arg(kBlockTable)
              .arg(idText(info.taskId))
              .arg(idText(info.subTaskId))
              .arg(static_cast<int>(info.state))
              .arg(info.isUpload ? 1 : 0)
              .arg(info.sent)
              .arg(info.total)
              .arg(info.length)
              .arg(info.loc)
              .arg(info.idx)
              .arg(sqlText(info.hash))
              .arg(sqlText(CKXJsonConvert::SubTaskInfo2JsonString(info.subTaskInfo)))
              .arg(info.quickTrans ? 1 : 0)
              .arg(sqlText(CKXBlockJsonConvert::BlockInfo2JsonString(info)))
              .arg(QString());
    sql = restorePercent(sql);
    return true;
}

bool CKXTransferDB::AddBlockTask(CKXBlockTask& block)
{
    QString sql;
    if (!blockStatement(block, sql)) {
        return false;
    }
    DBLOG_DEBUG(sql);
    return updateInternal(sql);
}

bool CKXTransferDB::AddBlockTaskFormList(const QList<CKXBlockTask*>& blocks)
{
    QStringList sqls;
    sqls.reserve(blocks.size());
    bool allBuilt = true;
    for (CKXBlockTask* block : blocks) {
        QString sql;
        if (block != nullptr && blockStatement(*block, sql)) {
            sqls.append(sql);
        } else {
            allBuilt = false;
        }
    }
    if (sqls.isEmpty()) {
        return allBuilt;
    }
    // One line for the list: a statement a block would bury the rest of the log for a large file.
    DBLOG_DEBUG(QStringLiteral("store %1 blocks of %2")
                    .arg(QString::number(sqls.size()), blocks.first()->subTaskId()));
    return updateInternal(sqls) && allBuilt;
}

bool CKXTransferDB::DelBlockTask(const QString& blockId)
{
    if (!validId(blockId)) {
        return false;
    }
    return updateInternal(BLOCKTASKDB_DELETE.arg(kBlockTable, blockId));
}

bool CKXTransferDB::DelBlockTasks(const QString& subTaskId)
{
    if (!validId(subTaskId)) {
        return false;
    }
    return updateInternal(BLOCKTASKDB_TASK_DELETE.arg(kBlockTable, subTaskId));
}

bool CKXTransferDB::fillBlockFromRow(const Row& row, CKXBlockTask& block)
{
    const QString id = row.value(QStringLiteral("id")).toString();
    if (!block.FromJson(row.value(QStringLiteral("block_info")).toString())) {
        DBLOG_ERROR(QStringLiteral("block_info is not a block json. [id]%1").arg(id));
        return false;
    }
    SubTaskInfo info;
    if (!CKXTFStoreManager::inst()->taskInfoFormJson(row.value(QStringLiteral("sub_task_info")).toString(),
                                                     info)) {
        DBLOG_ERROR(QStringLiteral("sub_task_info of a block is not a task json. [id]%1").arg(id));
        return false;
    }
    block.setSubTaskInfo(info);
    return true;
}

bool CKXTransferDB::LoadBlockTask(const QString& blockId, CKXBlockTask& block)
{
    if (!validId(blockId)) {
        return false;
    }
    const QString sql = BLOCKTASKDB_QUERY.arg(kBlockTable, blockId);
    DBLOG_DEBUG(sql);
    QList<Row> rows;
    if (!queryInternal(sql, rows) || rows.isEmpty()) {
        return false;
    }
    // Filled on the side, so that a bad row leaves the caller's block as it was.
    CKXBlockTask loaded;
    if (!fillBlockFromRow(rows.first(), loaded)) {
        return false;
    }
    block.setBlockTaskInfo(loaded.getBlockTaskInfo());
    return true;
}

bool CKXTransferDB::LoadBlockTasks(const QString& subTaskId, QList<CKXBlockTask*>& blocks)
{
    if (!validId(subTaskId)) {
        return false;
    }
    const QString sql = BLOCKTASKDB_TASK_QUERY.arg(kBlockTable, subTaskId);
    DBLOG_DEBUG(sql);
    QList<Row> rows;
    if (!queryInternal(sql, rows)) {
        return false;
    }
    QList<CKXBlockTask*> loaded;
    loaded.reserve(rows.size());
    for (const Row& row : qAsConst(rows)) {
        auto* block = new CKXBlockTask();
        loaded.append(block);
        if (!fillBlockFromRow(row, *block)) {
            qDeleteAll(loaded);
            return false;
        }
    }
    blocks.append(loaded);
    return true;
}
