// The parts of kxtransfer that decide what the user sees: rates, task ids, progress lines, error
// names and mapping, and the read-only view of the engine's database.

#include "KXBatchRunner.h"
#include "KXCommandLine.h"
#include "KXProgressPrinter.h"
#include "KXRemoteMeta.h"
#include "KXTaskDatabase.h"
#include "KXTestData.h"
#include "KXTestSql.h"
#include "KXTransferRunner.h"
#include "ServerApiTypes.h"

#include <QTemporaryDir>
#include <QtTest>

#include <cstdio>
#include <cstdlib>

namespace {

// What a printer in `mode` draws for one transfer of 100 bytes reported done in `steps` steps.
QByteArray drawn(CKXProgressPrinter::Mode mode, int steps)
{
    char* data = nullptr;
    size_t size = 0;
    FILE* stream = open_memstream(&data, &size);
    CKXProgressPrinter printer(mode, stream);
    printer.begin(QStringLiteral("t.bin"), 100);
    for (int step = 1; step <= steps; ++step) {
        printer.update(step * 100 / steps, 100);
    }
    printer.end();
    std::fclose(stream);
    const QByteArray text(data, static_cast<int>(size));
    std::free(data);
    return text;
}

// One row of the engine's task table as SQL values: its id, state, sizes and task JSON, with
// `extra` members of the task and `remote` members of its server-side file.
QString taskRow(const QString& id, int state, qint64 size, qint64 sent, bool upload, const QString& extra,
                const QString& remote)
{
    return QStringLiteral("('%1', %2, %3, %4, '{\"is_upload\":%5,\"data_server\":\"\",%6"
                          "\"vault_file\":{%7},\"local_file\":{\"path\":\"/l/%1\"}}')")
        .arg(id)
        .arg(state)
        .arg(size)
        .arg(sent)
        .arg(upload ? "true" : "false", extra, remote);
}

} // namespace

class TestKXTransferTool : public QObject
{
    Q_OBJECT

private slots:
    void rates_data();
    void rates();
    void taskIdsFollowEveryPart();
    void downloadsKeepExistingFiles();
    void targetAlreadyHoldsSource_data();
    void targetAlreadyHoldsSource();
    void codeNames();
    void progressText();
    void printerModes();
    void serverErrorsMapLikeTheEngine_data();
    void serverErrorsMapLikeTheEngine();
    void databaseView();
};

void TestKXTransferTool::rates_data()
{
    QTest::addColumn<QString>("text");
    QTest::addColumn<qint64>("bytes"); // -1: refused
    QTest::newRow("plain") << "2000000" << qint64(2000000);
    QTest::newRow("zero") << "0" << qint64(0);
    QTest::newRow("kilo lower") << "512k" << qint64(524288);
    QTest::newRow("mega") << "10M" << qint64(10485760);
    QTest::newRow("fraction MiB") << "1.5MiB" << qint64(1572864);
    QTest::newRow("per second") << "10MB/s" << qint64(10485760);
    QTest::newRow("giga") << "1G" << qint64(1073741824);
    QTest::newRow("word") << "fast" << qint64(-1);
    QTest::newRow("negative") << "-1M" << qint64(-1);
    QTest::newRow("unit") << "10X" << qint64(-1);
    QTest::newRow("empty") << "" << qint64(-1);
    QTest::newRow("exponent") << "1e3" << qint64(-1);
    QTest::newRow("huge") << "99999999G" << qint64(-1);
}

void TestKXTransferTool::rates()
{
    QFETCH(QString, text);
    QFETCH(qint64, bytes);
    qint64 parsed = -7;
    QCOMPARE(CKXCommandLine::parseRate(text, parsed), bytes >= 0);
    if (bytes >= 0) {
        QCOMPARE(parsed, bytes);
    }
}

void TestKXTransferTool::taskIdsFollowEveryPart()
{
    const QStringList parts{"upload", "/home/a.bin", "/a.bin", "http://s", "100", "1700000000", "0"};
    const QString id = CKXTransferRunner::deriveTaskId(parts);
    QCOMPARE(id, CKXTransferRunner::deriveTaskId(parts));
    QCOMPARE(id.size(), 38);
    QVERIFY(id.startsWith(QLatin1Char('{')) && id.endsWith(QLatin1Char('}')));
    QSet<QString> ids{id};
    for (int i = 0; i < parts.size(); ++i) {
        QStringList changed = parts;
        changed[i] += QLatin1Char('x');
        ids.insert(CKXTransferRunner::deriveTaskId(changed));
    }
    QCOMPARE(ids.size(), parts.size() + 1);
    // Parts are kept apart: moving text across a boundary is another task.
    QVERIFY(CKXTransferRunner::deriveTaskId({"ab", "c"}) != CKXTransferRunner::deriveTaskId({"a", "bc"}));
}

void TestKXTransferTool::downloadsKeepExistingFiles()
{
    QTemporaryDir dir;
    for (const char* name : {"x.bin", "x(1).bin", "a.tar.gz", "report"}) {
        QVERIFY(writeFile(dir.filePath(name), QByteArray()));
    }
    QCOMPARE(CKXTransferRunner::freeName(dir.filePath("new.bin")), dir.filePath("new.bin"));
    QCOMPARE(CKXTransferRunner::freeName(dir.filePath("x.bin")), dir.filePath("x(2).bin"));
    QCOMPARE(CKXTransferRunner::freeName(dir.filePath("a.tar.gz")), dir.filePath("a.tar(1).gz"));
    QCOMPARE(CKXTransferRunner::freeName(dir.filePath("report")), dir.filePath("report(1)."));
}

void TestKXTransferTool::targetAlreadyHoldsSource_data()
{
    QTest::addColumn<qint64>("targetSize");
    QTest::addColumn<qint64>("targetTime");
    QTest::addColumn<qint64>("sourceTime");
    QTest::addColumn<bool>("holds");
    // The source always has 5 bytes.
    QTest::newRow("same size and time") << qint64(5) << qint64(100) << qint64(100) << true;
    QTest::newRow("target newer") << qint64(5) << qint64(200) << qint64(100) << true;
    QTest::newRow("source changed since") << qint64(5) << qint64(100) << qint64(101) << false;
    QTest::newRow("other size") << qint64(6) << qint64(200) << qint64(100) << false;
    QTest::newRow("time unknown: size decides") << qint64(5) << qint64(0) << qint64(100) << true;
}

void TestKXTransferTool::targetAlreadyHoldsSource()
{
    QFETCH(qint64, targetSize);
    QFETCH(qint64, targetTime);
    QFETCH(qint64, sourceTime);
    QFETCH(bool, holds);
    QCOMPARE(CKXBatchRunner::alreadyThere(targetSize, targetTime, 5, sourceTime), holds);
}

// Names of the engine's codes that no failing run of the command prints, and of the codes the tool
// adds; the error line and the exit codes are what every run of the command prints and returns.
void TestKXTransferTool::codeNames()
{
    const QList<QPair<int, QString>> names = {
        {20007, "Forbidden"}, {20009, "NoSpace"},    {20110, "RenameTmpFileError"}, {1001, "Cancelled"},
        {404, "Http404"},     {7, "TransportError"}, {65535, "CreateBlocksError"},  {-3, "Unknown"}};
    for (const auto& name : names) {
        QCOMPARE(CKXTransferRunner::codeName(name.first), name.second);
    }
}

void TestKXTransferTool::progressText()
{
    QCOMPARE(CKXProgressPrinter::formatBytes(1023), QStringLiteral("1023 B"));
    QCOMPARE(CKXProgressPrinter::formatBytes(1024), QStringLiteral("1.0 KiB"));
    QCOMPARE(CKXProgressPrinter::formatBytes(64 * 1024 * 1024), QStringLiteral("64.0 MiB"));
    QCOMPARE(CKXProgressPrinter::formatDuration(65), QStringLiteral("1:05"));
    QCOMPARE(CKXProgressPrinter::formatDuration(3725), QStringLiteral("1:02:05"));
    QCOMPARE(CKXProgressPrinter::formatDuration(-1), QStringLiteral("--:--"));

    const QString half = CKXProgressPrinter::formatLine("a.bin", 50 * 1024, 100 * 1024, 10 * 1024);
    QCOMPARE(half, QStringLiteral("a.bin   50%  50.0 KiB / 100.0 KiB  10.0 KiB/s  0:05 left"));
    // Percent never passes 100, rate unknown leaves the time open, size unknown drops both.
    QVERIFY(CKXProgressPrinter::formatLine("a", 200, 100, 1).contains(QLatin1String("100%")));
    QVERIFY(CKXProgressPrinter::formatLine("a", 10, 100, -1).endsWith(QLatin1String("--  --:-- left")));
    QCOMPARE(CKXProgressPrinter::formatLine("a", 2048, 0, -1), QStringLiteral("a  2.0 KiB  --"));
    const QString longName = QString(40, QLatin1Char('n')) + QStringLiteral(".bin");
    QVERIFY(CKXProgressPrinter::formatLine(longName, 1, 2, -1).startsWith(QLatin1String("...nnnn")));
}

void TestKXTransferTool::printerModes()
{
    const QByteArray terminal = drawn(CKXProgressPrinter::Terminal, 1);
    QVERIFY(terminal.startsWith("\rt.bin") && terminal.contains("\033[K"));
    // The line held back by the rate limit is shown at the end.
    QVERIFY2(terminal.contains("100%") && terminal.endsWith("\n"), terminal.constData());
    QCOMPARE(terminal.count('\n'), 1);

    const QByteArray plain = drawn(CKXProgressPrinter::Plain,
                                   100); // far faster than one line a second
    const QList<QByteArray> lines = plain.split('\n');
    QCOMPARE(lines.size(),
             3); // the first report, the last one, and the final line break
    QVERIFY(lines.at(0).contains("0%") && lines.at(1).contains("100%"));
    QVERIFY(!plain.contains('\r'));
    QVERIFY(drawn(CKXProgressPrinter::Quiet, 1).isEmpty());
}

void TestKXTransferTool::serverErrorsMapLikeTheEngine_data()
{
    QTest::addColumn<int>("status");
    QTest::addColumn<QString>("body");
    QTest::addColumn<int>("code");
    QTest::addColumn<QString>("message");
    QTest::newRow("session") << 401 << R"({"code":"Invalid session","message":"who"})" << 20003 << "who";
    QTest::newRow("session, other case")
        << 401 << R"({"code":"invalid session","message":"who"})" << 20001 << "who";
    QTest::newRow("forbidden") << 403 << R"({"code":"forbidden: escapes","message":"no"})" << 20007 << "no";
    QTest::newRow("virus") << 403 << R"({"code":"download_file_VirusF","message":"virus"})" << 20031
                           << "virus";
    QTest::newRow("not json") << 500 << "not json" << 20001 << "HTTP status 500";
}

void TestKXTransferTool::serverErrorsMapLikeTheEngine()
{
    QFETCH(int, status);
    QFETCH(QString, body);
    QFETCH(int, code);
    QFETCH(QString, message);
    ResponseData response;
    response.statusCode = status;
    response.body = body;
    QString mapped;
    QCOMPARE(CKXRemoteMeta::mapError(response, mapped), code);
    QCOMPARE(mapped, message);
}

// The read-only view of the engine's database, and the files it must not trip over.
void TestKXTransferTool::databaseView()
{
    QTemporaryDir dir;
    const QString file = dir.filePath(QStringLiteral("transfer.db"));
    QVERIFY(sqlExec(file, "CREATE TABLE [transfer_v1] ([id] text PRIMARY KEY, "
                          "[task_id] text, [state] integer, "
                          "[size] bigint, [send_size] bigint, [sub_task_info] "
                          "text, [finger_mark] text, "
                          "[reserved1] text, [reserved2] text )"));
    QVERIFY(sqlExec(file, "CREATE TABLE [block_v1] ([id] text PRIMARY KEY, "
                          "[sub_task_id] text, [state] integer, "
                          "[is_upload] integer, [sent] bigint, [total] bigint, "
                          "[length] bigint, [loc] bigint, "
                          "[idx] integer, [hash] text, [sub_task_info] text, "
                          "[is_quick_trans] integer, "
                          "[block_info] text, [reserved1] text )"));
    QVERIFY(sqlExec(file, "INSERT INTO transfer_v1 (id, state, size, send_size, sub_task_info) "
                          "VALUES " +
                              taskRow("{up}", 8, 10000000, 123, true, "", "\"path\":\"/r/up.bin\"") + ", " +
                              taskRow("{down}", 32, 3000, 1000, false,
                                      "\"error_code\":20009,\"error_info\":\"空间不足\",",
                                      "\"path\":\"/r/down.bin\"") +
                              ", " +
                              taskRow("{link}", 8, 5000, 0, true, "",
                                      "\"path\":\"/in/"
                                      "a.bin\",\"isDeliveryTrans\":true,\"delivery_code\":\"abc\"")));
    // Two finished blocks of the upload, one paused, one finished block of another task.
    QVERIFY(sqlExec(file, "INSERT INTO block_v1 (id, sub_task_id, state, length) VALUES "
                          "('b0', '{up}', 16, 4194304), ('b1', '{up}', 16, 4194304), ('b2', "
                          "'{up}', 4, 1611392), "
                          "('c0', '{other}', 16, 5)"));

    CKXTaskDatabase view(file);
    QList<KXStoredTask> tasks;
    QString error;
    QVERIFY2(view.tasks(tasks, error), qPrintable(error));
    QCOMPARE(tasks.size(), 3);
    const KXStoredTask& down = tasks.at(0); // id order
    QCOMPARE(down.id, QStringLiteral("{down}"));
    QVERIFY(!down.isUpload);
    QCOMPARE(down.doneBytes, qint64(1000)); // no blocks: the saved count
    QCOMPARE(down.errorCode, 20009);
    QCOMPARE(down.errorInfo, QStringLiteral("空间不足"));
    // A share link's task names the link's code before the path inside it.
    QCOMPARE(tasks.at(1).remotePath, QStringLiteral("abc/in/a.bin"));
    const KXStoredTask& up = tasks.at(2);
    QVERIFY(up.isUpload);
    QCOMPARE(up.localPath, QStringLiteral("/l/{up}"));
    QCOMPARE(up.remotePath, QStringLiteral("/r/up.bin"));
    QCOMPARE(up.size, qint64(10000000));
    QCOMPARE(up.doneBytes,
             qint64(8388608)); // the finished blocks, not the stale saved count
    QCOMPARE(up.blocksDone, 2);

    KXStoredTask found;
    QVERIFY(view.find(QStringLiteral("{up}"), found));
    QCOMPARE(found.state, 8);
    QVERIFY(!view.find(QStringLiteral("{none}"), found));
    QVERIFY(!view.find(QStringLiteral("x' OR '1'='1"), found));

    QCOMPARE(CKXTaskDatabase::stateName(0), QStringLiteral("None"));
    QCOMPARE(CKXTaskDatabase::stateName(12), QStringLiteral("Working|Paused"));
    QCOMPARE(CKXTaskDatabase::stateName(160), QStringLiteral("Error|Stop"));

    // No file, or one the engine never wrote to: nothing to list. Reading never creates the file.
    const QString missing = dir.filePath(QStringLiteral("none/transfer.db"));
    const QString empty = dir.filePath(QStringLiteral("empty.db"));
    QVERIFY(sqlExec(empty, "CREATE TABLE other (x integer)"));
    for (const QString& absent : {missing, empty}) {
        QVERIFY2(CKXTaskDatabase(absent).tasks(tasks, error) && error.isEmpty(), qPrintable(error));
        QVERIFY(tasks.isEmpty());
    }
    QVERIFY(!QFile::exists(missing));
    const QString garbage = dir.filePath(QStringLiteral("garbage.db"));
    QVERIFY(writeFile(garbage, QByteArray(4096, 'x')));
    QVERIFY(!CKXTaskDatabase(garbage).tasks(tasks, error));
    QVERIFY(!error.isEmpty());
}

QTEST_GUILESS_MAIN(TestKXTransferTool)
#include "tst_KXTransferTool.moc"
