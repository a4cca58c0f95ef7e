// The upload hasher: which blocks its workers hash (none beyond the window of started blocks, none
// a block thread claimed, none that already had a hash), that each hash is the block's range, and
// that an unreadable file leaves every block to its own thread.

#include "KXBlockHasher.h"
#include "KXBlockTask.h"
#include "KXUtil.h"

#include <QTemporaryDir>
#include <QtTest>

#include <memory>
#include <vector>

class TestKXBlockHasher : public QObject
{
    Q_OBJECT

private slots:
    void workersHashOnlyWhatTheyMay_data();
    void workersHashOnlyWhatTheyMay();
};

void TestKXBlockHasher::workersHashOnlyWhatTheyMay_data()
{
    QTest::addColumn<int>("lookahead");
    QTest::addColumn<int>("started");
    QTest::addColumn<int>("claimed"); // claimed by its block thread before the workers start; -1: none
    QTest::addColumn<bool>("readable");
    QTest::addColumn<QString>("expected"); // per block: h hashed here, - left empty, p kept as it was

    QTest::newRow("window of two, nothing started") << 2 << 0 << -1 << true << "hh----";
    QTest::newRow("window moves with the starts") << 2 << 3 << -1 << true << "hhhhh-";
    QTest::newRow("whole file") << 6 << 6 << -1 << true << "hhhhhh";
    QTest::newRow("claimed block is the thread's") << 6 << 0 << 1 << true << "h-hhhh";
    QTest::newRow("existing hash kept in its place") << 3 << 0 << -1 << true << "hph---";
    QTest::newRow("zero window hashes nothing") << 0 << 0 << -1 << true << "------";
    QTest::newRow("unreadable file") << 6 << 6 << -1 << false << "------";
}

void TestKXBlockHasher::workersHashOnlyWhatTheyMay()
{
    QFETCH(int, lookahead);
    QFETCH(int, started);
    QFETCH(int, claimed);
    QFETCH(bool, readable);
    QFETCH(QString, expected);

    QTemporaryDir dir;
    QVERIFY(dir.isValid());
    const QString path = dir.filePath(QStringLiteral("source.bin"));
    const int blockSize = 1000;
    QByteArray bytes(blockSize * expected.size() - 123, Qt::Uninitialized); // the last block is short
    for (int i = 0; i < bytes.size(); ++i) {
        bytes[i] = char(i * 7 + i / 13);
    }
    if (readable) {
        QFile file(path);
        QVERIFY(file.open(QIODevice::WriteOnly) && file.write(bytes) == bytes.size());
    }
    std::vector<std::unique_ptr<CKXBlockTask>> blocks;
    QList<CKXBlockTask*> order;
    for (int i = 0; i < expected.size(); ++i) {
        blocks.push_back(std::make_unique<CKXBlockTask>());
        blocks.back()->setLoc(qint64(i) * blockSize);
        blocks.back()->setLength(qMin(blockSize, bytes.size() - i * blockSize));
        if (expected[i] == QLatin1Char('p')) {
            blocks.back()->setHash(QStringLiteral("kept"));
        }
        order << blocks.back().get();
    }
    auto hasher = std::make_unique<CKXBlockHasher>(order, path, lookahead);
    if (claimed >= 0) {
        hasher->claim(order[claimed]);
    }
    hasher->start(2);
    for (int i = 0; i < started; ++i) {
        hasher->noteStarted();
    }
    for (int i = 0; i < expected.size(); ++i) {
        if (expected[i] == QLatin1Char('h')) {
            QTRY_VERIFY_WITH_TIMEOUT(!order[i]->hash().isEmpty(), 10000);
        }
    }
    hasher.reset(); // joins the workers: nothing is hashed after this
    for (int i = 0; i < expected.size(); ++i) {
        const QString want = expected[i] == QLatin1Char('h')
                                 ? KXUtil::SHA256(bytes.mid(i * blockSize, blockSize))
                             : expected[i] == QLatin1Char('p') ? QStringLiteral("kept")
                                                               : QString();
        QCOMPARE(order[i]->hash(), want);
    }
}

QTEST_GUILESS_MAIN(TestKXBlockHasher)
#include "tst_KXBlockHasher.moc"
