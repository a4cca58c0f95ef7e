#include "KXTestData.h"
#include "QtKXLogger.h"

#include <QDir>
#include <QFileInfo>
#include <QRegularExpression>
#include <QSet>
#include <QTemporaryDir>
#include <QtTest>

#include <atomic>
#include <thread>
#include <vector>

namespace {

struct Line
{
    QString level;
    qint64 tid = 0;
    QString text;
};

// The lines of a log file; empty, with a warning, when one lacks the logger's exact shape.
QList<Line> parseFile(const QString& path)
{
    static const QRegularExpression shape(QStringLiteral(
        R"(^\d{4}-\d{2}-\d{2} \d{2}:\d{2}:\d{2}\.\d{3} \[(DEBUG|INFO|ERROR|FATAL)\] \[tid (\d+)\] (.*)$)"));
    QList<Line> parsed;
    for (const QString& raw :
         QString::fromUtf8(readFile(path)).split(QLatin1Char('\n'), Qt::SkipEmptyParts)) {
        const QRegularExpressionMatch match = shape.match(raw);
        if (!match.hasMatch()) {
            qWarning("malformed line: %s", qPrintable(raw));
            return {};
        }
        parsed.append({match.captured(1), match.captured(2).toLongLong(), match.captured(3)});
    }
    return parsed;
}

// A handle on `path`, initialised; 0 when it could not be.
int opened(const QString& path)
{
    const int handle = QtKXLogger::create(path);
    return QtKXLogger::init(handle) ? handle : 0;
}

void writeAt(int handle, int level, const QString& text)
{
    using Write = void (*)(int, const QString&);
    static const Write writes[] = {QtKXLogger::debug, QtKXLogger::information, QtKXLogger::error,
                                   QtKXLogger::fatal};
    writes[level](handle, text);
}

const char* const kLevelNames[] = {"DEBUG", "INFO", "ERROR", "FATAL"};

} // namespace

class TestQtKXLogger : public QObject
{
    Q_OBJECT

private slots:
    void concurrentWriters_data();
    void concurrentWriters();
    void rotationKeepsNewestLines_data();
    void rotationKeepsNewestLines();
    void levelsAndFlushing_data();
    void levelsAndFlushing();
    void handlesAndInvalidUse();

private:
    QTemporaryDir m_dir;
};

void TestQtKXLogger::concurrentWriters_data()
{
    QTest::addColumn<bool>("destroyMidway");
    QTest::newRow("all lines, then destroy") << false;
    QTest::newRow("destroy while writing") << true;
}

// Whatever reaches the file is whole lines, each writer's in its own order without a gap; a
// destroy racing the writers ends the file there, and later writes are ignored.
void TestQtKXLogger::concurrentWriters()
{
    QFETCH(bool, destroyMidway);
    const QString path = m_dir.filePath(QStringLiteral("deep/er/concurrent-%1.log").arg(destroyMidway));
    const int handle = opened(path);
    QVERIFY(handle > 0);
    QtKXLogger::setRotation(handle, 0, 0);

    const int writers = destroyMidway ? 4 : 8;
    const int perWriter = 2000;
    const QString payload = QStringLiteral("传输日志 payload ").repeated(6);
    std::atomic<bool> go{false};
    std::atomic<bool> destroyed{false};
    std::atomic<int> writesAfterDestroy{0};
    std::vector<std::thread> threads;
    for (int w = 0; w < writers; ++w) {
        threads.emplace_back([&, w] {
            while (!go.load())
                std::this_thread::yield();
            for (int i = 0; destroyMidway ? writesAfterDestroy.load() < 1000 : i < perWriter; ++i) {
                const bool late = destroyed.load();
                writeAt(handle, i % 4, QStringLiteral("w%1 n%2 %3").arg(w).arg(i).arg(payload));
                if (late)
                    ++writesAfterDestroy;
            }
        });
    }
    go = true;
    QByteArray atDestroy;
    if (destroyMidway) {
        QTRY_VERIFY_WITH_TIMEOUT(readFile(path).count('\n') > 100, 10000);
        QtKXLogger::destroy(handle);
        destroyed = true;
        atDestroy = readFile(path);
    }
    for (std::thread& thread : threads)
        thread.join();
    if (destroyMidway)
        QCOMPARE(readFile(path), atDestroy);
    else
        QtKXLogger::destroy(handle);

    const QList<Line> lines = parseFile(path);
    QVERIFY(!lines.isEmpty());
    if (!destroyMidway)
        QCOMPARE(lines.size(), writers * perWriter);
    const QRegularExpression textShape(QStringLiteral("^w(\\d+) n(\\d+) (.*)$"));
    QVector<int> next(writers, 0);
    QMap<int, qint64> tidOf;
    for (const Line& line : lines) {
        const QRegularExpressionMatch match = textShape.match(line.text);
        QVERIFY2(match.hasMatch() && match.captured(3) == payload, qPrintable(line.text));
        const int w = match.captured(1).toInt();
        const int n = match.captured(2).toInt();
        QVERIFY(w >= 0 && w < writers);
        QCOMPARE(n, next[w]++);
        QCOMPARE(line.level, QString::fromLatin1(kLevelNames[n % 4]));
        QCOMPARE(tidOf.value(w, line.tid), line.tid);
        tidOf.insert(w, line.tid);
    }
    const QList<qint64> tids = tidOf.values();
    QCOMPARE(QSet<qint64>(tids.begin(), tids.end()).size(), tidOf.size());
}

void TestQtKXLogger::rotationKeepsNewestLines_data()
{
    QTest::addColumn<int>("keepFiles");
    QTest::newRow("keep none") << 0;
    QTest::newRow("keep one") << 1;
    QTest::newRow("keep three") << 3;
}

void TestQtKXLogger::rotationKeepsNewestLines()
{
    QFETCH(int, keepFiles);
    const qint64 maxBytes = 4096;
    const int total = 2000;
    const QString path = m_dir.filePath(QStringLiteral("rotate-%1/app.log").arg(keepFiles));
    const int handle = opened(path);
    QVERIFY(handle > 0);
    QtKXLogger::setRotation(handle, maxBytes, keepFiles);
    for (int i = 0; i < total; ++i) {
        writeAt(handle, i % 3 == 0 ? QtKXLogger::LevelError : QtKXLogger::LevelInformation,
                QStringLiteral("line %1").arg(i, 5, 10, QLatin1Char('0')));
    }
    QtKXLogger::destroy(handle);

    QStringList files{path};
    for (int i = 1; i <= keepFiles; ++i)
        files.prepend(path + '.' + QString::number(i));
    QCOMPARE(QDir(QFileInfo(path).path()).entryList(QDir::Files).size(), keepFiles + 1);

    // Oldest to newest, the kept files hold an unbroken run of lines ending with the last one.
    QList<int> numbers;
    for (const QString& file : files) {
        QVERIFY2(QFileInfo(file).size() <= maxBytes, qPrintable(file));
        for (const Line& line : parseFile(file))
            numbers.append(line.text.mid(5).toInt());
    }
    QVERIFY(numbers.size() > 10);
    QCOMPARE(numbers.last(), total - 1);
    QVERIFY(numbers.first() > 0);
    for (int i = 1; i < numbers.size(); ++i)
        QCOMPARE(numbers[i], numbers[i - 1] + 1);
}

void TestQtKXLogger::levelsAndFlushing_data()
{
    QTest::addColumn<int>("threshold");
    for (int level = QtKXLogger::LevelDebug; level <= QtKXLogger::LevelFatal; ++level)
        QTest::addRow("from %s", kLevelNames[level]) << level;
}

// Lines below the threshold are dropped. An error or fatal line reaches the file at once, with the
// lines before it, so that it survives a crash; the others at the latest at destroy. Line breaks
// inside the text keep the entry on one line.
void TestQtKXLogger::levelsAndFlushing()
{
    QFETCH(int, threshold);
    const QString path = m_dir.filePath(QStringLiteral("level-%1.log").arg(threshold));
    const int handle = opened(path);
    QVERIFY(handle > 0);
    QtKXLogger::setLevel(handle, static_cast<QtKXLogger::Level>(threshold));
    const auto written = [&path] {
        QStringList lines;
        for (const Line& line : parseFile(path))
            lines << line.level + QLatin1Char(' ') + line.text;
        return lines;
    };
    QStringList expected;
    for (const int level : {QtKXLogger::LevelInformation, QtKXLogger::LevelFatal, QtKXLogger::LevelError,
                            QtKXLogger::LevelDebug}) {
        writeAt(handle, level, QStringLiteral("致命错误\nsecond\r\nthird"));
        if (level >= threshold)
            expected << QString::fromLatin1(kLevelNames[level]) +
                            QStringLiteral(" 致命错误\\nsecond\\r\\nthird");
        if (level >= QtKXLogger::LevelError)
            QCOMPARE(written(), expected);
    }
    QtKXLogger::destroy(handle);
    QCOMPARE(written(), expected);
}

void TestQtKXLogger::handlesAndInvalidUse()
{
    const QString path = m_dir.filePath(QStringLiteral("handles/a.log"));
    const int handle = QtKXLogger::create(path);
    QVERIFY(handle > 0);
    QCOMPARE(QtKXLogger::create(path), handle);
    QCOMPARE(QtKXLogger::create(m_dir.filePath(QStringLiteral("handles/x/../a.log"))), handle);
    const int other = QtKXLogger::create(m_dir.filePath(QStringLiteral("handles/b.log")));
    QVERIFY(other > 0 && other != handle);
    QCOMPARE(QtKXLogger::create(QString()), 0);

    QVERIFY(QtKXLogger::init(handle));
    QVERIFY(QtKXLogger::init(handle));
    QtKXLogger::fatal(handle, QStringLiteral("kept"));
    QtKXLogger::destroy(handle);
    QtKXLogger::destroy(handle);
    QtKXLogger::destroy(other);

    for (const int invalid : {0, -1, handle, other, 987654}) {
        QVERIFY(!QtKXLogger::init(invalid));
        QtKXLogger::setLevel(invalid, QtKXLogger::LevelDebug);
        QtKXLogger::setRotation(invalid, 1, 1);
        QtKXLogger::fatal(invalid, QStringLiteral("must not appear"));
    }
    QCOMPARE(parseFile(path).size(), 1);
    QVERIFY(!QFileInfo::exists(m_dir.filePath(QStringLiteral("handles/b.log"))));

    // The same path again after destroy: a fresh handle that appends to the old file.
    const int again = QtKXLogger::create(path);
    QVERIFY(again > 0 && again != handle);
    QVERIFY(QtKXLogger::init(again));
    QtKXLogger::fatal(again, QStringLiteral("appended"));
    QtKXLogger::destroy(again);
    QCOMPARE(parseFile(path).size(), 2);

    // A file standing where a folder is needed: init reports it, writes are ignored.
    const int blocked = QtKXLogger::create(path + QStringLiteral("/inside.log"));
    QVERIFY(!QtKXLogger::init(blocked));
    QtKXLogger::fatal(blocked, QStringLiteral("nowhere to go"));
    QtKXLogger::destroy(blocked);
}

QTEST_GUILESS_MAIN(TestQtKXLogger)
#include "tst_QtKXLogger.moc"
