#include "KXDemo.h"

#include "KXDemoServer.h"
#include "KXEngine.h"
#include "KXTaskDatabase.h"
#include "KXTransferRunner.h"

#include <QCryptographicHash>
#include <QDir>
#include <QFile>
#include <QRandomGenerator>
#include <QTemporaryDir>
#include <QVector>

#include <cstdio>

namespace {

const qint64 kSmallSize = 100 * 1024 + 37;  // a little over 100 KiB: whole-file, odd length
const qint64 kLargeSize = 64 * 1024 * 1024; // 16 blocks
const qint64 kWriteChunk = 1024 * 1024;
const int kDemoJobs = 4;

void say(const QString& text)
{
    std::fputs(text.toLocal8Bit().constData(), stdout);
    std::fputc('\n', stdout);
    std::fflush(stdout);
}

QString pad(const QString& text, int width)
{
    return width < 0 ? text.rightJustified(-width) : text.leftJustified(width);
}

qint64 counter(const QJsonObject& stats, const char* key)
{
    return static_cast<qint64>(stats.value(QLatin1String(key)).toDouble());
}

QString blocksText(const CKXDemo::Step& step)
{
    if (step.blocks == 0) {
        return QStringLiteral("whole file");
    }
    if (step.blocksSent < 0) {
        return QStringLiteral("%1 blocks").arg(step.blocks);
    }
    return QStringLiteral("%1 sent, %2 skipped").arg(step.blocksSent).arg(step.blocks - step.blocksSent);
}

QByteArray fileSha256(const QString& path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) {
        return QByteArray();
    }
    QCryptographicHash hash(QCryptographicHash::Sha256);
    hash.addData(&file);
    return hash.result();
}

struct Plan
{
    KXTransferJob::Kind kind;
    QString local;
    QString remote;
    QString title;
    QByteArray expectedSha; // downloads: the source's hash
    bool expectQuick;
};

} // namespace

CKXDemo::CKXDemo(CKXProgressPrinter::Mode mode) : m_mode(mode) {}

void CKXDemo::fail(const QString& message)
{
    std::fprintf(stderr, "demo: %s\n", message.toLocal8Bit().constData());
    std::fflush(stderr);
}

int CKXDemo::run()
{
    QTemporaryDir temp(QDir::temp().filePath(QStringLiteral("kxtransfer-demo-XXXXXX")));
    if (!temp.isValid()) {
        fail(QStringLiteral("cannot make a temporary folder: %1").arg(temp.errorString()));
        return 1;
    }
    // The engine keeps its database and logs under XDG_DATA_HOME: a private one keeps the
    // user's own transfers out of the demo and the demo's out of them.
    const bool hadXdg = qEnvironmentVariableIsSet("XDG_DATA_HOME");
    const QByteArray oldXdg = qgetenv("XDG_DATA_HOME");
    qputenv("XDG_DATA_HOME", temp.filePath(QStringLiteral("engine")).toLocal8Bit());
    const int code = runIn(temp.path());
    if (hadXdg) {
        qputenv("XDG_DATA_HOME", oldXdg);
    } else {
        qunsetenv("XDG_DATA_HOME");
    }
    return code;
}

int CKXDemo::runIn(const QString& base)
{
    const QDir dir(base);
    for (const char* sub : {"server", "engine", "files", "logs"}) {
        dir.mkpath(QLatin1String(sub));
    }
    const QString binary = CKXDemoServer::findBinary();
    if (binary.isEmpty()) {
        fail(QStringLiteral("kxserver not found beside kxtransfer, in the build tree or on PATH"));
        return 1;
    }
    CKXDemoServer server;
    QString error;
    if (!server.start(binary, dir.filePath(QStringLiteral("server")), dir.filePath(QStringLiteral("logs")),
                      error)) {
        fail(error);
        return 1;
    }
    say(QStringLiteral("kxserver at %1, everything under %2").arg(server.baseUrl(), base));
    CKXEngine::setUp({server.baseUrl(), server.token(), kDemoJobs, 0});

    const QString small = dir.filePath(QStringLiteral("files/small.bin"));
    const QString large = dir.filePath(QStringLiteral("files/large.bin"));
    QByteArray smallSha;
    QByteArray largeSha;
    if (!makeFile(small, kSmallSize, 1, smallSha) || !makeFile(large, kLargeSize, 2, largeSha)) {
        CKXEngine::shutDown();
        return 1;
    }
    say(QStringLiteral("made small.bin (%1) and large.bin (%2) of random bytes")
            .arg(CKXProgressPrinter::formatBytes(kSmallSize), CKXProgressPrinter::formatBytes(kLargeSize)));

    const QVector<Plan> plans = {
        {KXTransferJob::Upload,
         small,
         QStringLiteral("/demo/small.bin"),
         QStringLiteral("upload small.bin"),
         {},
         false},
        {KXTransferJob::Upload,
         large,
         QStringLiteral("/demo/large.bin"),
         QStringLiteral("upload large.bin"),
         {},
         false},
        {KXTransferJob::Download, dir.filePath(QStringLiteral("files/small.back")),
         QStringLiteral("/demo/small.bin"), QStringLiteral("download small.bin"), smallSha, false},
        {KXTransferJob::Download, dir.filePath(QStringLiteral("files/large.back")),
         QStringLiteral("/demo/large.bin"), QStringLiteral("download large.bin"), largeSha, false},
        {KXTransferJob::Upload,
         large,
         QStringLiteral("/demo/large-copy.bin"),
         QStringLiteral("upload large-copy.bin"),
         {},
         true},
        {KXTransferJob::Download, dir.filePath(QStringLiteral("files/large-copy.back")),
         QStringLiteral("/demo/large-copy.bin"), QStringLiteral("download large-copy.bin"), largeSha, false},
    };

    CKXProgressPrinter printer(m_mode);
    CKXTransferRunner runner(printer);
    bool allOk = true;
    for (const Plan& plan : plans) {
        Step step;
        step.title = plan.title;
        KXTransferJob job;
        job.kind = plan.kind;
        job.local = plan.local;
        job.remote = plan.remote;
        job.server = server.baseUrl();
        say(QStringLiteral("\n%1").arg(plan.title));
        bool ok = transfer(server, runner, job, step);
        if (ok && plan.kind == KXTransferJob::Download) {
            ok = verify(plan.local, plan.expectedSha, step);
        }
        if (ok && plan.expectQuick) {
            ok = step.quick && step.blocksSent == 0;
            step.check = ok ? QStringLiteral("quick transfer") : QStringLiteral("NOT a quick transfer");
        }
        step.ok = ok;
        m_steps.append(step);
        if (!ok) {
            allOk = false;
            break;
        }
    }
    m_busy = runner.threadsBusy();
    say(QStringLiteral("\n") + summaryTable(m_steps));
    if (!m_busy) {
        CKXEngine::shutDown();
    }
    server.stop();
    if (m_paused) {
        say(QStringLiteral("demo interrupted"));
        return 130;
    }
    say(allOk ? QStringLiteral("demo passed: every byte verified") : QStringLiteral("demo FAILED"));
    return allOk ? 0 : 1;
}

bool CKXDemo::makeFile(const QString& path, qint64 size, quint32 seed, QByteArray& sha256)
{
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate)) {
        fail(QStringLiteral("cannot write %1: %2").arg(path, file.errorString()));
        return false;
    }
    QRandomGenerator random(seed);
    QCryptographicHash hash(QCryptographicHash::Sha256);
    QVector<quint32> words(static_cast<int>(kWriteChunk / 4));
    for (qint64 written = 0; written < size;) {
        random.fillRange(words.data(), words.size());
        const qint64 length = qMin(kWriteChunk, size - written);
        const char* bytes = reinterpret_cast<const char*>(words.constData());
        hash.addData(bytes, static_cast<int>(length));
        if (file.write(bytes, length) != length) {
            fail(QStringLiteral("cannot write %1: %2").arg(path, file.errorString()));
            return false;
        }
        written += length;
    }
    sha256 = hash.result();
    return true;
}

bool CKXDemo::transfer(CKXDemoServer& server, CKXTransferRunner& runner, const KXTransferJob& job, Step& step)
{
    QString error;
    if (!server.resetStats(error)) {
        fail(QStringLiteral("server counters: %1").arg(error));
        return false;
    }
    const KXTransferOutcome outcome = runner.run(job);
    step.size = outcome.size;
    step.ms = outcome.elapsedMs;
    step.quick = outcome.quick;
    const qint64 blockSize = CKXTaskDatabase::blockSize();
    step.blocks = outcome.chunked ? static_cast<int>((outcome.size + blockSize - 1) / blockSize) : 0;
    if (outcome.status == KXTransferOutcome::Paused) {
        m_paused = true;
        step.check = QStringLiteral("paused");
        return false;
    }
    if (outcome.status == KXTransferOutcome::Failed) {
        fail(outcome.errorLine());
        step.check = QStringLiteral("error %1").arg(outcome.code);
        return false;
    }
    QJsonObject stats;
    if (!server.stats(stats, error)) {
        fail(QStringLiteral("server counters: %1").arg(error));
        return false;
    }
    if (job.kind == KXTransferJob::Upload) {
        step.wireBytes = counter(stats, "block_bytes") + counter(stats, "file_upload_bytes");
        step.blocksSent = step.blocks > 0 ? static_cast<int>(counter(stats, "block_uploads")) : -1;
        step.check = QStringLiteral("stored");
    } else {
        step.wireBytes = counter(stats, "download_bytes");
    }
    return true;
}

bool CKXDemo::verify(const QString& path, const QByteArray& expected, Step& step)
{
    const bool same = !expected.isEmpty() && fileSha256(path) == expected;
    step.check = same ? QStringLiteral("SHA-256 ok") : QStringLiteral("SHA-256 MISMATCH");
    if (!same) {
        fail(QStringLiteral("%1 differs from its source").arg(path));
    }
    return same;
}

QString CKXDemo::summaryTable(const QList<Step>& steps)
{
    const QList<QPair<QString, int>> columns = {
        {QStringLiteral("step"), 24},         {QStringLiteral("size"), -10},
        {QStringLiteral("time"), -8},         {QStringLiteral("throughput"), -12},
        {QStringLiteral("on the wire"), -12}, {QStringLiteral("blocks"), 20},
        {QStringLiteral("check"), 0}};
    QStringList lines;
    QStringList header;
    for (const auto& column : columns) {
        header << pad(column.first, column.second);
    }
    lines << header.join(QStringLiteral("  "));
    for (const Step& step : steps) {
        const double seconds = qMax<qint64>(step.ms, 1) / 1000.0;
        const bool moved = step.wireBytes >= 0; // the transfer itself went through
        const QStringList cells = {
            step.title,
            CKXProgressPrinter::formatBytes(step.size),
            moved ? QStringLiteral("%1 s").arg(seconds, 0, 'f', 2) : QStringLiteral("-"),
            moved ? CKXProgressPrinter::formatBytes(static_cast<qint64>(step.size / seconds)) +
                        QStringLiteral("/s")
                  : QStringLiteral("-"),
            step.wireBytes < 0 ? QStringLiteral("-") : CKXProgressPrinter::formatBytes(step.wireBytes),
            blocksText(step),
            step.check,
        };
        QStringList row;
        for (int i = 0; i < columns.size(); ++i) {
            row << pad(cells.at(i), columns.at(i).second);
        }
        lines << row.join(QStringLiteral("  "));
    }
    return lines.join(QLatin1Char('\n'));
}
