// transfer.db replaced by garbage while the engine runs: transfers still move files and end with
// one final callback each, the database failures go to DB.log, and once a good database is put back
// tasks are stored again, so that a failed chunked task resumes from its blocks.
//
// One test function only: the database log is opened once per process, in the first test's home.

#include "KXApiFixture.h"
#include "KXTestSql.h"

#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QTest>

namespace {

const qint64 kChunkedSize = 2 * 4194304 + 777;

bool replaceFile(const QString& path, const QByteArray& content)
{
    const QString fresh = path + QStringLiteral(".new");
    if (!writeFile(fresh, content)) {
        return false;
    }
    // The database's companions belong to the file being replaced.
    QFile::remove(path + QStringLiteral("-wal"));
    QFile::remove(path + QStringLiteral("-shm"));
    return ::rename(QFile::encodeName(fresh).constData(), QFile::encodeName(path).constData()) == 0;
}

QString findFile(const QString& root, const QString& name)
{
    QDirIterator it(root, {name}, QDir::Files, QDirIterator::Subdirectories);
    return it.hasNext() ? it.next() : QString();
}

} // namespace

class TestDamagedDatabase : public QObject
{
    Q_OBJECT

private slots:
    void garbageInPlaceOfTheDatabase();
};

void TestDamagedDatabase::garbageInPlaceOfTheDatabase()
{
    CKXApiFixture env;
    QVERIFY2(env.setUp(), qPrintable(env.errorString()));
    const QString home = QString::fromLocal8Bit(qgetenv("HOME"));
    const QString database = home + QStringLiteral("/data/Transfer/transfer.db");
    const auto local = [&env](const char* name) {
        return env.localPath(QLatin1String(name));
    };

    // A first task leaves a good database behind; a copy of it is kept aside.
    QVERIFY(writeFile(local("first.txt"), "first"));
    ApiTaskRecord record;
    KX_RUN_TO_END(env, CKXApiFixture::uploadTask(local("first.txt"), QStringLiteral("/db/first.txt")),
                  &record, false);
    QCOMPARE(record.code, NoError);
    QVERIFY(QFile::exists(database));
    // The running engine keeps its newest rows in the write-ahead log; the copy needs them inside.
    QVERIFY(sqlExec(database, QStringLiteral("PRAGMA wal_checkpoint(TRUNCATE)")));
    QVERIFY(QFile::copy(database, local("good.db")));

    const QByteArray garbage = randomBytes(64 * 1024, 99);
    QVERIFY(replaceFile(database, garbage));

    // Nothing can be stored, but files still move, whole and in blocks, both ways.
    const QByteArray small = randomBytes(5000, 1);
    const QByteArray big = randomBytes(kChunkedSize, 2);
    QVERIFY(writeFile(local("small.bin"), small));
    QVERIFY(writeFile(local("big.bin"), big));
    const SubTaskInfo tasks[] = {
        CKXApiFixture::uploadTask(local("small.bin"), QStringLiteral("/db/small.bin")),
        CKXApiFixture::uploadTask(local("big.bin"), QStringLiteral("/db/big.bin")),
        CKXApiFixture::downloadTask(QStringLiteral("/db/big.bin"), kChunkedSize, local("back/big.bin")),
    };
    for (const SubTaskInfo& task : tasks) {
        KX_RUN_TO_END(env, task, &record, false);
        QCOMPARE(record.code, NoError);
        QCOMPARE(record.task.state, StateCompleted);
    }
    QByteArray stored;
    QVERIFY(env.readRemoteFile(QStringLiteral("/db/small.bin"), &stored));
    QCOMPARE(stored, small);
    QCOMPARE(sha256Hex(readFile(local("back/big.bin"))), sha256Hex(big));
    // The engine neither repaired nor removed the file it could not read; it said so in its log.
    QCOMPARE(readFile(database), garbage);
    const QString log = findFile(home, QStringLiteral("DB.log"));
    QVERIFY2(!log.isEmpty(), "no DB.log under the test's home");
    QVERIFY(readFile(log).contains("file is not a database"));

    // With the good database back, a task that fails is stored and resumes from its blocks (new
    // bytes, so that no block is on the server yet).
    QVERIFY(replaceFile(database, readFile(local("good.db"))));
    const QByteArray other = randomBytes(kChunkedSize, 3);
    QVERIFY(writeFile(local("other.bin"), other));
    QVERIFY(
        env.server().armFault({{"op", "block_upload"}, {"action", "status"}, {"status", 500}, {"nth", 2}}));
    const SubTaskInfo again = CKXApiFixture::uploadTask(local("other.bin"), QStringLiteral("/db/again.bin"));
    KX_RUN_TO_END(env, again, &record, false);
    QCOMPARE(int(record.code), int(ServerError));
    QCOMPARE(env.dbRowState(again.subTaskId), int(StateError));
    QVERIFY(env.server().clearFaults());
    QVERIFY(env.server().resetStats());
    KX_RUN_TO_END(env, again, &record, false);
    QCOMPARE(record.code, NoError);
    // Only the failed block went again.
    QCOMPARE(env.server().stats().value(QLatin1String("block_uploads")).toInt(), 1);
    QVERIFY(env.readRemoteFile(QStringLiteral("/db/again.bin"), &stored));
    QCOMPARE(sha256Hex(stored), sha256Hex(other));
}

QTEST_GUILESS_MAIN(TestDamagedDatabase)
#include "tst_DamagedDatabase.moc"
