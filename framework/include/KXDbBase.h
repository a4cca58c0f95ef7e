#pragma once

#include <QList>
#include <QMap>
#include <QMutex>
#include <QString>
#include <QStringList>
#include <QThread>
#include <QVariant>

#include <atomic>
#include <functional>

class QSqlDatabase;
class QSqlError;

// The SQLite access layer under one database file: per-thread connections, table creation from
// the subclass's declarations, single statements, statement lists in one transaction, queries into
// rows, and a write thread that drains a queue of statements in batches. Every failure is logged
// to "DB.log" and returned as false; nothing throws.
//
// Ownership and threads: the creator owns the object and deletes it; any thread may call any
// operation. m_mutex serialises every database operation of the object.
// Each thread talks to the file through its own connection, named by its thread id and the path;
// a connection is released (not dropped) after each operation and reused by the next one of the
// same thread, and it is really closed by close(), by the destructor (for the destroying thread)
// and when its thread ends. The connections share one SQLite page and schema cache while the file
// is the one they first opened. The write thread is owned by this object and stopped by its
// destructor.
class CKXDbBase
{
public:
    using Row = QMap<QString, QVariant>;

    // Creates the folder of the file when it is missing; an empty path is logged and leaves the
    // object unusable (every operation then fails).
    explicit CKXDbBase(const QString& dbPath);
    virtual ~CKXDbBase();
    CKXDbBase(const CKXDbBase&) = delete;
    CKXDbBase& operator=(const CKXDbBase&) = delete;

    // What the subclass keeps in the file. A single-table subclass answers getTableName() and
    // getCreateTableString(); a multi-table one getTableNames() and getCreateTableString(name).
    virtual bool isMultiTable() const { return false; }
    virtual QString getTableName() const { return QString(); }
    virtual QString getCreateTableString() const { return QString(); }
    virtual QStringList getTableNames() const { return QStringList(); }
    virtual QString getCreateTableString(const QString& table) const;

    // Creates the declared tables that the file lacks; existing tables are never altered.
    // False when the file cannot be opened as a database or a table cannot be created.
    bool init();

    // Binds `db` to this thread's connection, opening it when needed.
    bool open(QSqlDatabase& db);
    // Closes this thread's connection and drops it from the connection registry.
    void close();
    // "<thread id in decimal><path>".
    QString getCurrentConnectionName() const;
    // Trades durability for speed on an open connection: "PRAGMA synchronous = OFF; ".
    void setAsync(const QSqlDatabase& db);

    bool updateInternal(const QString& sql);
    // One statement of a fixed text with `values` bound to its "?" markers in order. The prepared
    // statement stays with this thread's connection, so a thread that writes the same row again
    // does not parse it again. A failure is logged as the single statement's is, with `asText()` (the
    // statement with the values spelled out) in place of the text that did not run.
    bool updateInternal(const QString& statement, const QVariantList& values,
                        const std::function<QString()>& asText);
    // All statements in one transaction. A statement that fails is logged and skipped and the
    // others are committed, as if each had been run by itself; the result is then false.
    bool updateInternal(const QStringList& sqls);
    // The same for `count` statements made one at a time by `statementAt`, so that a long list
    // (the blocks of a large file) never lies in memory whole; an empty statement is skipped and
    // makes the result false. Runs `statementAt` with the database lock held: it may read leaf
    // objects (a block behind its own mutex), never call back into this database.
    bool updateInternal(int count, const std::function<QString(int)>& statementAt);
    // Appends one map per row (column name -> value) in the order the query delivers them. An
    // empty statement selects the whole single table.
    bool queryInternal(const QString& sql, QList<Row>& rows);

    // Quotes a value that goes between single quotes: every "'" becomes "''".
    static void translateSqliteSpecialChar4Update(QString& text);
    static void logSqlError(const QSqlError& error);

    // Queues a statement for the write thread and starts the thread when it is idle. Statements
    // queued while a batch is being written form the next batch, one transaction each.
    void asyncUpdate(const QString& sql);
    // While set, operations trust the thread's open connection as it is instead of checking
    // that it still refers to the file at the path.
    void setKeepOpen(bool keepOpen);

    QString dbPath() const { return m_dbPath; }

private:
    class AsyncWriteDB : public QThread
    {
    public:
        explicit AsyncWriteDB(CKXDbBase* owner) : m_owner(owner) {}
        ~AsyncWriteDB() override;

        void enqueue(const QString& sql);
        // Asks the thread to end after its current batch and waits for it.
        void stop();
        // Hands out and forgets whatever is still queued.
        QStringList takeQueue();

    protected:
        void run() override;

    private:
        CKXDbBase* m_owner;
        QMutex m_queueMutex; // guards m_queue and m_active
        QStringList m_queue;
        bool m_active = false; // a run() is draining, or about to drain, the queue
    };

    QSqlError acquire(QSqlDatabase& db);
    // Whether a connection opened now may join the shared cache; see m_sharedCache.
    bool mayShareCache();
    bool createMissingTables(QSqlDatabase& db);
    static QSqlError execOne(QSqlDatabase& db, const QString& sql);

    const QString m_dbPath;
    QMutex m_mutex; // serialises every database operation of this object
    std::atomic<bool> m_keepOpen{false};
    // A thread's first operation opens a connection, and every transfer runs on a thread of its
    // own: with a private cache each would open the file, map the log index and parse the schema
    // again. Connections in shared-cache mode take that from the cache the others keep open; the
    // object's mutex already keeps them from overlapping, so the cache's table locks never
    // conflict. SQLite finds the cache by path, so once the file at the path is no longer the one
    // the cache was opened on (replaced, removed), new connections would write into the old file:
    // from then on they keep private caches. Guarded by m_mutex.
    enum class SharedCache
    {
        NotYet,
        InUse,
        Retired
    };
    SharedCache m_sharedCache = SharedCache::NotYet;
    quint64 m_sharedDevice = 0;
    quint64 m_sharedInode = 0;
    AsyncWriteDB m_asyncWriter{this};
};
