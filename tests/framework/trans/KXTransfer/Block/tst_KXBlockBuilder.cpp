// Cutting a file into blocks.

#include "KXBlockBuilder.h"
#include "KXBlockTask.h"
#include "KXTransferTask.h"

#include <QSet>
#include <QTemporaryDir>
#include <QtTest>

namespace {

const long long kBlock = 4194304;

SubTaskInfo uploadOf(long long localSize)
{
    SubTaskInfo info;
    info.subTaskId = QStringLiteral("sub-upload");
    info.isUpload = true;
    info.localFile.size = localSize;
    info.localFile.path = QStringLiteral("/data/big.bin");
    info.remoteFile.size = 7; // must not be what an upload is cut by
    info.size = localSize;
    return info;
}

// Owns the blocks a builder hands out.
struct Blocks
{
    QList<CKXBlockTask*> list;
    ~Blocks() { qDeleteAll(list); }
};

} // namespace

class TestKXBlockBuilder : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();

    void blocksCoverTheFileInOrder_data();
    void blocksCoverTheFileInOrder();

private:
    QTemporaryDir m_home;
};

void TestKXBlockBuilder::initTestCase()
{
    QVERIFY(m_home.isValid());
    qputenv("XDG_DATA_HOME", m_home.path().toUtf8());
    qputenv("HOME", m_home.path().toUtf8());
}

void TestKXBlockBuilder::blocksCoverTheFileInOrder_data()
{
    QTest::addColumn<bool>("upload");
    QTest::addColumn<long long>("size");
    QTest::addColumn<QList<long long>>("lengths");
    QTest::newRow("empty file") << true << 0LL << QList<long long>{0};
    QTest::newRow("one byte") << true << 1LL << QList<long long>{1};
    QTest::newRow("one short of a block") << true << kBlock - 1 << QList<long long>{kBlock - 1};
    QTest::newRow("exactly one block") << true << kBlock << QList<long long>{kBlock};
    QTest::newRow("second block of one byte") << true << kBlock + 1 << QList<long long>{kBlock, 1};
    QTest::newRow("exactly two blocks") << true << 2 * kBlock << QList<long long>{kBlock, kBlock};
    QTest::newRow("10 MiB") << true << 10LL * 1024 * 1024
                            << QList<long long>{kBlock, kBlock, 2 * 1024 * 1024};
    QTest::newRow("download of three blocks")
        << false << 3 * kBlock << QList<long long>{kBlock, kBlock, kBlock};
    QTest::newRow("negative size") << true << -1LL << QList<long long>{};
}

void TestKXBlockBuilder::blocksCoverTheFileInOrder()
{
    QFETCH(bool, upload);
    QFETCH(long long, size);
    QFETCH(QList<long long>, lengths);
    if (size >= 0) {
        QCOMPARE(CKXBlockBuilder::blockCount(size), (long long)lengths.size());
    }
    QCOMPARE(CKXBlockBuilder::blockCount(100LL << 30), 25600LL); // past the range of int
    SubTaskInfo info = uploadOf(size);
    if (!upload) {
        // A download is cut by the remote size, an upload by the local one.
        info.isUpload = false;
        info.remoteFile.size = size;
        info.localFile.size = 0;
        info.size = 7;
    }
    CKXTransferTask task(info);
    Blocks blocks;
    QVERIFY(CKXBlockBuilder(&task).createBlocks(blocks.list));
    QCOMPARE(blocks.list.size(), lengths.size());
    QSet<QString> ids;
    long long loc = 0;
    for (int i = 0; i < blocks.list.size(); ++i) {
        const BlockTaskInfo block = blocks.list[i]->getBlockTaskInfo();
        QCOMPARE(block.idx, i);
        QCOMPARE(block.loc, loc);
        QCOMPARE(block.length, lengths[i]);
        QCOMPARE(block.total, lengths[i]);
        QCOMPARE(block.sent, 0LL);
        QCOMPARE(block.subTaskId, QStringLiteral("sub-upload"));
        QCOMPARE(block.subTaskInfo.localFile.path, QStringLiteral("/data/big.bin"));
        QCOMPARE(block.isUpload, upload);
        QCOMPARE(block.state, BlockTaskStateNone);
        QVERIFY(block.hash.isEmpty());
        QVERIFY(block.taskId.startsWith(QLatin1Char('{')) && block.taskId.endsWith(QLatin1Char('}')));
        ids.insert(block.taskId);
        loc += block.length;
    }
    QCOMPARE(loc, qMax(size, 0LL));
    QCOMPARE(ids.size(), blocks.list.size());
}

QTEST_GUILESS_MAIN(TestKXBlockBuilder)
#include "tst_KXBlockBuilder.moc"
