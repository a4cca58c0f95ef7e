#include "KXTaskDatabase.h"

#include "KXBlockBuilder.h"
#include "KXBlockTask.h"
#include "KXJsonConvert.h"
#include "KXLoggerWrapper.h"
#include "KXTFStoreManager.h"
#include "KXTransferDB.h"

#include <QFileInfo>
#include <QHash>
#include <QSqlDatabase>
#include <QSqlError>
#include <QSqlQuery>
#include <QVariant>

#include <atomic>

namespace {

QString nextConnectionName()
{
    static std::atomic<int> counter{0};
    return QStringLiteral("kxtransfer-read-%1").arg(++counter);
}

// The fields of the task's JSON text that a view shows, read as the engine reads its rows.
void readTaskJson(const QString& json, KXStoredTask& task)
{
    SubTaskInfo info;
    if (!CKXJsonConvert::JsonString2SubTaskInfo(json, info)) {
        return;
    }
    task.isUpload = info.isUpload;
    // The converter reads a missing code as -1; a view shows that as no error.
    task.errorCode = info.errorCode == -1 ? 0 : static_cast<int>(info.errorCode);
    task.errorInfo = info.errorInfo;
    task.address = info.dataServerHost;
    task.remotePath = info.remoteFile.path;
    if (info.remoteFile.isDeliveryTrans) {
        task.remotePath.prepend(info.remoteFile.delivery.code);
    }
    task.localPath = info.localFile.path;
}

} // namespace

CKXTaskDatabase::CKXTaskDatabase(const QString& file) : m_file(file), m_connection(nextConnectionName()) {}

CKXTaskDatabase::~CKXTaskDatabase()
{
    if (m_open) {
        QSqlDatabase::database(m_connection, false).close();
    }
    QSqlDatabase::removeDatabase(m_connection);
}

QString CKXTaskDatabase::databaseFile()
{
    return CKXTFStoreManager::databaseFileIn(CKXTFStoreManager::userDbDir());
}

QString CKXTaskDatabase::logFolder()
{
    return CKXLoggerWrapper::logFolder();
}

QString CKXTaskDatabase::stateName(qint32 state)
{
    return CKXJsonConvert::taskStateToString(static_cast<TaskState>(state)).remove(QStringLiteral("State"));
}

qint64 CKXTaskDatabase::blockSize()
{
    return CKXBlockBuilder::kBlockSize;
}

bool CKXTaskDatabase::open(QString& error)
{
    if (m_open) {
        return true;
    }
    if (!QFileInfo(m_file).isFile()) {
        return false;
    }
    QSqlDatabase db = QSqlDatabase::addDatabase(QStringLiteral("QSQLITE"), m_connection);
    db.setDatabaseName(m_file);
    db.setConnectOptions(QStringLiteral("QSQLITE_OPEN_READONLY;QSQLITE_BUSY_TIMEOUT=2000"));
    if (!db.open()) {
        error = db.lastError().text();
        return false;
    }
    m_open = true;
    return true;
}

bool CKXTaskDatabase::hasTaskTable(QString& error)
{
    QSqlQuery query(QSqlDatabase::database(m_connection, false));
    query.prepare(QStringLiteral("SELECT name FROM sqlite_master WHERE type = 'table' AND name = ?"));
    query.addBindValue(CKXTransferDB::getTransferTableName());
    if (!query.exec()) {
        error = query.lastError().text(); // not a database at all
        return false;
    }
    return query.next();
}

bool CKXTaskDatabase::query(const QString& id, QList<KXStoredTask>& out, QString& error)
{
    // A database the engine has not filled yet has no table: that is no tasks, not a fault. One
    // task's lookup skips the check: without the table its query fails, which is "not found".
    if (id.isEmpty() && !hasTaskTable(error)) {
        return error.isEmpty();
    }
    QSqlQuery query(QSqlDatabase::database(m_connection, false));
    const QString where = id.isEmpty() ? QString() : QStringLiteral("WHERE id = ?");
    query.prepare(QStringLiteral("SELECT id, state, size, send_size, sub_task_info FROM %1 %2 ORDER BY id")
                      .arg(CKXTransferDB::getTransferTableName(), where));
    if (!id.isEmpty()) {
        query.addBindValue(id);
    }
    if (!query.exec()) {
        error = query.lastError().text();
        return false;
    }
    while (query.next()) {
        KXStoredTask task;
        task.id = query.value(0).toString();
        task.state = query.value(1).toInt();
        task.size = query.value(2).toLongLong();
        task.doneBytes = query.value(3).toLongLong();
        readTaskJson(query.value(4).toString(), task);
        out.append(task);
    }
    addBlockProgress(id, out);
    return true;
}

void CKXTaskDatabase::addBlockProgress(const QString& id, QList<KXStoredTask>& tasks)
{
    if (tasks.isEmpty()) {
        return;
    }
    // A paused chunked task's own byte count may lag behind its blocks; the finished blocks tell.
    // One task's lookup reads its own blocks only: a tool looks up every file it moves.
    QSqlQuery query(QSqlDatabase::database(m_connection, false));
    query.prepare(QStringLiteral("SELECT sub_task_id, SUM(length), COUNT(*) FROM %1 "
                                 "WHERE (state & %2) != 0 %3 GROUP BY sub_task_id")
                      .arg(CKXTransferDB::getBlockTableName())
                      .arg(BlockTaskStateCompleted)
                      .arg(id.isEmpty() ? QString() : QStringLiteral("AND sub_task_id = ?")));
    if (!id.isEmpty()) {
        query.addBindValue(id);
    }
    if (!query.exec()) {
        return;
    }
    QHash<QString, QPair<qint64, int>> done;
    while (query.next()) {
        done.insert(query.value(0).toString(), {query.value(1).toLongLong(), query.value(2).toInt()});
    }
    for (KXStoredTask& task : tasks) {
        const auto it = done.constFind(task.id);
        if (it != done.constEnd()) {
            task.doneBytes = it->first;
            task.blocksDone = it->second;
        }
    }
}

bool CKXTaskDatabase::tasks(QList<KXStoredTask>& out, QString& error)
{
    out.clear();
    if (!open(error)) {
        return error.isEmpty();
    }
    return query(QString(), out, error);
}

bool CKXTaskDatabase::find(const QString& id, KXStoredTask& out)
{
    QString error;
    if (!open(error)) {
        return false;
    }
    QList<KXStoredTask> found;
    if (id.isEmpty() || !query(id, found, error) || found.isEmpty()) {
        return false;
    }
    out = found.first();
    return true;
}
