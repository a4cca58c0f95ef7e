// The task store: the read-once rule of completed tasks and its database rows, lookups, the
// database path, and the transfer log it opens and closes.

#include "KXBlockTask.h"
#include "KXLoggerWrapper.h"
#include "KXTFStoreManager.h"
#include "KXTaskRecordSample.h"
#include "KXTestData.h"
#include "KXTestSql.h"
#include "KXTransferDB.h"
#include "KXTransferTask.h"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>
#include <QtTest>

#include <memory>

namespace {

int countRows(const QString& path, const QString& sql)
{
    const QVariant count = sqlValue(path, sql);
    return count.isValid() ? count.toInt() : -1;
}

SubTaskInfo taskWithState(const QString& id, TaskState state)
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
    for (int i = 0; i < 2; ++i) {
        CKXBlockTask block;
        block.setTaskId(QStringLiteral("%1-%2").arg(info.subTaskId).arg(i));
        block.setSubTaskId(info.subTaskId);
        block.setIdx(i);
        block.setSubTaskInfo(info);
        QVERIFY(db->AddBlockTask(block));
    }
}

} // namespace

class TestKXTFStoreManager : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void cleanup();

    void completedTaskIsReadOnceAndLosesItsRows();
    void unconfiguredStoreWritesNowhere();
    void logIsClosedWithTheStoreAndReopened();

private:
    QString dbFile() const { return CKXTFStoreManager::inst()->databaseFilePath(); }
    int rowsOf(const QString& id) const
    {
        return countRows(dbFile(), QStringLiteral("SELECT (SELECT COUNT(*) FROM transfer_v1 WHERE id='%1') + "
                                                  "(SELECT COUNT(*) FROM block_v1 WHERE sub_task_id='%1')")
                                       .arg(id));
    }

    QTemporaryDir m_home;
    std::unique_ptr<QTemporaryDir> m_dir;
};

void TestKXTFStoreManager::initTestCase()
{
    QVERIFY(m_home.isValid());
    qputenv("XDG_DATA_HOME", m_home.path().toUtf8());
    qputenv("HOME", m_home.path().toUtf8());
}

void TestKXTFStoreManager::init()
{
    m_dir = std::make_unique<QTemporaryDir>();
    QVERIFY(m_dir->isValid());
    CKXTFStoreManager::inst()->setDBPath(m_dir->path());
}

void TestKXTFStoreManager::cleanup()
{
    CKXTFStoreManager::clear();
    m_dir.reset();
}

void TestKXTFStoreManager::completedTaskIsReadOnceAndLosesItsRows()
{
    CKXTFStoreManager* store = CKXTFStoreManager::inst();
    const SubTaskInfo done = taskWithState(QStringLiteral("done"), TaskState(StateCompleted | StateWorking));
    const SubTaskInfo neighbour = taskWithState(QStringLiteral("neighbour"), StateCompleted);
    const SubTaskInfo running =
        taskWithState(QStringLiteral("running"), TaskState(StateWorking | StatePaused));
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

void TestKXTFStoreManager::unconfiguredStoreWritesNowhere()
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
    QCOMPARE(countRows(dbFile(), QStringLiteral("SELECT COUNT(*) FROM transfer_v1")), 1);
}

void TestKXTFStoreManager::logIsClosedWithTheStoreAndReopened()
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

QTEST_GUILESS_MAIN(TestKXTFStoreManager)
#include "tst_KXTFStoreManager.moc"
