#include "KXDbBase.h"

#include "KXLoggerWrapper.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QHash>
#include <QSqlDatabase>
#include <QSqlDriver>
#include <QSqlError>
#include <QSqlQuery>
#include <QSqlRecord>
#include <QThreadStorage>

#include <sqlite3.h>
#include <sys/stat.h>

namespace {

// Which file a connection was opened on, so that a file replaced or removed behind our back is
// noticed and the connection reopened instead of writing into an unlinked inode.
struct FileIdentity
{
    bool valid = false;
    dev_t device = 0;
    ino_t inode = 0;

    bool operator==(const FileIdentity& other) const
    {
        return valid && other.valid && device == other.device && inode == other.inode;
    }
};

FileIdentity identityOf(const QString& path)
{
    struct stat st;
    if (::stat(QFile::encodeName(path).constData(), &st) != 0) {
        return FileIdentity();
    }
    return FileIdentity{true, st.st_dev, st.st_ino};
}

// Closes a connection and drops it from Qt's registry. Must run on the thread that opened it, with
// no QSqlDatabase copy of it left alive.
void dropConnection(const QString& name)
{
    if (!QSqlDatabase::contains(name)) {
        return;
    }
    {
        QSqlDatabase db = QSqlDatabase::database(name, false);
        db.close();
    }
    QSqlDatabase::removeDatabase(name);
}

// The connections one thread has opened, by name. Opening an SQLite file costs a file open, a
// schema read and the pragmas below, so a connection is kept across operations and dropped when
// its thread ends; QThreadStorage deletes this record on the ending thread itself. Statements
// that a thread runs again and again are kept prepared with their connection, and go before it.
struct ThreadConnections
{
    QHash<QString, FileIdentity> files;
    QHash<QString, QHash<QString, QSqlQuery>> statements; // connection name -> text -> prepared

    void forget(const QString& name)
    {
        statements.remove(name);
        files.remove(name);
        dropConnection(name);
    }

    ~ThreadConnections()
    {
        statements.clear();
        for (auto it = files.constBegin(); it != files.constEnd(); ++it) {
            dropConnection(it.key());
        }
    }
};

ThreadConnections& threadConnections()
{
    // Never destroyed: it must outlive every thread that still holds connections at exit.
    static auto* storage = new QThreadStorage<ThreadConnections*>();
    if (!storage->hasLocalData()) {
        storage->setLocalData(new ThreadConnections());
    }
    return *storage->localData();
}

// WAL lets one connection write while the others read and needs only one sync per commit instead
// of the rollback journal's several; with WAL, synchronous=NORMAL still survives a crash of the
// process and never corrupts the file, and a power cut can only lose the newest commits. The busy
// timeout makes a connection wait for another one's write lock instead of failing at once. The
// size limit gives back the disk space of the log after a large batch (a big file's block rows
// are tens of megabytes) instead of keeping it beside the database for good. The page cache of a
// connection grows to 2 MiB by default as a large file's block rows are written, on each thread
// that writes them; rows are read and written by key, so 256 KiB serves as well and keeps the
// engine's memory from growing with the size of the file.
//
// Closing the last connection of a process would copy the log into the file, sync it and delete
// the log while holding the file exclusively, and a thread opening its connection at that moment
// sleeps in the busy handler (1, 2, 5 ms...). Every transfer thread closes its connection when it
// ends, so that pause fell on the end of nearly every transfer. The log is instead left for the
// next automatic checkpoint, which is as safe (it is the database's own journal). Not even the
// engine's shutdown folds it in: that meant two or three syncs of up to the whole log while the
// process could do nothing else, where a checkpoint during the next run's transfers overlaps their
// work, and the next start reads back the log (at most journal_size_limit) in a millisecond or two.
QSqlError configureConnection(QSqlDatabase& db)
{
    const QVariant handle = db.driver()->handle();
    sqlite3* connection = nullptr;
    if (handle.isValid() && qstrcmp(handle.typeName(), "sqlite3*") == 0) {
        connection = *static_cast<sqlite3* const*>(handle.constData());
    }
    if (!connection) {
        return QSqlError(QStringLiteral("Unable to execute statement"), QStringLiteral("no SQLite handle"),
                         QSqlError::ConnectionError);
    }
    sqlite3_db_config(connection, SQLITE_DBCONFIG_NO_CKPT_ON_CLOSE, 1, nullptr);
    // One call for all four: each through Qt would be a statement object of its own.
    const int rc = sqlite3_exec(connection,
                                "PRAGMA journal_mode=WAL; PRAGMA synchronous=NORMAL; "
                                "PRAGMA journal_size_limit=4194304; PRAGMA cache_size=-256",
                                nullptr, nullptr, nullptr);
    if (rc != SQLITE_OK) {
        return QSqlError(QStringLiteral("Unable to execute statement"),
                         QString::fromUtf8(sqlite3_errmsg(connection)), QSqlError::StatementError,
                         QString::number(rc));
    }
    return QSqlError();
}

} // namespace

CKXDbBase::CKXDbBase(const QString& dbPath) : m_dbPath(dbPath)
{
    if (m_dbPath.isEmpty()) {
        DBLOG_ERROR(QStringLiteral("[DBBase]: given db path is empty"));
        return;
    }
    const QDir dir = QFileInfo(m_dbPath).absoluteDir();
    if (!dir.exists() && !QDir().mkpath(dir.absolutePath())) {
        DBLOG_ERROR(QStringLiteral("[DBBase]: cannot create the folder of the db. [path]%1").arg(m_dbPath));
    }
}

CKXDbBase::~CKXDbBase()
{
    m_asyncWriter.stop();
    const QStringList left = m_asyncWriter.takeQueue();
    if (!left.isEmpty()) {
        updateInternal(left);
    }
    DBLOG_INFO(QStringLiteral("CKXDbBase 释放了"));
    close();
}

QString CKXDbBase::getCreateTableString(const QString& table) const
{
    Q_UNUSED(table);
    return QString();
}

bool CKXDbBase::init()
{
    QMutexLocker lock(&m_mutex);
    QSqlDatabase db;
    if (!open(db)) {
        return false;
    }
    return createMissingTables(db);
}

bool CKXDbBase::createMissingTables(QSqlDatabase& db)
{
    const QStringList existing = db.tables();
    const bool multi = isMultiTable();
    const QStringList wanted = multi ? getTableNames() : QStringList{getTableName()};
    bool ok = true;
    for (const QString& table : wanted) {
        if (existing.contains(table)) {
            continue;
        }
        const QString sql = multi ? getCreateTableString(table) : getCreateTableString();
        QSqlQuery query(db);
        if (!query.exec(sql)) {
            // The multi-table message carries a comma after the path; log readers match on both.
            const QString text = multi ? QStringLiteral("db create table error. [path]%1, [sql]%2")
                                       : QStringLiteral("db create table error. [path]%1 [sql]%2");
            DBLOG_ERROR(text.arg(m_dbPath, sql));
            logSqlError(query.lastError());
            ok = false;
        }
    }
    return ok;
}

bool CKXDbBase::open(QSqlDatabase& db)
{
    QSqlError error;
    // Qt would open an anonymous temporary database for an empty name and lose every write.
    if (!m_dbPath.isEmpty()) {
        error = acquire(db);
        if (!error.isValid()) {
            return true;
        }
    }
    DBLOG_ERROR(QStringLiteral("db open error: %1").arg(m_dbPath));
    if (error.isValid()) {
        logSqlError(error);
    }
    return false;
}

QSqlError CKXDbBase::acquire(QSqlDatabase& db)
{
    const QString name = getCurrentConnectionName();
    ThreadConnections& mine = threadConnections();
    auto known = mine.files.constFind(name);
    if (known != mine.files.constEnd() && !m_keepOpen && !(known.value() == identityOf(m_dbPath))) {
        mine.forget(name);
    }
    if (!mine.files.contains(name)) {
        // A name registered by someone else can only be left over from an ended thread whose id
        // has been reused; that connection is unusable here.
        if (QSqlDatabase::contains(name)) {
            QSqlDatabase::removeDatabase(name);
        }
        QSqlDatabase fresh = QSqlDatabase::addDatabase(QStringLiteral("QSQLITE"), name);
        fresh.setDatabaseName(m_dbPath);
        fresh.setConnectOptions(mayShareCache()
                                    ? QStringLiteral("QSQLITE_BUSY_TIMEOUT=5000;QSQLITE_ENABLE_SHARED_CACHE")
                                    : QStringLiteral("QSQLITE_BUSY_TIMEOUT=5000"));
        mine.files.insert(name, FileIdentity());
    }
    db = QSqlDatabase::database(name, false);
    if (db.isOpen()) {
        return QSqlError();
    }
    const QSqlError error = db.open() ? configureConnection(db) : db.lastError();
    if (error.isValid()) {
        db = QSqlDatabase();
        mine.forget(name);
        return error;
    }
    const FileIdentity opened = identityOf(m_dbPath);
    mine.files.insert(name, opened);
    if (m_sharedCache == SharedCache::NotYet && opened.valid) {
        m_sharedCache = SharedCache::InUse;
        m_sharedDevice = opened.device;
        m_sharedInode = opened.inode;
    }
    return QSqlError();
}

bool CKXDbBase::mayShareCache()
{
    if (m_sharedCache == SharedCache::InUse &&
        !(identityOf(m_dbPath) == FileIdentity{true, m_sharedDevice, m_sharedInode})) {
        m_sharedCache = SharedCache::Retired;
    }
    return m_sharedCache != SharedCache::Retired;
}

void CKXDbBase::close()
{
    threadConnections().forget(getCurrentConnectionName());
}

QString CKXDbBase::getCurrentConnectionName() const
{
    const auto threadId = reinterpret_cast<quintptr>(QThread::currentThreadId());
    return QStringLiteral("%1%2").arg(QString::number(threadId), m_dbPath);
}

void CKXDbBase::setAsync(const QSqlDatabase& db)
{
    if (!db.isOpen()) {
        return;
    }
    QSqlQuery query(db);
    if (!query.exec(QStringLiteral("PRAGMA synchronous = OFF; "))) {
        DBLOG_ERROR(QStringLiteral("db set async error. [path]%1").arg(m_dbPath));
        logSqlError(query.lastError());
    }
}

QSqlError CKXDbBase::execOne(QSqlDatabase& db, const QString& sql)
{
    QSqlQuery query(db);
    return query.exec(sql) ? QSqlError() : query.lastError();
}

bool CKXDbBase::updateInternal(const QString& sql)
{
    if (sql.isEmpty()) {
        DBLOG_ERROR(QStringLiteral("update db error. the sql command is empty. [path]%1").arg(m_dbPath));
        return false;
    }
    QMutexLocker lock(&m_mutex);
    QSqlDatabase db;
    if (!open(db)) {
        return false;
    }
    const QSqlError error = execOne(db, sql);
    if (error.isValid()) {
        DBLOG_ERROR(QStringLiteral("update db error. [path]%1, [sql]%2").arg(m_dbPath, sql));
        logSqlError(error);
        return false;
    }
    return true;
}

bool CKXDbBase::updateInternal(const QString& statement, const QVariantList& values,
                               const std::function<QString()>& asText)
{
    QMutexLocker lock(&m_mutex);
    QSqlDatabase db;
    if (!open(db)) {
        return false;
    }
    QHash<QString, QSqlQuery>& prepared = threadConnections().statements[getCurrentConnectionName()];
    auto query = prepared.find(statement);
    bool ok = query != prepared.end();
    if (!ok) {
        query = prepared.insert(statement, QSqlQuery(db));
        ok = query->prepare(statement);
    }
    for (int i = 0; ok && i < values.size(); ++i) {
        query->bindValue(i, values.at(i));
    }
    if (ok && query->exec()) {
        return true;
    }
    const QSqlError error = query->lastError();
    prepared.erase(query); // prepared afresh next time
    DBLOG_ERROR(QStringLiteral("update db error. [path]%1, [sql]%2").arg(m_dbPath, asText()));
    logSqlError(error);
    return false;
}

bool CKXDbBase::updateInternal(const QStringList& sqls)
{
    if (sqls.isEmpty()) {
        DBLOG_ERROR(QStringLiteral("update db error. the sqls command is empty. [path]%1").arg(m_dbPath));
        return false;
    }
    return updateInternal(sqls.size(), [&sqls](int i) { return sqls.at(i); });
}

bool CKXDbBase::updateInternal(int count, const std::function<QString(int)>& statementAt)
{
    QMutexLocker lock(&m_mutex);
    QSqlDatabase db;
    if (!open(db)) {
        return false;
    }
    if (!db.transaction()) {
        DBLOG_ERROR(QStringLiteral("open db transaction error. [path]%1").arg(m_dbPath));
        logSqlError(db.lastError());
        return false;
    }
    bool allDone = true;
    for (int i = 0; i < count; ++i) {
        const QString sql = statementAt(i);
        if (sql.isEmpty()) {
            allDone = false;
            continue;
        }
        const QSqlError error = execOne(db, sql);
        if (error.isValid()) {
            DBLOG_ERROR(QStringLiteral("update db error. [path]%1, [sql]%2").arg(m_dbPath, sql));
            logSqlError(error);
            allDone = false;
        }
    }
    if (!db.commit()) {
        DBLOG_ERROR(QStringLiteral("db commit transaction error. [path]%1").arg(m_dbPath));
        logSqlError(db.lastError());
        db.rollback();
        return false;
    }
    return allDone;
}

bool CKXDbBase::queryInternal(const QString& sql, QList<Row>& rows)
{
    QMutexLocker lock(&m_mutex);
    QSqlDatabase db;
    if (!open(db)) {
        return false;
    }
    QString statement = sql;
    if (statement.isEmpty()) {
        DBLOG_ERROR(
            QStringLiteral("query oper(mean select all). the sql command is empty. [path]%1").arg(m_dbPath));
        statement = QStringLiteral("SELECT * FROM %1 ;").arg(getTableName());
    }
    QSqlQuery query(db);
    query.setForwardOnly(true);
    bool ok = query.exec(statement);
    while (ok && query.next()) {
        const QSqlRecord record = query.record();
        Row row;
        for (int i = 0; i < record.count(); ++i) {
            row.insert(record.fieldName(i), record.value(i));
        }
        rows.append(row);
    }
    // A page that cannot be read ends next() early; that is an error, not the end of the rows.
    if (!ok || query.lastError().isValid()) {
        DBLOG_ERROR(QStringLiteral("query db error. [path]%1, [sql]%2").arg(m_dbPath, statement));
        logSqlError(query.lastError());
        return false;
    }
    return true;
}

void CKXDbBase::translateSqliteSpecialChar4Update(QString& text)
{
    text.replace(QLatin1Char('\''), QLatin1String("''"));
}

void CKXDbBase::logSqlError(const QSqlError& error)
{
    DBLOG_ERROR(
        QStringLiteral("db oper error: [code]%1, [msg]%2").arg(error.nativeErrorCode(), error.text()));
}

void CKXDbBase::asyncUpdate(const QString& sql)
{
    m_asyncWriter.enqueue(sql);
}

void CKXDbBase::setKeepOpen(bool keepOpen)
{
    m_keepOpen = keepOpen;
}

CKXDbBase::AsyncWriteDB::~AsyncWriteDB()
{
    stop();
}

void CKXDbBase::AsyncWriteDB::enqueue(const QString& sql)
{
    bool mustStart = false;
    {
        QMutexLocker lock(&m_queueMutex);
        m_queue.append(sql);
        mustStart = !m_active;
        m_active = true;
    }
    if (mustStart) {
        // A run() that found the queue empty may still be returning; start() would then be ignored.
        wait();
        start();
    }
}

void CKXDbBase::AsyncWriteDB::stop()
{
    if (!isRunning()) {
        return;
    }
    requestInterruption();
    if (!wait(100)) {
        // Terminating inside SQLite would leave the owner's mutex locked and the batch half done;
        // the loop checks for interruption after every batch, so this wait is bounded by one batch.
        DBLOG_ERROR(QStringLiteral("db write thread is still writing a batch, waiting for it"));
        wait();
    }
}

QStringList CKXDbBase::AsyncWriteDB::takeQueue()
{
    QMutexLocker lock(&m_queueMutex);
    QStringList taken;
    taken.swap(m_queue);
    return taken;
}

void CKXDbBase::AsyncWriteDB::run()
{
    while (!isInterruptionRequested()) {
        QStringList batch;
        {
            QMutexLocker lock(&m_queueMutex);
            batch.swap(m_queue);
            if (batch.isEmpty()) {
                m_active = false;
                return;
            }
        }
        m_owner->updateInternal(batch);
        // Lets statements gather into the next batch instead of one transaction each.
        msleep(10);
    }
    QMutexLocker lock(&m_queueMutex);
    m_active = false;
}
