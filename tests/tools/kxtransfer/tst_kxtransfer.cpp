// kxtransfer run as a user runs it: a separate process, its exit status and what it prints,
// against a real kxserver; and from inside, the parts that decide what the user sees: rates, task
// ids, progress lines, error names and mapping, and the read-only view of the engine's database.

#include "KXBatchRunner.h"
#include "KXCommandLine.h"
#include "KXNginxProcess.h"
#include "KXProgressPrinter.h"
#include "KXRemoteMeta.h"
#include "KXServerProcess.h"
#include "KXSilentServer.h"
#include "KXTaskDatabase.h"
#include "KXTestData.h"
#include "KXTestSql.h"
#include "KXTransferRunner.h"
#include "ServerApiTypes.h"

#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QJsonObject>
#include <QProcess>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QtTest>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <sys/stat.h>
#include <unistd.h>

namespace {

struct ToolRun
{
    int exitCode = -1;
    QString out;
    QString err;
};

const qint64 kResumeFileSize = 12 * 1024 * 1024 + 4321; // 4 blocks, the last one short

const QString kTool = QStringLiteral(KX_BIN_DIR "/kxtransfer");

// Every file under root by its path relative to root, with its SHA-256.
QMap<QString, QString> treeDigest(const QString& root)
{
    QMap<QString, QString> digest;
    QDirIterator it(root, QDir::Files | QDir::Hidden, QDirIterator::Subdirectories);
    while (it.hasNext()) {
        const QString path = it.next();
        digest.insert(QDir(root).relativeFilePath(path), sha256Hex(readFile(path)));
    }
    return digest;
}

// Nested folders of files of the sizes that take different paths through the engine: empty,
// small, exactly one block, and a few in several blocks; names with spaces and odd characters.
int makeTree(const QString& root, int smallFiles, int largeFiles)
{
    static const QStringList folders{".", "a", "a/b c", "a/b c/ü-ñ", "d#e%f", "d#e%f/g+h&i"};
    static const QStringList names{"plain.txt", "two words.bin", "ünï çødé.dat", "100%&+#.x", ".hidden"};
    int made = 0;
    auto add = [&](const QString& name, qint64 size) {
        const QString folder = folders.at(made % folders.size());
        QDir(root).mkpath(folder);
        made += writeFile(QDir(root).filePath(folder + "/" + name), randomBytes(size, made + 1)) ? 1 : 0;
    };
    add(QStringLiteral("empty"), 0);
    add(QStringLiteral("one block.bin"), 4 * 1024 * 1024);
    for (int i = 0; i < largeFiles; ++i) {
        add(QStringLiteral("large-%1.bin").arg(i), 4 * 1024 * 1024 + 1 + i * 1500000);
    }
    for (int i = 0; made < smallFiles + largeFiles + 2; ++i) {
        add(QStringLiteral("%1 %2").arg(i).arg(names.at(i % names.size())), (i * 7919) % 70000 + 1);
    }
    return made;
}

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

class TestKXTransferCommand : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void argumentErrors_data();
    void argumentErrors();
    void failuresPrintOneErrorLine();
    void interruptedUploadResumes();
    void concurrentDownloadsOfOneTarget();
    void getFetchesPlainAddress();
    void shareLinksBothWays();
    void treeRoundTrip();
    void interruptedTreeResumes();

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

private:
    QProcessEnvironment environment(bool withServer) const;
    ToolRun run(const QStringList& args, bool withServer = true) const;
    // The one error line of a run that failed (exit 1), or what the run did instead.
    QString failureLine(const QStringList& args, bool withServer = true) const;
    // Starts `command` and, once its output so far is `enough`, interrupts it as Ctrl-C does: the
    // run must pause (exit 130) and say how to resume. Empty when it did, else what happened.
    QString interrupt(const QStringList& command, const std::function<bool(const QString&)>& enough) const;

    QTemporaryDir m_dir;
    KXServerProcess m_server;
};

void TestKXTransferCommand::initTestCase()
{
    QVERIFY(m_dir.isValid());
    QVERIFY(QFileInfo(kTool).isExecutable());
    QVERIFY2(m_server.start(), qPrintable(m_server.errorString()));
}

QProcessEnvironment TestKXTransferCommand::environment(bool withServer) const
{
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert(QStringLiteral("XDG_DATA_HOME"), m_dir.filePath(QStringLiteral("data")));
    env.remove(QStringLiteral("KX_SERVER"));
    env.remove(QStringLiteral("KX_TOKEN"));
    if (withServer) {
        env.insert(QStringLiteral("KX_SERVER"), m_server.baseUrl());
        env.insert(QStringLiteral("KX_TOKEN"), m_server.token());
    }
    return env;
}

ToolRun TestKXTransferCommand::run(const QStringList& args, bool withServer) const
{
    QProcess process;
    process.setProcessEnvironment(environment(withServer));
    process.setWorkingDirectory(m_dir.path());
    process.start(kTool, args);
    ToolRun result;
    if (!process.waitForFinished(120000) || process.exitStatus() != QProcess::NormalExit) {
        process.kill();
        process.waitForFinished();
        return result;
    }
    result.exitCode = process.exitCode();
    result.out = QString::fromLocal8Bit(process.readAllStandardOutput());
    result.err = QString::fromLocal8Bit(process.readAllStandardError());
    return result;
}

QString TestKXTransferCommand::failureLine(const QStringList& args, bool withServer) const
{
    const ToolRun result = run(args + QStringList{"-q"}, withServer);
    const QStringList lines = result.err.split(QLatin1Char('\n'), Qt::SkipEmptyParts);
    return result.exitCode == 1 && lines.size() == 1
               ? lines.first()
               : QStringLiteral("exit %1: %2").arg(result.exitCode).arg(result.err);
}

QString TestKXTransferCommand::interrupt(const QStringList& command,
                                         const std::function<bool(const QString&)>& enough) const
{
    QProcess first;
    first.setProcessEnvironment(environment(true));
    first.start(kTool, command);
    QString progress;
    const auto readEnough = [&] {
        progress += QString::fromLocal8Bit(first.readAllStandardOutput());
        return enough(progress);
    };
    if (!QTest::qWaitFor(readEnough, 60000)) {
        return QStringLiteral("not far enough: ") + progress;
    }
    ::kill(static_cast<pid_t>(first.processId()), SIGINT);
    const bool paused =
        first.waitForFinished(60000) && first.exitStatus() == QProcess::NormalExit && first.exitCode() == 130;
    const QString err = QString::fromLocal8Bit(first.readAllStandardError());
    return paused && err.contains(QLatin1String("Run the same command again")) ? QString() : err;
}

// A refused command line exits 2 with its reason and the usage on stderr; --help prints the usage,
// and where the data lives, on stdout and exits 0.
void TestKXTransferCommand::argumentErrors_data()
{
    QTest::addColumn<QStringList>("args");
    QTest::addColumn<bool>("withServer");
    QTest::addColumn<QString>("message");

    // Without a server and token in the environment when `withServer` is false.
    const auto row = [](const char* tag, const QStringList& args, const QString& message,
                        bool withServer = true) {
        QTest::newRow(tag) << args << withServer << message;
    };
    row("help", {"--help"}, QDir(m_dir.filePath("data")).filePath("Transfer/transfer.db"));
    row("no command", {}, "no command given");
    row("unknown command", {"fly", "a", "b"}, "unknown command 'fly'");
    row("missing operand", {"upload", "a.bin"}, "'upload' takes 2 operand(s), got 1");
    row("operand too many", {"list", "x"}, "'list' takes 0 operand(s), got 1");
    row("no server", {"download", "/a", "a"}, "no server", false);
    row("no token, https", {"upload", "a", "/a", "--server", "https://127.0.0.1:1"}, "no token", false);
    row("not http", {"upload", "a", "/a", "--server", "ftp://h", "--token", "t"},
        "not an http:// or https:// address", false);
    row("jobs text", {"upload", "a", "/a", "--jobs", "many"}, "--jobs wants");
    row("limit text", {"upload", "a", "/a", "--limit", "fast"}, "--limit wants");
    row("timeout zero", {"download", "/a", "a", "--timeout", "0"}, "--timeout wants");
    row("task id quote", {"upload", "a", "/a", "--task-id", "it's"}, "--task-id wants");
    row("unknown option", {"list", "--fast"}, "Unknown option 'fast'");
    row("share link", {"share-download", "no.such/a", "a"}, "'no.such/a' is not a share link");
    row("share no server", {"share-upload", "a", "code/"}, "no server", false);
    row("transfers zero", {"upload", "a", "b", "/c/", "--transfers", "0"}, "--transfers wants");
    row("share tree download", {"share-download", "-r", "code/", "d/"}, "a share link cannot list a folder");
    row("several, one missing", {"upload", ".", "no-such-file", "/c/", "-r"},
        "no such file or folder: no-such-file");
    row("folder without -r", {"upload", ".", ".", "/c/"}, "give -r");
    row("task id for many", {"upload", "-r", ".", "/c/", "--task-id", "x"}, "--task-id names one");
}

void TestKXTransferCommand::argumentErrors()
{
    QFETCH(QStringList, args);
    QFETCH(bool, withServer);
    QFETCH(QString, message);
    const ToolRun result = run(args, withServer);
    const bool help = args.contains(QLatin1String("--help"));
    QCOMPARE(result.exitCode, help ? 0 : 2);
    const QString& text = help ? result.out : result.err;
    QVERIFY2(text.contains(message) && text.contains(QLatin1String("Usage:")), qPrintable(text));
    QVERIFY(!help || text.contains(QLatin1String("Transfer.log")));
    QVERIFY((help ? result.err : result.out).isEmpty());
}

void TestKXTransferCommand::failuresPrintOneErrorLine()
{
    const QString local = m_dir.filePath(QStringLiteral("small.bin"));
    QVERIFY(writeFile(local, randomBytes(2000, 7)));
    QCOMPARE(run({"upload", local, "/errors/small.bin", "-q"}).exitCode, 0);
    // A web server at the address: its page is no metadata.
    QTemporaryDir site;
    QVERIFY(QDir(site.path()).mkpath(QStringLiteral("v1")));
    for (const char* page : {"v1/metadata", "v1/files"}) {
        QVERIFY(writeFile(site.filePath(page), "<html><body>Welcome</body></html>"));
    }
    KXNginxProcess web;
    QVERIFY2(web.start(site.path()), qPrintable(web.errorString()));
    KXSilentServer silent;
    QVERIFY(silent.isListening());
    const QString underFile = local + QStringLiteral("/under.bin");

    // Each command and the start of its one error line.
    const QList<QPair<QStringList, QString>> cases = {
        {{"upload", m_dir.filePath("missing.bin"), "/errors/m.bin"}, "error 20106 LocalFileError: "},
        {{"upload", local, "/errors/small.bin"}, "error 20004 TargetExists: "},
        {{"download", "/errors/none.bin", m_dir.filePath("none.bin")}, "error 20005 SourceNotFound: "},
        {{"download", "/errors", m_dir.filePath("dir.bin")}, "error 20019 ConflictWithFolder: "},
        {{"upload", local, "/errors/t.bin", "--token", "wrong"}, "error 20003 SessionInvalid: "},
        {{"download", "/errors/small.bin", underFile},
         "error 20106 LocalFileError: 创建文件失败: " + underFile + ": Not a directory"},
        {{"download", "/errors/small.bin", m_dir.filePath("page.bin"), "--server", web.baseUrl()},
         "error 20001 ServerError: the answer about /errors/small.bin is not the server's metadata"},
        // Bounded by run(): retries must not multiply the silent period.
        {{"download", "/errors/silent.bin", m_dir.filePath("silent.bin"), "--server", silent.baseUrl(),
          "--timeout", "1"},
         "error 28 TransportError: "},
        {{"get", silent.baseUrl() + "/silent.bin", m_dir.filePath("silent-get.bin"), "--timeout", "1"},
         "error 28 TransportError: "},
        {{"get", m_server.baseUrl() + "/v1/raw/self/errors/small.bin", m_dir.filePath("refused-get.bin")},
         "error 20003 SessionInvalid: "},
    };
    for (const auto& c : cases) {
        const QString line = failureLine(c.first);
        QVERIFY2(line.startsWith(c.second), qPrintable(line));
    }
    for (const char* name : {"none.bin", "page.bin", "silent.bin", "silent-get.bin", "refused-get.bin"}) {
        QVERIFY2(!QFile::exists(m_dir.filePath(name)), name);
    }
    // None of these left anything to resume.
    const ToolRun list = run({"list"});
    QCOMPARE(list.exitCode, 0);
    QVERIFY2(list.out.startsWith(QLatin1String("no unfinished transfers")), qPrintable(list.out));
}

void TestKXTransferCommand::interruptedUploadResumes()
{
    const QString local = m_dir.filePath(QStringLiteral("resume.bin"));
    const QByteArray content = randomBytes(kResumeFileSize, 11);
    QVERIFY(writeFile(local, content));
    // Slow and one block at a time, so that the interrupt falls after the first block is in.
    static const QRegularExpression someDone(QStringLiteral("\\b([4-9]\\d|100)%"));
    const QStringList command{"upload", local, "/resume/resume.bin", "--limit", "8M", "--jobs", "1"};
    const QString paused = interrupt(command, [](const QString& out) { return out.contains(someDone); });
    QVERIFY2(paused.isEmpty(), qPrintable(paused));
    QCOMPARE(m_server.getFile(QStringLiteral("/resume/resume.bin")).status, 404);

    const ToolRun list = run({"list"});
    QCOMPARE(list.exitCode, 0);
    QVERIFY2(list.out.contains(QLatin1String("Paused")) && list.out.contains(local), qPrintable(list.out));

    QVERIFY(m_server.resetStats());
    const ToolRun second = run(command);
    QVERIFY2(second.exitCode == 0, qPrintable(second.err));
    const qint64 resent =
        static_cast<qint64>(m_server.stats().value(QStringLiteral("block_bytes")).toDouble());
    QVERIFY2(resent > 0 && resent <= kResumeFileSize - 4 * 1024 * 1024, qPrintable(QString::number(resent)));

    QCOMPARE(sha256Hex(m_server.getFile(QStringLiteral("/resume/resume.bin")).body), sha256Hex(content));
    const ToolRun after = run({"list"});
    QVERIFY2(after.out.startsWith(QLatin1String("no unfinished transfers")), qPrintable(after.out));
}

// The same download run twice at once, each run with a data folder of its own (so with one task
// id): after every round the target is the source, and a run that did not write it says why.
void TestKXTransferCommand::concurrentDownloadsOfOneTarget()
{
    const QString source = m_dir.filePath(QStringLiteral("twice.src"));
    const QByteArray content = randomBytes(3 * 4 * 1024 * 1024 - 5, 31);
    QVERIFY(writeFile(source, content));
    QCOMPARE(run({"upload", source, "/twice/big.bin", "-q"}).exitCode, 0);
    const QString target = m_dir.filePath(QStringLiteral("twice.bin"));
    const QStringList command{"download", "/twice/big.bin", target, "--overwrite", "--jobs", "2", "-q"};
    for (int round = 0; round < 10; ++round) {
        QProcess runs[2];
        for (int i = 0; i < 2; ++i) {
            QProcessEnvironment env = environment(true);
            env.insert(QStringLiteral("XDG_DATA_HOME"), m_dir.filePath(QStringLiteral("data-%1").arg(i)));
            runs[i].setProcessEnvironment(env);
            runs[i].start(kTool, command);
        }
        int written = 0;
        for (QProcess& process : runs) {
            QVERIFY(process.waitForFinished(120000));
            const QString err = QString::fromLocal8Bit(process.readAllStandardError());
            if (process.exitCode() == 0) {
                ++written;
                continue;
            }
            QCOMPARE(process.exitCode(), 1);
            QVERIFY2(err.startsWith(QStringLiteral("error 20106 LocalFileError: 创建文件失败: ") + target),
                     qPrintable(err));
        }
        QVERIFY(written > 0);
        QVERIFY2(sha256Hex(readFile(target)) == sha256Hex(content),
                 qPrintable(QStringLiteral("round %1").arg(round)));
    }
    const QStringList left = QDir(m_dir.path()).entryList({QStringLiteral("twice.bin.*")}, QDir::Files);
    QVERIFY2(left.isEmpty(), qPrintable(left.join(QLatin1Char(' '))));
}

void TestKXTransferCommand::getFetchesPlainAddress()
{
    const QString local = m_dir.filePath(QStringLiteral("plain.bin"));
    const QByteArray content = randomBytes(300000, 23);
    QVERIFY(writeFile(local, content));
    QCOMPARE(run({"upload", local, "/plain/plain.bin", "-q"}).exitCode, 0);

    const QString address =
        QStringLiteral("%1/v1/raw/self/plain/plain.bin?session=%2").arg(m_server.baseUrl(), m_server.token());
    const QString fetched = m_dir.filePath(QStringLiteral("fetched.bin"));
    const ToolRun result = run({"get", address, fetched}, false);
    QVERIFY2(result.exitCode == 0, qPrintable(result.err));
    QCOMPARE(sha256Hex(readFile(fetched)), sha256Hex(content));

    // Downloading onto the fetched file keeps it and says where the copy went.
    const ToolRun beside = run({"download", "/plain/plain.bin", fetched});
    QCOMPARE(beside.exitCode, 0);
    const QString numbered = m_dir.filePath(QStringLiteral("fetched(1).bin"));
    QVERIFY2(beside.out.contains(QStringLiteral("-> ") + numbered), qPrintable(beside.out));
    QCOMPARE(run({"download", "/plain/plain.bin", fetched, "--overwrite", "-q"}).exitCode, 0);
    QVERIFY(!QFile::exists(m_dir.filePath(QStringLiteral("fetched(2).bin"))));
}

// Through a folder link with a password (in blocks; whole files are the engine's own rows), both
// ways, without the account's token; a file link names no path. A refused link's answer to the
// size query ends in one mapped error line.
void TestKXTransferCommand::shareLinksBothWays()
{
    const QString code = m_server.createShare(QStringLiteral("/drop"), true, QStringLiteral("pw"));
    QVERIFY(!code.isEmpty());
    const QString server = m_server.baseUrl();
    const QByteArray large = randomBytes(kResumeFileSize / 3, 32); // two blocks
    const QString largePath = m_dir.filePath(QStringLiteral("link-large.bin"));
    QVERIFY(writeFile(largePath, large));
    const QStringList link{"--server", server, "--password", "pw", "-q"};

    // No path: into the share's top folder.
    const ToolRun up = run(QStringList{"share-upload", largePath, code} + link, false);
    QVERIFY2(up.exitCode == 0, qPrintable(up.err));
    QCOMPARE(sha256Hex(m_server.getFile(QStringLiteral("/drop/link-large.bin")).body), sha256Hex(large));

    const QString back = m_dir.filePath(QStringLiteral("link-back")) + QLatin1Char('/');
    const ToolRun down = run(QStringList{"share-download", code + "/link-large.bin", back} + link, false);
    QVERIFY2(down.exitCode == 0, qPrintable(down.err));
    QCOMPARE(sha256Hex(readFile(back + QStringLiteral("link-large.bin"))), sha256Hex(large));

    // A link to the one file: no path, and the link's code names the copy in a folder.
    const QString fileLink = m_server.createShare(QStringLiteral("/drop/link-large.bin"));
    QVERIFY(!fileLink.isEmpty());
    QCOMPARE(run({"share-download", fileLink, back, "--server", server, "-q"}, false).exitCode, 0);
    QCOMPARE(sha256Hex(readFile(back + fileLink)), sha256Hex(large));

    const QString line = failureLine({"share-download", code + "/link-large.bin", back + "x.bin",
                                      "--password", "wrong", "--server", server},
                                     false);
    QVERIFY2(line.startsWith(QLatin1String("error 20003 SessionInvalid: ")), qPrintable(line));
    QVERIFY(!QFile::exists(back + QStringLiteral("x.bin")));
}

// A tree up with -r, back with -r into an empty folder: the same names and contents. An entry
// that cannot be read is named once and fails alone; the rest of the tree goes.
void TestKXTransferCommand::treeRoundTrip()
{
    const QString tree = m_dir.filePath(QStringLiteral("round/tree"));
    const int files = makeTree(tree, 20, 1);
    const QMap<QString, QString> sent = treeDigest(tree);
    QCOMPARE(sent.size(), files);
    const QString locked = tree + QStringLiteral("/a/locked.bin");
    // Permission bits do not stop root; a pipe cannot be read as a file by anyone.
    if (::geteuid() == 0) {
        QCOMPARE(::mkfifo(QFile::encodeName(locked).constData(), 0600), 0);
    } else {
        QVERIFY(writeFile(locked, "secret"));
        QVERIFY(QFile::setPermissions(locked, QFileDevice::WriteOwner));
    }
    const ToolRun up = run({"upload", "-r", tree, "/round/", "--transfers", "6"});
    QCOMPARE(up.exitCode, 1);
    QCOMPARE(up.err.count(locked), 1);
    QVERIFY2(up.err.contains(QStringLiteral("error 20106 LocalFileError: ") + locked + ": cannot be read"),
             qPrintable(up.err));
    QVERIFY2(up.err.contains(QStringLiteral("sent %1 of %2 files").arg(files).arg(files + 1)) &&
                 up.err.contains(QStringLiteral("failed 1")),
             qPrintable(up.err));

    const QString back = m_dir.filePath(QStringLiteral("round-back"));
    const ToolRun down = run({"download", "-r", "/round/tree/", back + "/", "-q"});
    QVERIFY2(down.exitCode == 0, qPrintable(down.err));
    QCOMPARE(treeDigest(back + QStringLiteral("/tree")), sent);
}

// Ctrl-C in the middle of a tree: the second run sends only what the first did not finish.
void TestKXTransferCommand::interruptedTreeResumes()
{
    const QString tree = m_dir.filePath(QStringLiteral("paused/tree"));
    const int files = makeTree(tree, 12, 1);
    const QStringList command{"upload", "-r", tree, "/paused/", "--limit", "2M", "--transfers", "2"};
    const QRegularExpression someDone(QStringLiteral("\\b([1-9]\\d*)/%1 files").arg(files));
    const QString paused = interrupt(command, [&](const QString& out) { return out.contains(someDone); });
    QVERIFY2(paused.isEmpty(), qPrintable(paused));

    int finished = 0;
    for (const QString& path : treeDigest(tree).keys()) {
        finished += m_server.getFile("/paused/tree/" + path).status == 200 ? 1 : 0;
    }
    QVERIFY2(finished > 0 && finished < files, qPrintable(QString::number(finished)));

    QVERIFY(m_server.resetStats());
    const ToolRun second = run(command.mid(0, 4));
    QVERIFY2(second.exitCode == 0, qPrintable(second.err));
    QVERIFY2(second.out.contains(QStringLiteral("skipped %1 already there").arg(finished)),
             qPrintable(second.out));
    const QJsonObject stats = m_server.stats();
    QCOMPARE(stats.value(QStringLiteral("file_uploads")).toInt() +
                 stats.value(QStringLiteral("commits")).toInt(),
             files - finished);
    QCOMPARE(run({"download", "-r", "/paused/tree", m_dir.filePath("paused-back"), "-q"}).exitCode, 0);
    QCOMPARE(treeDigest(m_dir.filePath(QStringLiteral("paused-back/tree"))), treeDigest(tree));

    // Once all is there, a run asks the server once per folder, not once per file.
    QVERIFY(m_server.resetStats());
    const ToolRun third = run(command.mid(0, 4));
    QVERIFY2(third.out.contains(QStringLiteral("skipped %1 already there").arg(files)),
             qPrintable(third.out));
    QCOMPARE(m_server.stats().value(QStringLiteral("requests")).toInt(), 6); // makeTree's folders
}

void TestKXTransferCommand::rates_data()
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

void TestKXTransferCommand::rates()
{
    QFETCH(QString, text);
    QFETCH(qint64, bytes);
    qint64 parsed = -7;
    QCOMPARE(CKXCommandLine::parseRate(text, parsed), bytes >= 0);
    if (bytes >= 0) {
        QCOMPARE(parsed, bytes);
    }
}

void TestKXTransferCommand::taskIdsFollowEveryPart()
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

void TestKXTransferCommand::downloadsKeepExistingFiles()
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

void TestKXTransferCommand::targetAlreadyHoldsSource_data()
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

void TestKXTransferCommand::targetAlreadyHoldsSource()
{
    QFETCH(qint64, targetSize);
    QFETCH(qint64, targetTime);
    QFETCH(qint64, sourceTime);
    QFETCH(bool, holds);
    QCOMPARE(CKXBatchRunner::alreadyThere(targetSize, targetTime, 5, sourceTime), holds);
}

// Names of the engine's codes that no failing run of the command prints, and of the codes the tool
// adds; the libcurl range is failuresPrintOneErrorLine's silent-server rows.
void TestKXTransferCommand::codeNames()
{
    const QList<QPair<int, QString>> names = {
        {20007, "Forbidden"}, {20009, "NoSpace"}, {20110, "RenameTmpFileError"},
        {1001, "Cancelled"},  {404, "Http404"},   {65535, "CreateBlocksError"},
        {-3, "Unknown"}};
    for (const auto& name : names) {
        QCOMPARE(CKXTransferRunner::codeName(name.first), name.second);
    }
}

void TestKXTransferCommand::progressText()
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

void TestKXTransferCommand::printerModes()
{
    const QByteArray terminal = drawn(CKXProgressPrinter::Terminal, 1);
    QVERIFY(terminal.startsWith("\rt.bin") && terminal.contains("\033[K"));
    // The line held back by the rate limit is shown at the end.
    QVERIFY2(terminal.contains("100%") && terminal.endsWith("\n"), terminal.constData());
    QCOMPARE(terminal.count('\n'), 1);

    // Far faster than one line a second: the first report, the last one, and the final line break.
    const QByteArray plain = drawn(CKXProgressPrinter::Plain, 100);
    const QList<QByteArray> lines = plain.split('\n');
    QCOMPARE(lines.size(), 3);
    QVERIFY(lines.at(0).contains("0%") && lines.at(1).contains("100%"));
    QVERIFY(!plain.contains('\r'));
    QVERIFY(drawn(CKXProgressPrinter::Quiet, 1).isEmpty());
}

void TestKXTransferCommand::serverErrorsMapLikeTheEngine_data()
{
    QTest::addColumn<int>("status");
    QTest::addColumn<QString>("body");
    QTest::addColumn<int>("code");
    QTest::addColumn<QString>("message");
    QTest::newRow("session") << 401 << R"({"code":"Invalid session","message":"who"})" << 20003 << "who";
    QTest::newRow("session, lower case")
        << 401 << R"({"code":"invalid session","message":"who"})" << 20001 << "who";
    QTest::newRow("forbidden") << 403 << R"({"code":"forbidden: escapes","message":"no"})" << 20007 << "no";
    QTest::newRow("virus") << 403 << R"({"code":"download_file_VirusF","message":"virus"})" << 20031
                           << "virus";
    QTest::newRow("not json") << 500 << "not json" << 20001 << "HTTP status 500";
}

void TestKXTransferCommand::serverErrorsMapLikeTheEngine()
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
void TestKXTransferCommand::databaseView()
{
    QTemporaryDir dir;
    const QString file = dir.filePath(QStringLiteral("transfer.db"));
    QVERIFY(sqlExec(file,
                    "CREATE TABLE [transfer_v1] ([id] text PRIMARY KEY, [task_id] text, [state] integer, "
                    "[size] bigint, [send_size] bigint, [sub_task_info] text, [finger_mark] text, "
                    "[reserved1] text, [reserved2] text )"));
    QVERIFY(sqlExec(file,
                    "CREATE TABLE [block_v1] ([id] text PRIMARY KEY, [sub_task_id] text, [state] integer, "
                    "[is_upload] integer, [sent] bigint, [total] bigint, [length] bigint, [loc] bigint, "
                    "[idx] integer, [hash] text, [sub_task_info] text, [is_quick_trans] integer, "
                    "[block_info] text, [reserved1] text )"));
    const QString link = R"("path":"/in/a.bin","isDeliveryTrans":true,"delivery_code":"abc")";
    const QString failed = R"("error_code":20009,"error_info":"空间不足",)";
    QVERIFY(sqlExec(file, "INSERT INTO transfer_v1 (id, state, size, send_size, sub_task_info) VALUES " +
                              taskRow("{up}", 8, 10000000, 123, true, "", R"("path":"/r/up.bin")") + ", " +
                              taskRow("{down}", 32, 3000, 1000, false, failed, R"("path":"/r/down.bin")") +
                              ", " + taskRow("{link}", 8, 5000, 0, true, "", link)));
    // Two finished blocks of the upload, one paused, one finished block of another task.
    QVERIFY(sqlExec(file, "INSERT INTO block_v1 (id, sub_task_id, state, length) VALUES ('b0', '{up}', 16, "
                          "4194304), ('b1', '{up}', 16, 4194304), ('b2', '{up}', 4, 1611392), "
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
    QCOMPARE(up.doneBytes, qint64(8388608)); // the finished blocks, not the stale saved count
    QCOMPARE(up.blocksDone, 2);

    KXStoredTask found;
    QVERIFY(view.find(QStringLiteral("{up}"), found));
    QCOMPARE(found.state, 8);
    QCOMPARE(found.blocksDone, 2); // its own blocks, not another task's
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
        QVERIFY(!CKXTaskDatabase(absent).find(QStringLiteral("{up}"), found));
    }
    QVERIFY(!QFile::exists(missing));
    const QString garbage = dir.filePath(QStringLiteral("garbage.db"));
    QVERIFY(writeFile(garbage, QByteArray(4096, 'x')));
    QVERIFY(!CKXTaskDatabase(garbage).tasks(tasks, error));
    QVERIFY(!error.isEmpty());
}

QTEST_GUILESS_MAIN(TestKXTransferCommand)
#include "tst_kxtransfer.moc"
