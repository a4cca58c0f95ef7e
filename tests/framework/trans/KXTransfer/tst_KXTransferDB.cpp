// The transfer database on real files: round trips through both tables, per-thread connections, the
// write thread, and files or rows that are not what they should be; and the task store over it: the
// read-once rule of completed tasks and its rows, the database path, and the transfer log it opens
// and closes.

#include "KXBlockJsonConvert.h"
#include "KXBlockTask.h"
#include "KXLoggerWrapper.h"
#include "KXTFStoreManager.h"
#include "KXTaskRecordSample.h"
#include "KXTestData.h"
#include "KXTestSql.h"
#include "KXTransferDB.h"
#include "KXTransferTask.h"

#include <QFile>
#include <QSemaphore>
#include <QSqlDatabase>
#include <QTemporaryDir>
#include <QThread>
#include <QtTest>

#include <memory>
#include <vector>

namespace {

CKXBlockTask* makeBlock(const QString& subTaskId, int idx, const SubTaskInfo& owner)
{
    auto* block = new CKXBlockTask();
    block->setTaskId(QStringLiteral("%1-blk-%2").arg(subTaskId).arg(idx));
    block->setSubTaskId(subTaskId);
    block->setIdx(idx);
    block->setLoc(qint64(idx) * 4194304);
    block->setLength(4194304);
    block->setTotal(4194304);
    block->setSent(idx * 10);
    block->setIsUpload(true);
    block->setQuickTrans(idx % 2 == 1);
    block->setHash(QStringLiteral("h%1").arg(idx));
    block->setState(idx % 3 == 0 ? BlockTaskStateCompleted : BlockTaskStateNone);
    block->setSubTaskInfo(owner);
    return block;
}

QString blockText(const CKXBlockTask& block)
{
    return CKXBlockJsonConvert::BlockInfo2JsonString(block.getBlockTaskInfo());
}

struct BlockList
{
    QList<CKXBlockTask*> blocks;
    ~BlockList() { qDeleteAll(blocks); }
};

SubTaskInfo taskNamed(const QString& id, TaskState state = TaskState(StateWorking | StatePaused))
{
    SubTaskInfo info = sampleSubTaskInfo();
    info.subTaskId = id;
    info.state = state;
    return info;
}

// Puts the task's row and two block rows into the store's database.
void storeRows(const SubTaskInfo& info)
{
    CKXTransferDB* db = CKXTFStoreManager::inst()->db();
    CKXTransferTask task(info);
    QVERIFY(db->AddTransferTask(task));
    BlockList blocks;
    blocks.blocks << makeBlock(info.subTaskId, 0, info) << makeBlock(info.subTaskId, 1, info);
    QVERIFY(db->AddBlockTaskFormList(blocks.blocks));
}

} // namespace

class TestKXTransferDB : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void cleanup();

    void taskRowRoundTrips();
    void blocksComeBackInIndexOrderAndGoOneOrAll();
    void concurrentWritersUseOwnConnections();
    void statementsAreStoredAlone();

    void unusableFileFailsWithoutTouchingIt_data();
    void unusableFileFailsWithoutTouchingIt();
    void badRowsAndQuotedIdsFailAlone();

    void completedTaskIsReadOnceAndLosesItsRows();
    void unconfiguredStoreWritesNowhere();
    void logIsClosedWithTheStoreAndReopened();

private:
    // Also the store's database file.
    QString dbPath() const { return m_dir->filePath(QStringLiteral("transfer.db")); }
    int rows(const QString& table, const QString& where = QString()) const
    {
        const QVariant v = sqlValue(dbPath(), QStringLiteral("SELECT COUNT(*) FROM %1 %2").arg(table, where));
        return v.isValid() ? v.toInt() : -1;
    }
    // The task's row and its block rows.
    int rowsOf(const QString& id) const
    {
        return rows(QStringLiteral("transfer_v1"), QStringLiteral("WHERE id='%1'").arg(id)) +
               rows(QStringLiteral("block_v1"), QStringLiteral("WHERE sub_task_id='%1'").arg(id));
    }

    QTemporaryDir m_home;
    std::unique_ptr<QTemporaryDir> m_dir;
};

void TestKXTransferDB::initTestCase()
{
    QVERIFY(m_home.isValid());
    qputenv("XDG_DATA_HOME", m_home.path().toUtf8());
    qputenv("HOME", m_home.path().toUtf8());
}

void TestKXTransferDB::init()
{
    m_dir = std::make_unique<QTemporaryDir>();
    QVERIFY(m_dir->isValid());
    CKXTFStoreManager::inst()->setDBPath(m_dir->path());
}

void TestKXTransferDB::cleanup()
{
    CKXTFStoreManager::clear();
    m_dir.reset();
}

void TestKXTransferDB::taskRowRoundTrips()
{
    SubTaskInfo info = sampleSubTaskInfo();
    // Quotes and percent signs reach the row as they are.
    info.errorInfo = QStringLiteral("it's %2 done, 100% of '%1' %%3");
    info.remoteFile.path = QStringLiteral("/a'b/%2%1/文件.txt");
    info.fingerMark = QStringLiteral("fp'%9");
    CKXTransferDB db(dbPath());
    QVERIFY(db.init());
    CKXTransferTask task(info);
    QVERIFY(db.AddTransferTask(task));
    CKXTransferTask loaded;
    QVERIFY(db.LoadTransferTask(info.subTaskId, loaded));
    QCOMPARE(persisted(loaded.getSubTaskInfo()), persisted(info));
    // The plain columns hold the same values, numbers stored as numbers, empty texts as texts.
    QCOMPARE(sqlValue(dbPath(), QStringLiteral("SELECT finger_mark || size || typeof(state) || state || "
                                               "typeof(send_size) || quote(reserved1) || quote(reserved2) "
                                               "FROM transfer_v1"))
                 .toString(),
             QStringLiteral("fp'%99000000001integer12integer''''"));

    // A second object on the existing file creates nothing; rewriting keeps one row.
    CKXTransferDB again(dbPath());
    QVERIFY(again.init());
    task.setSendBytes(777);
    QVERIFY(again.AddTransferTask(task));
    QCOMPARE(rows(QStringLiteral("transfer_v1")), 1);
    QVERIFY(db.LoadTransferTask(task.getId(), loaded));
    QCOMPARE(loaded.getSendBytes(), 777LL);
    QVERIFY(db.DelTransferTask(task.getId()));
    QCOMPARE(rows(QStringLiteral("transfer_v1")), 0);
    QVERIFY(!db.LoadTransferTask(task.getId(), loaded));

    // A removed file is noticed: neither a thread's cached connection nor a new thread's, while
    // this thread's connection to the lost inode is still open, may keep writing into it.
    for (const char* suffix : {"", "-wal", "-shm"}) {
        QFile::remove(dbPath() + QLatin1String(suffix));
    }
    task.setSendBytes(778);
    bool storedElsewhere = false;
    std::unique_ptr<QThread> other(
        QThread::create([&] { storedElsewhere = db.init() && db.AddTransferTask(task); }));
    other->start();
    QVERIFY(other->wait(10000));
    QVERIFY(storedElsewhere);
    QCOMPARE(sqlValue(dbPath(), QStringLiteral("SELECT send_size FROM transfer_v1")).toInt(), 778);
    QVERIFY(db.init());
    QVERIFY(db.AddTransferTask(task));
    QCOMPARE(rows(QStringLiteral("transfer_v1")), 1);
}

void TestKXTransferDB::blocksComeBackInIndexOrderAndGoOneOrAll()
{
    SubTaskInfo owner = sampleSubTaskInfo();
    owner.errorInfo = QStringLiteral("owner's %1 text");
    const QString sub = owner.subTaskId;
    CKXTransferDB db(dbPath());
    QVERIFY(db.init());
    // Some blocks carry another record of their task (a resumed run's), in runs of both kinds:
    // the loader must not hand one row's record to the next.
    SubTaskInfo resumed = owner;
    resumed.errorInfo = QStringLiteral("resumed run");
    const auto ownerOf = [&](int idx) {
        return idx % 4 == 1 ? resumed : owner;
    };
    BlockList written;
    for (int idx : {7, 2, 9, 0, 5, 1, 8, 3, 6, 4}) {
        written.blocks.append(makeBlock(sub, idx, ownerOf(idx)));
    }
    // Half through the list in one go, half one by one, both in scrambled order.
    QVERIFY(db.AddBlockTaskFormList(written.blocks.mid(0, 5)));
    for (CKXBlockTask* block : written.blocks.mid(5)) {
        QVERIFY(db.AddBlockTask(*block));
    }

    BlockList loaded;
    QVERIFY(db.LoadBlockTasks(sub, loaded.blocks));
    QCOMPARE(loaded.blocks.size(), 10);
    for (int i = 0; i < loaded.blocks.size(); ++i) {
        const std::unique_ptr<CKXBlockTask> expected(makeBlock(sub, i, ownerOf(i)));
        QCOMPARE(blockText(*loaded.blocks.at(i)), blockText(*expected));
        QCOMPARE(persisted(loaded.blocks.at(i)->info()), persisted(ownerOf(i)));
    }
    CKXBlockTask single;
    QVERIFY(db.LoadBlockTask(QStringLiteral("%1-blk-5").arg(sub), single));
    QCOMPARE(blockText(single), blockText(*written.blocks.at(4)));

    // Deleting one block or all of a task's leaves another task's blocks alone.
    BlockList other;
    other.blocks << makeBlock(QStringLiteral("B"), 0, owner);
    QVERIFY(db.AddBlockTaskFormList(other.blocks));
    QVERIFY(db.DelBlockTask(QStringLiteral("%1-blk-2").arg(sub)));
    QCOMPARE(rows(QStringLiteral("block_v1"), QStringLiteral("WHERE sub_task_id='%1'").arg(sub)), 9);
    QVERIFY(db.DelBlockTasks(sub));
    QCOMPARE(rows(QStringLiteral("block_v1"), QStringLiteral("WHERE sub_task_id='B'")), 1);
    BlockList none;
    QVERIFY(db.LoadBlockTasks(sub, none.blocks));
    QVERIFY(none.blocks.isEmpty());
}

void TestKXTransferDB::concurrentWritersUseOwnConnections()
{
    const int threadCount = 4;
    const int tasksPerThread = 10;
    CKXTransferDB db(dbPath());
    QVERIFY(db.init());

    QSemaphore written;
    QSemaphore mayEnd;
    std::vector<QString> names(threadCount);
    std::vector<int> failures(threadCount, 0);
    std::vector<std::unique_ptr<QThread>> threads;
    for (int t = 0; t < threadCount; ++t) {
        threads.emplace_back(QThread::create([&, t] {
            for (int i = 0; i < tasksPerThread; ++i) {
                CKXTransferTask task(taskNamed(QStringLiteral("t%1-%2").arg(t).arg(i)));
                failures[t] += db.AddTransferTask(task) ? 0 : 1;
            }
            names[t] = db.getCurrentConnectionName();
            written.release();
            mayEnd.acquire();
        }));
        threads.back()->start();
    }

    // Every writer is alive here, so its connection must still be registered under its own name.
    QVERIFY(written.tryAcquire(threadCount, 60000));
    const QStringList registered = QSqlDatabase::connectionNames();
    for (int t = 0; t < threadCount; ++t) {
        QVERIFY2(registered.contains(names[t]), qPrintable(names[t]));
        QVERIFY(names[t].endsWith(dbPath()));
        QCOMPARE(std::count(names.begin(), names.end(), names[t]), 1L);
        QCOMPARE(failures[t], 0);
    }
    mayEnd.release(threadCount);
    for (auto& thread : threads) {
        QVERIFY(thread->wait(30000));
    }
    QCOMPARE(rows(QStringLiteral("transfer_v1")), threadCount * tasksPerThread);
    // An ended thread leaves no connection behind.
    const QStringList after = QSqlDatabase::connectionNames();
    for (const QString& name : names) {
        QVERIFY2(!after.contains(name), qPrintable(name));
    }
}

// A list of statements skips only the failing ones; the write thread stores every statement queued,
// also those queued just before the object goes away.
void TestKXTransferDB::statementsAreStoredAlone()
{
    const auto queue = [](CKXTransferDB& db, int from, int to) {
        for (int i = from; i < to; ++i) {
            db.asyncUpdate(QStringLiteral("INSERT INTO block_v1 (id, idx) VALUES ('q%1', %1);").arg(i));
        }
    };
    {
        CKXTransferDB db(dbPath());
        QVERIFY(db.init());
        const QStringList sqls{QStringLiteral("INSERT INTO block_v1 (id) VALUES ('one');"),
                               QStringLiteral("INSERT INTO no_such_table (id) VALUES ('x');"),
                               QStringLiteral("INSERT INTO block_v1 (id) VALUES ('one');"), // duplicate key
                               QStringLiteral("INSERT INTO block_v1 (id) VALUES ('two');")};
        QVERIFY(!db.updateInternal(sqls));
        QCOMPARE(rows(QStringLiteral("block_v1")), 2);
        QVERIFY(!db.updateInternal(QStringList()));
        QVERIFY(!db.updateInternal(QString()));
        QList<CKXDbBase::Row> found;
        QVERIFY(db.queryInternal(QStringLiteral("SELECT id, idx FROM block_v1 ORDER BY id"), found));
        QCOMPARE(found.size(), 2);
        QCOMPARE(found.at(1).value(QStringLiteral("id")).toString(), QStringLiteral("two"));
        QVERIFY(found.at(1).contains(QStringLiteral("idx")));
        QVERIFY(!db.queryInternal(QStringLiteral("SELECT * FROM no_such_table"), found));
        QCOMPARE(found.size(), 2);

        queue(db, 0, 20);
        QTRY_COMPARE_WITH_TIMEOUT(rows(QStringLiteral("block_v1")), 22, 20000);
        queue(db, 20, 40);
    }
    QCOMPARE(rows(QStringLiteral("block_v1")), 42);
}

void TestKXTransferDB::unusableFileFailsWithoutTouchingIt_data()
{
    QTest::addColumn<QString>("path");       // in the test's folder; none at all when empty
    QTest::addColumn<QByteArray>("content"); // of the file the path is, or runs through
    QTest::newRow("not a database") << QStringLiteral("transfer.db") << randomBytes(64 * 1024, 42);
    QTest::newRow("a plain file for a folder")
        << QStringLiteral("plain-file/sub/transfer.db") << QByteArray();
    QTest::newRow("no name") << QString() << QByteArray();
}

void TestKXTransferDB::unusableFileFailsWithoutTouchingIt()
{
    QFETCH(QString, path);
    QFETCH(QByteArray, content);
    const QString file = m_dir->filePath(path.section(QLatin1Char('/'), 0, 0));
    QVERIFY(path.isEmpty() || writeFile(file, content));
    {
        CKXTransferDB db(path.isEmpty() ? QString() : m_dir->filePath(path));
        QVERIFY(!db.init());
        CKXTransferTask task(sampleSubTaskInfo());
        QVERIFY(!db.AddTransferTask(task));
        QVERIFY(!db.LoadTransferTask(task.getId(), task));
        QCOMPARE(persisted(task.getSubTaskInfo()), sampleTaskText());
        QVERIFY(!db.DelTransferTask(task.getId()));
        BlockList blocks;
        blocks.blocks << makeBlock(QStringLiteral("x"), 0, sampleSubTaskInfo());
        QVERIFY(!db.AddBlockTaskFormList(blocks.blocks));
        BlockList loaded;
        QVERIFY(!db.LoadBlockTasks(QStringLiteral("x"), loaded.blocks));
        QVERIFY(loaded.blocks.isEmpty());
        QVERIFY(!db.DelBlockTasks(QStringLiteral("x")));
    }
    if (!path.isEmpty()) {
        QVERIFY(QFileInfo(file).isFile());
        QCOMPARE(readFile(file), content);
    }
}

void TestKXTransferDB::badRowsAndQuotedIdsFailAlone()
{
    const SubTaskInfo owner = sampleSubTaskInfo();
    CKXTransferDB db(dbPath());
    QVERIFY(db.init());
    BlockList good;
    for (int i = 0; i < 3; ++i) {
        good.blocks << makeBlock(QStringLiteral("S"), i, owner);
    }
    QVERIFY(db.AddBlockTaskFormList(good.blocks));
    QVERIFY(sqlExec(dbPath(), QStringLiteral("INSERT INTO transfer_v1 (id, sub_task_info) VALUES ('bad', "
                                             "'not json {')")));
    QVERIFY(sqlExec(dbPath(), QStringLiteral("UPDATE block_v1 SET sub_task_info='[1,2' WHERE id='S-blk-1'")));

    CKXTransferTask task(owner);
    QVERIFY(!db.LoadTransferTask(QStringLiteral("bad"), task));
    QCOMPARE(persisted(task.getSubTaskInfo()), persisted(owner));

    // The caller's list stays as it was: a transfer never resumes on part of its blocks.
    BlockList loaded;
    auto* sentinel = new CKXBlockTask();
    loaded.blocks << sentinel;
    QVERIFY(!db.LoadBlockTasks(QStringLiteral("S"), loaded.blocks));
    QCOMPARE(loaded.blocks, QList<CKXBlockTask*>{sentinel});

    CKXBlockTask single;
    single.setHash(QStringLiteral("kept"));
    QVERIFY(!db.LoadBlockTask(QStringLiteral("S-blk-1"), single));
    QCOMPARE(single.hash(), QStringLiteral("kept"));
    QVERIFY(db.LoadBlockTask(QStringLiteral("S-blk-2"), single));
    QCOMPARE(single.hash(), QStringLiteral("h2"));

    // An id with a quote is refused; the other rows, and the good blocks of the same list, are stored.
    CKXTransferTask kept(taskNamed(QStringLiteral("keep-1")));
    QVERIFY(db.AddTransferTask(kept));
    BlockList blocks;
    blocks.blocks << makeBlock(QStringLiteral("keep-1"), 0, owner)
                  << makeBlock(QStringLiteral("x' OR '1'='1"), 1, owner)
                  << makeBlock(QStringLiteral("keep-1"), 2, owner);
    QVERIFY(!db.AddBlockTaskFormList(blocks.blocks));
    QCOMPARE(rows(QStringLiteral("block_v1")), 5);

    const QString injected = QStringLiteral("nothing' OR '1'='1");
    QVERIFY(!db.DelTransferTask(injected));
    QVERIFY(!db.DelBlockTasks(injected));
    QVERIFY(!db.DelBlockTask(injected));
    CKXTransferTask probe;
    QVERIFY(!db.LoadTransferTask(injected, probe));
    BlockList none;
    QVERIFY(!db.LoadBlockTasks(injected, none.blocks));
    CKXTransferTask quoted(taskNamed(QStringLiteral("it's")));
    QVERIFY(!db.AddTransferTask(quoted));

    QCOMPARE(rows(QStringLiteral("transfer_v1")), 2);
    QCOMPARE(rows(QStringLiteral("block_v1")), 5);
}

void TestKXTransferDB::completedTaskIsReadOnceAndLosesItsRows()
{
    CKXTFStoreManager* store = CKXTFStoreManager::inst();
    const SubTaskInfo done = taskNamed(QStringLiteral("done"), TaskState(StateCompleted | StateWorking));
    const SubTaskInfo neighbour = taskNamed(QStringLiteral("neighbour"), StateCompleted);
    const SubTaskInfo running = taskNamed(QStringLiteral("running"), TaskState(StateWorking | StatePaused));
    for (const SubTaskInfo& info : {running, neighbour, done}) {
        storeRows(info);
        store->addTaskInfo(info);
    }
    // The latest record of a task wins.
    SubTaskInfo later = running;
    later.sendBytes = 42;
    store->addTaskInfo(later);
    SubTaskInfo out;
    QVERIFY(store->getTaskInfo(done.subTaskId, out));
    QCOMPARE(persisted(out), persisted(done));
    QCOMPARE(rowsOf(done.subTaskId), 0);
    const QList<SubTaskInfo> left = store->allTasks();
    QCOMPARE(left.size(), 2);
    QCOMPARE(left.at(0).subTaskId, neighbour.subTaskId);
    QCOMPARE(left.at(1).sendBytes, 42LL);
    QVERIFY(store->taskInfoFormJson(store->taskInfoJson(later), out));
    QCOMPARE(persisted(out), persisted(later));
    QVERIFY(!store->taskInfoFormJson(QStringLiteral("[1,2]"), out));
    out.subTaskId = QStringLiteral("untouched");
    QVERIFY(!store->getTaskInfo(done.subTaskId, out));
    QCOMPARE(out.subTaskId, QStringLiteral("untouched"));
    // Another completed task's rows are not part of it.
    QCOMPARE(rowsOf(neighbour.subTaskId), 3);

    // An unfinished task is read as often as asked and keeps its rows, also when dropped from memory.
    for (int i = 0; i < 2; ++i) {
        QVERIFY(store->getTaskInfo(running.subTaskId, out));
        QCOMPARE(out.state, running.state);
    }
    QVERIFY(store->destroyTaskInfo(running.subTaskId));
    QVERIFY(!store->destroyTaskInfo(running.subTaskId));
    QCOMPARE(rowsOf(running.subTaskId), 3);
}

void TestKXTransferDB::unconfiguredStoreWritesNowhere()
{
    CKXTFStoreManager::clear();
    CKXTFStoreManager* store = CKXTFStoreManager::inst();
    QCOMPARE(store->databaseFilePath(), QString());
    CKXTransferTask task(sampleSubTaskInfo());
    QVERIFY(!store->db()->AddTransferTask(task));
    QVERIFY(!QFile::exists(QStringLiteral("/transfer.db")));

    // Configured afterwards, the next db() is the real one; a trailing separator changes nothing.
    store->setDBPath(m_dir->path() + QLatin1Char('/'));
    QCOMPARE(store->dbPath(), m_dir->path() + QLatin1Char('/'));
    QCOMPARE(store->databaseFilePath(), m_dir->path() + QStringLiteral("/transfer.db"));
    QVERIFY(store->db()->AddTransferTask(task));
    QCOMPARE(rows(QStringLiteral("transfer_v1")), 1);
}

void TestKXTransferDB::logIsClosedWithTheStoreAndReopened()
{
    CKXTFStoreManager::inst()->initLog(m_dir->path(), QStringLiteral("0"));
    QVERIFY(CKXLoggerWrapper::instTransfer()->handle() != 0);
    SubTaskInfo out;
    QVERIFY(!CKXTFStoreManager::inst()->getTaskInfo(QStringLiteral("no-such-task"), out));
    CKXTFStoreManager::clear();
    QCOMPARE(CKXLoggerWrapper::instTransfer()->handle(), 0);

    QVERIFY(QString::fromUtf8(readFile(CKXLoggerWrapper::getLogPathName(CKXLoggerWrapper::Transfer)))
                .contains(QStringLiteral("获取不到对应的传输任务 subTaskId = no-such-task")));

    CKXTFStoreManager::inst()->initLog(m_dir->path(), QStringLiteral("junk"));
    QVERIFY(CKXLoggerWrapper::instTransfer()->handle() != 0);
}

QTEST_GUILESS_MAIN(TestKXTransferDB)
#include "tst_KXTransferDB.moc"
