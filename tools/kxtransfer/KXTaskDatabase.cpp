#include "KXTaskDatabase.h"

#include <QFileInfo>
#include <QHash>
#include <QJsonDocument>
#include <QJsonObject>
#include <QSqlDatabase>
#include <QSqlError>
#include <QSqlQuery>
#include <QVariant>

#include <atomic>

namespace {

const qint32 kBlockCompleted = 16;

QString nextConnectionName()
{
    static std::atomic<int> counter{0};
    return QStringLiteral("kxtransfer-read-%1").arg(++counter);
}

// The fields of the task's JSON text that the tool shows.
void readTaskJson(const QString& json, KXStoredTask& task)
{
    const QJsonObject root = QJsonDocument::fromJson(json.toUtf8()).object();
    task.isUpload = root.value(QStringLiteral("is_upload")).toBool();
    task.errorCode = root.value(QStringLiteral("error_code")).toInt();
    task.errorInfo = root.value(QStringLiteral("error_info")).toString();
    task.address = root.value(QStringLiteral("data_server")).toString();
    const QJsonObject remote = root.value(QStringLiteral("vault_file")).toObject();
    task.remotePath = remote.value(QStringLiteral("path")).toString();
    // A share link's task is shown by its link, as the command named it.
    if (remote.value(QStringLiteral("isDeliveryTrans")).toBool()) {
        task.remotePath.prepend(remote.value(QStringLiteral("delivery_code")).toString());
    }
    task.localPath =
        root.value(QStringLiteral("local_file")).toObject().value(QStringLiteral("path")).toString();
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

QString CKXTaskDatabase::stateName(qint32 state)
{
    static const char* const names[] = {"WaitPreparing", "Preparing", "Working",   "Paused",
                                        "Waiting",       "Error",     "Completed", "Stop"};
    QStringList parts;
    for (int bit = 0; bit < 8; ++bit) {
        if (state & (1 << bit)) {
            parts << QLatin1String(names[bit]);
        }
    }
    return parts.isEmpty() ? QStringLiteral("None") : parts.join(QLatin1Char('|'));
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
    if (!query.exec(
            QStringLiteral("SELECT name FROM sqlite_master WHERE type = 'table' AND name = 'transfer_v1'"))) {
        error = query.lastError().text(); // not a database at all
        return false;
    }
    return query.next();
}

bool CKXTaskDatabase::query(const QString& id, QList<KXStoredTask>& out, QString& error)
{
    // A database the engine has not filled yet has no table: that is no tasks, not a fault.
    if (!hasTaskTable(error)) {
        return error.isEmpty();
    }
    QSqlQuery query(QSqlDatabase::database(m_connection, false));
    const QString where = id.isEmpty() ? QString() : QStringLiteral("WHERE id = ?");
    query.prepare(
        QStringLiteral("SELECT id, state, size, send_size, sub_task_info FROM transfer_v1 %1 ORDER BY id")
            .arg(where));
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
    addBlockProgress(out);
    return true;
}

void CKXTaskDatabase::addBlockProgress(QList<KXStoredTask>& tasks)
{
    // A paused chunked task's own byte count may lag behind its blocks; the finished blocks tell.
    QSqlQuery query(QSqlDatabase::database(m_connection, false));
    if (!query.exec(QStringLiteral("SELECT sub_task_id, SUM(length), COUNT(*) FROM block_v1 "
                                   "WHERE (state & %1) != 0 GROUP BY sub_task_id")
                        .arg(kBlockCompleted))) {
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
