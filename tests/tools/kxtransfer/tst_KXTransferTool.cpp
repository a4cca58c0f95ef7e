// The parts of kxtransfer that decide what the user sees: option parsing, rates, task ids,
// progress lines, error mapping and the read-only view of the engine's database.

#include "KXBatchRunner.h"
#include "KXCommandLine.h"
#include "KXProgressPrinter.h"
#include "KXRemoteMeta.h"
#include "KXTaskDatabase.h"
#include "KXTransferRunner.h"
#include "ServerApiTypes.h"

#include <QSqlDatabase>
#include <QSqlQuery>
#include <QTemporaryDir>
#include <QtTest>

#include <cstdio>
#include <cstdlib>

namespace {

// Everything a printer wrote into an in-memory stream.
class CapturedStream
{
public:
    CapturedStream() : m_file(open_memstream(&m_data, &m_size)) {}
    ~CapturedStream()
    {
        std::fclose(m_file);
        std::free(m_data);
    }
    FILE* file() const { return m_file; }
    QByteArray text()
    {
        std::fflush(m_file);
        return QByteArray(m_data, static_cast<int>(m_size));
    }

private:
    char* m_data = nullptr;
    size_t m_size = 0;
    FILE* m_file;
};

bool exec(QSqlDatabase& db, const QString& sql)
{
    QSqlQuery query(db);
    return query.exec(sql);
}

QString taskJson(bool upload, const QString& local, const QString& remote, int errorCode,
                 const QString& error)
{
    return QStringLiteral("{\"is_upload\":%1,\"error_code\":%2,\"error_info\":\"%3\",\"data_server\":\"\","
                          "\"vault_file\":{\"path\":\"%4\"},\"local_file\":{\"path\":\"%5\"}}")
        .arg(upload ? "true" : "false")
        .arg(errorCode)
        .arg(error, remote, local);
}

} // namespace

class TestKXTransferTool : public QObject
{
    Q_OBJECT

private slots:
    void rates_data();
    void rates();
    void optionsFallBackToEnvironment();
    void taskIdsFollowEveryPart();
    void downloadsKeepExistingFiles();
    void targetAlreadyHoldsSource_data();
    void targetAlreadyHoldsSource();
    void codeNames();
    void progressText();
    void printerModes();
    void serverErrorsMapLikeTheEngine();
    void databaseView();
    void databaseAbsentOrEmpty();
};

void TestKXTransferTool::rates_data()
{
    QTest::addColumn<QString>("text");
    QTest::addColumn<bool>("valid");
    QTest::addColumn<qint64>("bytes");
    QTest::newRow("plain") << "2000000" << true << qint64(2000000);
    QTest::newRow("zero") << "0" << true << qint64(0);
    QTest::newRow("kilo lower") << "512k" << true << qint64(524288);
    QTest::newRow("mega") << "10M" << true << qint64(10485760);
    QTest::newRow("fraction MiB") << "1.5MiB" << true << qint64(1572864);
    QTest::newRow("per second") << "10MB/s" << true << qint64(10485760);
    QTest::newRow("giga") << "1G" << true << qint64(1073741824);
    QTest::newRow("word") << "fast" << false << qint64(0);
    QTest::newRow("negative") << "-1M" << false << qint64(0);
    QTest::newRow("unit") << "10X" << false << qint64(0);
    QTest::newRow("empty") << "" << false << qint64(0);
    QTest::newRow("exponent") << "1e3" << false << qint64(0);
    QTest::newRow("huge") << "99999999G" << false << qint64(0);
}

void TestKXTransferTool::rates()
{
    QFETCH(QString, text);
    QFETCH(bool, valid);
    QFETCH(qint64, bytes);
    qint64 parsed = -7;
    QCOMPARE(CKXCommandLine::parseRate(text, parsed), valid);
    if (valid) {
        QCOMPARE(parsed, bytes);
    }
}

void TestKXTransferTool::optionsFallBackToEnvironment()
{
    QProcessEnvironment env;
    env.insert(QStringLiteral("KX_SERVER"), QStringLiteral("http://env:1"));
    env.insert(QStringLiteral("KX_TOKEN"), QStringLiteral("env-token"));

    CKXCommandLine fromEnv;
    QVERIFY(fromEnv.parse({"kxtransfer", "download", "/r", "l"}, env));
    QCOMPARE(fromEnv.options().server, QStringLiteral("http://env:1"));
    QCOMPARE(fromEnv.options().token, QStringLiteral("env-token"));
    QCOMPARE(fromEnv.options().jobs, 4);
    QCOMPARE(fromEnv.options().limit, qint64(0));
    QCOMPARE(fromEnv.options().timeout, 0);
    QVERIFY(!fromEnv.options().overwrite && !fromEnv.options().quiet);

    CKXCommandLine fromFlags;
    QVERIFY(fromFlags.parse({"kxtransfer", "upload", "l", "/r", "--server", "https://flag:2", "--token", "t2",
                             "--jobs", "8", "--limit", "1M", "--overwrite", "-q", "--task-id", "{a.b}",
                             "--timeout", "5"},
                            env));
    const KXToolOptions& options = fromFlags.options();
    QCOMPARE(options.command, QStringLiteral("upload"));
    QCOMPARE(options.operands, QStringList({"l", "/r"}));
    QCOMPARE(options.server, QStringLiteral("https://flag:2"));
    QCOMPARE(options.token, QStringLiteral("t2"));
    QCOMPARE(options.jobs, 8);
    QCOMPARE(options.limit, qint64(1048576));
    QCOMPARE(options.timeout, 5);
    QVERIFY(options.overwrite && options.quiet);
    QCOMPARE(options.taskId, QStringLiteral("{a.b}"));
    QVERIFY(!options.isBatch());

    CKXCommandLine tree;
    QVERIFY(tree.parse({"kxtransfer", "upload", "-r", "dir", "/r/", "--transfers", "9"}, env));
    QVERIFY(tree.options().recursive && tree.options().isBatch());
    QCOMPARE(tree.options().transfers, 9);
    CKXCommandLine several;
    QVERIFY(several.parse({"kxtransfer", "share-download", "c1/a", "c2/b", "d/"}, env));
    QVERIFY(several.options().isBatch() && !several.options().recursive);

    // A plain address needs no server of the account.
    CKXCommandLine get;
    QVERIFY(get.parse({"kxtransfer", "get", "http://h/x", "x"}, QProcessEnvironment()));
    CKXCommandLine help;
    QVERIFY(help.parse({"kxtransfer", "--help"}, QProcessEnvironment()));
    QVERIFY(help.helpRequested());
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
    QVERIFY(dir.isValid());
    const auto touch = [&dir](const char* name) {
        QFile file(dir.filePath(QLatin1String(name)));
        return file.open(QIODevice::WriteOnly);
    };
    QCOMPARE(CKXTransferRunner::freeName(dir.filePath("new.bin")), dir.filePath("new.bin"));
    QVERIFY(touch("x.bin") && touch("x(1).bin"));
    QCOMPARE(CKXTransferRunner::freeName(dir.filePath("x.bin")), dir.filePath("x(2).bin"));
    QVERIFY(touch("a.tar.gz"));
    QCOMPARE(CKXTransferRunner::freeName(dir.filePath("a.tar.gz")), dir.filePath("a.tar(1).gz"));
    QVERIFY(touch("report"));
    QCOMPARE(CKXTransferRunner::freeName(dir.filePath("report")), dir.filePath("report(1)."));
}

void TestKXTransferTool::targetAlreadyHoldsSource_data()
{
    QTest::addColumn<qint64>("targetSize");
    QTest::addColumn<qint64>("targetTime");
    QTest::addColumn<qint64>("sourceSize");
    QTest::addColumn<qint64>("sourceTime");
    QTest::addColumn<bool>("holds");
    QTest::newRow("same size and time") << qint64(5) << qint64(100) << qint64(5) << qint64(100) << true;
    QTest::newRow("target newer") << qint64(5) << qint64(200) << qint64(5) << qint64(100) << true;
    QTest::newRow("source changed since") << qint64(5) << qint64(100) << qint64(5) << qint64(101) << false;
    QTest::newRow("other size") << qint64(6) << qint64(200) << qint64(5) << qint64(100) << false;
    QTest::newRow("time unknown: size decides") << qint64(5) << qint64(0) << qint64(5) << qint64(100) << true;
}

void TestKXTransferTool::targetAlreadyHoldsSource()
{
    QFETCH(qint64, targetSize);
    QFETCH(qint64, targetTime);
    QFETCH(qint64, sourceSize);
    QFETCH(qint64, sourceTime);
    QFETCH(bool, holds);
    QCOMPARE(CKXBatchRunner::alreadyThere(targetSize, targetTime, sourceSize, sourceTime), holds);
}

void TestKXTransferTool::codeNames()
{
    QCOMPARE(CKXTransferRunner::codeName(20004), QStringLiteral("TargetExists"));
    QCOMPARE(CKXTransferRunner::codeName(20110), QStringLiteral("RenameTmpFileError"));
    QCOMPARE(CKXTransferRunner::codeName(1001), QStringLiteral("Cancelled"));
    QCOMPARE(CKXTransferRunner::codeName(404), QStringLiteral("Http404"));
    QCOMPARE(CKXTransferRunner::codeName(7), QStringLiteral("TransportError"));
    QCOMPARE(CKXTransferRunner::codeName(65535), QStringLiteral("CreateBlocksError"));
    QCOMPARE(CKXTransferRunner::codeName(-3), QStringLiteral("Unknown"));

    KXTransferOutcome outcome;
    outcome.code = 20009;
    outcome.message = QStringLiteral("空间不足 请释放空间后再尝试下载");
    QCOMPARE(outcome.errorLine(), QStringLiteral("error 20009 NoSpace: 空间不足 请释放空间后再尝试下载"));
    QCOMPARE(outcome.exitCode(), 1);
    outcome.status = KXTransferOutcome::Paused;
    QCOMPARE(outcome.exitCode(), 130);
    outcome.status = KXTransferOutcome::Done;
    QCOMPARE(outcome.exitCode(), 0);
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
    CapturedStream terminal;
    CKXProgressPrinter onTerminal(CKXProgressPrinter::Terminal, terminal.file());
    onTerminal.begin(QStringLiteral("t.bin"), 100);
    onTerminal.update(100, 100);
    onTerminal.end();
    const QByteArray drawn = terminal.text();
    QVERIFY(drawn.startsWith("\rt.bin"));
    QVERIFY(drawn.contains("\033[K"));
    QVERIFY2(drawn.contains("100%") && drawn.endsWith("\n"),
             drawn.constData()); // held-back line shown at end
    QCOMPARE(drawn.count('\n'), 1);

    CapturedStream plain;
    CKXProgressPrinter onPlain(CKXProgressPrinter::Plain, plain.file());
    onPlain.begin(QStringLiteral("p.bin"), 100);
    for (int done = 1; done <= 100; ++done) {
        onPlain.update(done, 100); // far faster than one line a second
    }
    onPlain.end();
    const QList<QByteArray> lines = plain.text().split('\n');
    QCOMPARE(lines.size(), 3); // the first report, the last one, and the final line break
    QVERIFY(lines.at(0).contains("0%"));
    QVERIFY(lines.at(1).contains("100%"));
    QVERIFY(!plain.text().contains('\r'));

    CapturedStream quiet;
    CKXProgressPrinter onQuiet(CKXProgressPrinter::Quiet, quiet.file());
    onQuiet.begin(QStringLiteral("q.bin"), 100);
    onQuiet.update(100, 100);
    onQuiet.end();
    QVERIFY(quiet.text().isEmpty());
}

void TestKXTransferTool::serverErrorsMapLikeTheEngine()
{
    struct Case
    {
        int status;
        int library;
        QString body;
        int code;
        QString message;
    };
    const QList<Case> cases = {
        {404, 0, R"({"code":"nameentry_not_exist","message":"no such file: /a"})", 20005, "no such file: /a"},
        {401, 0, R"({"code":"Invalid session","message":"who"})", 20003, "who"},
        {401, 0, R"({"code":"invalid session","message":"who"})", 20001, "who"},
        {403, 0, R"({"code":"forbidden: escapes","message":"no"})", 20007, "no"},
        {403, 0, R"({"code":"download_file_VirusF","message":"virus"})", 20031, "virus"},
        {500, 0, "not json", 20001, "HTTP status 500"},
        {0, 7, "", 7, "Couldn't connect"},
    };
    for (const Case& c : cases) {
        ResponseData response;
        response.statusCode = c.status;
        response.errorCode = c.library;
        response.body = c.body;
        response.errorString = c.status == 0 ? QStringLiteral("Couldn't connect") : QString();
        QString message;
        QCOMPARE(CKXRemoteMeta::mapError(response, message), c.code);
        QCOMPARE(message, c.message);
    }
}

void TestKXTransferTool::databaseView()
{
    QTemporaryDir dir;
    QVERIFY(dir.isValid());
    const QString file = dir.filePath(QStringLiteral("transfer.db"));
    {
        QSqlDatabase db = QSqlDatabase::addDatabase(QStringLiteral("QSQLITE"), QStringLiteral("fixture"));
        db.setDatabaseName(file);
        QVERIFY(db.open());
        QVERIFY(exec(db,
                     "CREATE TABLE [transfer_v1] ([id] text PRIMARY KEY, [task_id] text, [state] integer, "
                     "[size] bigint, [send_size] bigint, [sub_task_info] text, [finger_mark] text, "
                     "[reserved1] text, [reserved2] text )"));
        QVERIFY(exec(db,
                     "CREATE TABLE [block_v1] ([id] text PRIMARY KEY, [sub_task_id] text, [state] integer, "
                     "[is_upload] integer, [sent] bigint, [total] bigint, [length] bigint, [loc] bigint, "
                     "[idx] integer, [hash] text, [sub_task_info] text, [is_quick_trans] integer, "
                     "[block_info] text, [reserved1] text )"));
        QSqlQuery insert(db);
        insert.prepare(
            "INSERT INTO transfer_v1 (id, state, size, send_size, sub_task_info) VALUES (?, ?, ?, ?, ?)");
        const QList<QVariantList> rows = {
            {"{up}", 8, 10000000, 123, taskJson(true, "/l/up.bin", "/r/up.bin", 0, "")},
            {"{down}", 32, 3000, 1000, taskJson(false, "/l/down.bin", "/r/down.bin", 20009, "空间不足")},
            {"{link}", 8, 5000, 0,
             taskJson(true, "/l/a.bin", "/in/a.bin", 0, "")
                 .replace("\"/in/a.bin\"}",
                          "\"/in/a.bin\",\"isDeliveryTrans\":true,\"delivery_code\":\"abc\"}")},
        };
        for (const QVariantList& row : rows) {
            for (const QVariant& value : row) {
                insert.addBindValue(value);
            }
            QVERIFY(insert.exec());
        }
        // Two finished blocks of the upload, one paused, one finished block of another task.
        QVERIFY(exec(db,
                     "INSERT INTO block_v1 (id, sub_task_id, state, length) VALUES "
                     "('b0', '{up}', 16, 4194304), ('b1', '{up}', 16, 4194304), ('b2', '{up}', 4, 1611392), "
                     "('c0', '{other}', 16, 5)"));
    }
    QSqlDatabase::removeDatabase(QStringLiteral("fixture"));

    CKXTaskDatabase view(file);
    QList<KXStoredTask> tasks;
    QString error;
    QVERIFY(view.tasks(tasks, error));
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
    QCOMPARE(up.localPath, QStringLiteral("/l/up.bin"));
    QCOMPARE(up.remotePath, QStringLiteral("/r/up.bin"));
    QCOMPARE(up.size, qint64(10000000));
    QCOMPARE(up.doneBytes, qint64(8388608)); // the finished blocks, not the stale saved count
    QCOMPARE(up.blocksDone, 2);

    KXStoredTask found;
    QVERIFY(view.find(QStringLiteral("{up}"), found));
    QCOMPARE(found.state, 8);
    QVERIFY(!view.find(QStringLiteral("{none}"), found));
    QVERIFY(!view.find(QStringLiteral("x' OR '1'='1"), found));

    QCOMPARE(CKXTaskDatabase::stateName(0), QStringLiteral("None"));
    QCOMPARE(CKXTaskDatabase::stateName(12), QStringLiteral("Working|Paused"));
    QCOMPARE(CKXTaskDatabase::stateName(160), QStringLiteral("Error|Stop"));
}

void TestKXTransferTool::databaseAbsentOrEmpty()
{
    QTemporaryDir dir;
    QVERIFY(dir.isValid());
    const QString missing = dir.filePath(QStringLiteral("none/transfer.db"));
    QList<KXStoredTask> tasks;
    QString error;
    {
        CKXTaskDatabase view(missing);
        QVERIFY(view.tasks(tasks, error));
        QVERIFY(tasks.isEmpty());
    }
    QVERIFY(!QFile::exists(missing)); // reading never creates the file

    const QString empty = dir.filePath(QStringLiteral("empty.db"));
    {
        QSqlDatabase db = QSqlDatabase::addDatabase(QStringLiteral("QSQLITE"), QStringLiteral("empty"));
        db.setDatabaseName(empty);
        QVERIFY(db.open());
        QVERIFY(exec(db, "CREATE TABLE other (x integer)"));
    }
    QSqlDatabase::removeDatabase(QStringLiteral("empty"));
    CKXTaskDatabase view(empty);
    QVERIFY(view.tasks(tasks, error));
    QVERIFY2(tasks.isEmpty() && error.isEmpty(), qPrintable(error));

    const QString garbage = dir.filePath(QStringLiteral("garbage.db"));
    QFile file(garbage);
    QVERIFY(file.open(QIODevice::WriteOnly));
    file.write(QByteArray(4096, 'x'));
    file.close();
    CKXTaskDatabase broken(garbage);
    QVERIFY(!broken.tasks(tasks, error));
    QVERIFY(!error.isEmpty());
}

QTEST_GUILESS_MAIN(TestKXTransferTool)
#include "tst_KXTransferTool.moc"
