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

// The task row's statement with its values bound rather than spelled out: no quoting, and a
// statement that parses once per connection instead of once per write with a kilobyte of JSON.
const QString kTransferRowBound =
    TRANSFERTASKDB_UPDATE.left(TRANSFERTASKDB_UPDATE.indexOf(QLatin1String("VALUES"))).arg(kTransferTable) +
    QStringLiteral("VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?); ");

// A text as the spelled-out statement stores it: a null string is '' there, never NULL.
QVariant boundText(const QString& text)
{
    return text.isNull() ? QVariant(QString(QLatin1String(""))) : QVariant(text);
}

// Ids go into statements as they are; a quote would end the literal and change the statement.
// Logged under the refusing operation's name.
bool validId(const QString& id, const char* function, int line)
{
    if (!id.contains(QLatin1Char('\''))) {
        return true;
    }
    CKXLoggerWrapper::instDB()->error(QStringLiteral("id holds a single quote, refused. [id]%1").arg(id),
                                      kxLogSource(__FILE__), QString::fromLatin1(function), line);
    return false;
}
#define KX_VALID_ID(id) validId((id), __func__, __LINE__)

// Builds one statement from a template with chained arg() calls. Values that hold "%" are shielded
// with SUBSTITUTE, which is turned back into "%" once every marker is filled.
class StatementFiller
{
public:
    explicit StatementFiller(const QString& sqlTemplate) : m_sql(sqlTemplate) {}

    // An id: taken as it is (ids with a quote are refused before).
    StatementFiller& id(const QString& value) { return fill(value); }
    // A text value: quoted for SQL.
    StatementFiller& text(QString value)
    {
        CKXDbBase::translateSqliteSpecialChar4Update(value);
        return fill(value);
    }
    StatementFiller& number(qint64 value)
    {
        m_sql = m_sql.arg(value);
        return *this;
    }
    QString done()
    {
        if (m_shielded) {
            m_sql.replace(SUBSTITUTE, QStringLiteral("%"));
        }
        return m_sql;
    }

private:
    StatementFiller& fill(QString value)
    {
        if (value.contains(QLatin1Char('%'))) {
            value.replace(QLatin1Char('%'), SUBSTITUTE);
            m_shielded = true;
        }
        m_sql = m_sql.arg(value);
        return *this;
    }

    QString m_sql;
    bool m_shielded = false;
};

// The bound task row as the template spells it out, for the log of a write that failed: the
// values in the order they are bound, texts quoted and numbers as they are. Ids are texts here;
// a valid id has no quote, so quoting leaves it as the template's id() would.
QString spelledOutTransferRow(const QVariantList& values)
{
    StatementFiller filler(TRANSFERTASKDB_UPDATE);
    filler.id(kTransferTable);
    for (const QVariant& value : values) {
        if (value.type() == QVariant::String) {
            filler.text(value.toString());
        } else {
            filler.number(value.toLongLong());
        }
    }
    return filler.done();
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
    if (!KX_VALID_ID(info.subTaskId) || !KX_VALID_ID(info.taskId)) {
        return false;
    }
    const QVariantList values{boundText(info.subTaskId),
                              boundText(info.taskId),
                              qint64(info.state),
                              info.size,
                              info.sendBytes,
                              boundText(CKXJsonConvert::SubTaskInfo2JsonString(info)),
                              boundText(info.fingerMark),
                              boundText(QString()),
                              boundText(QString())};
    return updateInternal(kTransferRowBound, values, [&values] { return spelledOutTransferRow(values); });
}

bool CKXTransferDB::DelTransferTask(const QString& subTaskId)
{
    if (!KX_VALID_ID(subTaskId)) {
        return false;
    }
    return updateInternal(TRANSFERTASKDB_DELETE.arg(kTransferTable, subTaskId));
}

bool CKXTransferDB::LoadTransferTask(const QString& subTaskId, CKXTransferTask& task)
{
    if (!KX_VALID_ID(subTaskId)) {
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
    if (!KX_VALID_ID(info.taskId) || !KX_VALID_ID(info.subTaskId)) {
        return false;
    }
    sql = StatementFiller(BLOCKTASKDB_UPDATE)
              .id(kBlockTable)
              .id(info.taskId)
              .id(info.subTaskId)
              .number(info.state)
              .number(info.isUpload ? 1 : 0)
              .number(info.sent)
              .number(info.total)
              .number(info.length)
              .number(info.loc)
              .number(info.idx)
              .text(info.hash)
              .text(CKXJsonConvert::SubTaskInfo2JsonString(info.subTaskInfo))
              .number(info.quickTrans ? 1 : 0)
              .text(CKXBlockJsonConvert::BlockInfo2JsonString(info))
              .text(QString())
              .done();
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
    if (blocks.isEmpty()) {
        return true;
    }
    // One line for the list: a statement a block would bury the rest of the log for a large file.
    DBLOG_DEBUG(
        QStringLiteral("store %1 blocks of %2")
            .arg(QString::number(blocks.size()), blocks.first() ? blocks.first()->subTaskId() : QString()));
    // Each statement is made as it is run: the whole list of a 16 GiB file's blocks would hold
    // about as much memory as everything else the transfer needs.
    return updateInternal(blocks.size(), [this, &blocks](int i) {
        QString sql;
        CKXBlockTask* block = blocks.at(i);
        return block != nullptr && blockStatement(*block, sql) ? sql : QString();
    });
}

bool CKXTransferDB::DelBlockTask(const QString& blockId)
{
    if (!KX_VALID_ID(blockId)) {
        return false;
    }
    return updateInternal(BLOCKTASKDB_DELETE.arg(kBlockTable, blockId));
}

bool CKXTransferDB::DelBlockTasks(const QString& subTaskId)
{
    if (!KX_VALID_ID(subTaskId)) {
        return false;
    }
    return updateInternal(BLOCKTASKDB_TASK_DELETE.arg(kBlockTable, subTaskId));
}

bool CKXTransferDB::fillBlockFromRow(const Row& row, CKXBlockTask& block, OwnerCache& owners)
{
    const QString id = row.value(QStringLiteral("id")).toString();
    if (!block.FromJson(row.value(QStringLiteral("block_info")).toString())) {
        DBLOG_ERROR(QStringLiteral("block_info is not a block json. [id]%1").arg(id));
        return false;
    }
    // The rows of one task carry the same owning record as a rule: parse each text once and let
    // the blocks share the result.
    const QString text = row.value(QStringLiteral("sub_task_info")).toString();
    if (!owners.record || text != owners.text) {
        SubTaskInfo info;
        if (!CKXTFStoreManager::inst()->taskInfoFormJson(text, info)) {
            DBLOG_ERROR(QStringLiteral("sub_task_info of a block is not a task json. [id]%1").arg(id));
            return false;
        }
        owners.text = text;
        owners.record = std::make_shared<const SubTaskInfo>(std::move(info));
    }
    block.setSharedSubTaskInfo(owners.record);
    return true;
}

bool CKXTransferDB::LoadBlockTask(const QString& blockId, CKXBlockTask& block)
{
    if (!KX_VALID_ID(blockId)) {
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
    OwnerCache owners;
    if (!fillBlockFromRow(rows.first(), loaded, owners)) {
        return false;
    }
    block.setBlockTaskInfo(loaded.getBlockTaskInfo());
    return true;
}

bool CKXTransferDB::LoadBlockTasks(const QString& subTaskId, QList<CKXBlockTask*>& blocks)
{
    if (!KX_VALID_ID(subTaskId)) {
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
    OwnerCache owners;
    for (const Row& row : qAsConst(rows)) {
        auto* block = new CKXBlockTask();
        loaded.append(block);
        if (!fillBlockFromRow(row, *block, owners)) {
            qDeleteAll(loaded);
            return false;
        }
    }
    blocks.append(loaded);
    return true;
}
