#include "KXCommandLine.h"

#include "KXTaskDatabase.h"
#include "ServerApiConfig.h"

#include <QCommandLineParser>
#include <QHash>
#include <QRegularExpression>

namespace {

const int kMaxJobs = 64;
const int kMaxTransfers = 64;
const int kMaxTimeoutSec = 3600;

// Operands each command takes; the transfer commands take at least that many.
const QHash<QString, int>& operandCounts()
{
    static const QHash<QString, int> counts = {
        {QStringLiteral("upload"), 2},
        {QStringLiteral("download"), 2},
        {QStringLiteral("get"), 2},
        {QStringLiteral("list"), 0},
        {QStringLiteral("demo"), 0},
        {QStringLiteral("share-upload"), 2},
        {QStringLiteral("share-download"), 2},
    };
    return counts;
}

} // namespace

QString CKXCommandLine::usageText()
{
    const QString text = QStringLiteral(
        "Usage:\n"
        "  kxtransfer upload LOCAL REMOTE     send a local file to the server (REMOTE: full path, or a\n"
        "                                     folder ending in '/')\n"
        "  kxtransfer upload LOCAL... REMOTE/ send several files into one remote folder\n"
        "  kxtransfer upload -r DIR... REMOTE/\n"
        "                                     send folder trees; REMOTE/DIR/... keeps their layout\n"
        "  kxtransfer download REMOTE LOCAL   fetch a file from the server\n"
        "  kxtransfer download REMOTE... LOCALDIR/\n"
        "                                     fetch several files into one local folder\n"
        "  kxtransfer download -r REMOTE/... LOCALDIR/\n"
        "                                     fetch remote folder trees into LOCALDIR/<name>/...\n"
        "  kxtransfer share-upload LOCAL LINK[/PATH]\n"
        "                                     send a local file into a share link's folder (PATH:\n"
        "                                     full path inside the share, or a folder ending in '/';\n"
        "                                     none: the share's top folder); several LOCALs or -r\n"
        "                                     as for upload\n"
        "  kxtransfer share-download LINK[/PATH] LOCAL\n"
        "                                     fetch a file through a share link (no PATH for a link\n"
        "                                     to one file); several files as for download (share\n"
        "                                     links cannot list a folder, so no -r)\n"
        "  kxtransfer get URL LOCAL           fetch a plain http(s) address\n"
        "  kxtransfer list                    unfinished transfers kept in the database\n"
        "  kxtransfer demo                    start a private server and show everything at work\n"
        "\n"
        "Options:\n"
        "  --server URL     server address (default: $KX_SERVER)\n"
        "  --token T        session token (default: $KX_TOKEN; share links need none)\n"
        "  --password P     a share link's password\n"
        "  --jobs N         blocks in flight for files over 4 MiB (default 4)\n"
        "  -r, --recursive  the operands are folders: move their whole trees\n"
        "  --transfers N    files moved at once by a command over several files (default 4)\n"
        "  --limit RATE     bandwidth cap per direction, e.g. 500K, 10M (default: none)\n"
        "  --timeout S      give up on a server that sends nothing for S seconds (default %1)\n"
        "  --overwrite      replace an existing target instead of failing (upload) or\n"
        "                   saving under a numbered name (download)\n"
        "  --task-id ID     name the transfer yourself (default: derived from the arguments,\n"
        "                   so running the same command again resumes it)\n"
        "  --quiet          no progress output\n"
        "  -h, --help       this text\n"
        "\n"
        "Ctrl-C pauses a transfer; run the same command again to resume it. Over several files,\n"
        "a file whose target already holds it (same size, not older) is skipped.\n"
        "Exit status: 0 done, 1 transfer failed (over several files: any failed), 2 bad\n"
        "arguments, 130 paused by Ctrl-C.\n");
    return text.arg(ServerApi::Config().lowSpeedTimeSec);
}

QString CKXCommandLine::locationsText()
{
    return QStringLiteral("Database: %1\n"
                          "Logs:     %2 (Transfer.log, DB.log)\n"
                          "Both follow $XDG_DATA_HOME (default ~/.local/share).\n")
        .arg(CKXTaskDatabase::databaseFile(), CKXTaskDatabase::logFolder());
}

bool CKXCommandLine::parseRate(const QString& text, qint64& bytesPerSec)
{
    static const QRegularExpression pattern(
        QStringLiteral("^(\\d+(?:\\.\\d+)?)\\s*([kKmMgG]?)(?:i?[bB])?(?:/s)?$"));
    const QRegularExpressionMatch match = pattern.match(text.trimmed());
    if (!match.hasMatch()) {
        return false;
    }
    double value = match.captured(1).toDouble();
    const QString unit = match.captured(2).toUpper();
    if (unit == QLatin1String("K")) {
        value *= 1024.0;
    } else if (unit == QLatin1String("M")) {
        value *= 1024.0 * 1024.0;
    } else if (unit == QLatin1String("G")) {
        value *= 1024.0 * 1024.0 * 1024.0;
    }
    if (value > 1e15) {
        return false;
    }
    bytesPerSec = static_cast<qint64>(value);
    return true;
}

bool CKXCommandLine::fail(const QString& message)
{
    m_error = message;
    return false;
}

bool CKXCommandLine::parse(const QStringList& arguments, const QProcessEnvironment& env)
{
    QCommandLineParser parser;
    parser.setSingleDashWordOptionMode(QCommandLineParser::ParseAsLongOptions);
    const QCommandLineOption help({QStringLiteral("h"), QStringLiteral("help")}, QString());
    const QCommandLineOption server(QStringLiteral("server"), QString(), QStringLiteral("URL"));
    const QCommandLineOption token(QStringLiteral("token"), QString(), QStringLiteral("T"));
    const QCommandLineOption jobs(QStringLiteral("jobs"), QString(), QStringLiteral("N"),
                                  QStringLiteral("4"));
    const QCommandLineOption limit(QStringLiteral("limit"), QString(), QStringLiteral("RATE"),
                                   QStringLiteral("0"));
    const QCommandLineOption overwrite(QStringLiteral("overwrite"), QString());
    const QCommandLineOption taskId(QStringLiteral("task-id"), QString(), QStringLiteral("ID"));
    const QCommandLineOption quiet({QStringLiteral("q"), QStringLiteral("quiet")}, QString());
    const QCommandLineOption password(QStringLiteral("password"), QString(), QStringLiteral("P"));
    const QCommandLineOption recursive({QStringLiteral("r"), QStringLiteral("recursive")}, QString());
    const QCommandLineOption transfers(QStringLiteral("transfers"), QString(), QStringLiteral("N"),
                                       QStringLiteral("4"));
    const QCommandLineOption timeout(QStringLiteral("timeout"), QString(), QStringLiteral("S"));
    parser.addOptions({help, server, token, jobs, limit, overwrite, taskId, quiet, password, recursive,
                       transfers, timeout});
    if (!parser.parse(arguments)) {
        return fail(parser.errorText());
    }
    m_help = parser.isSet(help);
    if (m_help) {
        return true;
    }
    const QStringList positional = parser.positionalArguments();
    if (positional.isEmpty()) {
        return fail(QStringLiteral("no command given"));
    }
    m_options.command = positional.first();
    m_options.operands = positional.mid(1);
    m_options.server = parser.isSet(server) ? parser.value(server) : env.value(QStringLiteral("KX_SERVER"));
    m_options.token = parser.isSet(token) ? parser.value(token) : env.value(QStringLiteral("KX_TOKEN"));
    m_options.overwrite = parser.isSet(overwrite);
    m_options.quiet = parser.isSet(quiet);
    m_options.taskId = parser.value(taskId);
    m_options.password = parser.value(password);
    m_options.recursive = parser.isSet(recursive);
    return checkOperands() && readNumbers(parser.value(jobs), parser.value(limit)) &&
           readTransfers(parser.value(transfers)) &&
           (!parser.isSet(timeout) || readTimeout(parser.value(timeout))) &&
           (!parser.isSet(taskId) || checkTaskId()) && checkBatch();
}

bool CKXCommandLine::checkOperands()
{
    const QString& command = m_options.command;
    if (!operandCounts().contains(command)) {
        return fail(QStringLiteral("unknown command '%1'").arg(command));
    }
    const int wanted = operandCounts().value(command);
    const bool variadic = wanted == 2 && command != QLatin1String("get");
    if (m_options.operands.size() < wanted || (!variadic && m_options.operands.size() > wanted)) {
        return fail(QStringLiteral("'%1' takes %2 operand(s), got %3")
                        .arg(command)
                        .arg(wanted)
                        .arg(m_options.operands.size()));
    }
    for (const QString& operand : m_options.operands) {
        if (operand.isEmpty()) {
            return fail(QStringLiteral("empty operand for '%1'").arg(command));
        }
    }
    if (command == QLatin1String("upload") || command == QLatin1String("download")) {
        return checkServer(true);
    }
    if (command.startsWith(QLatin1String("share-"))) {
        const bool upload = command == QLatin1String("share-upload");
        const QStringList links = upload ? m_options.operands.mid(m_options.operands.size() - 1)
                                         : m_options.operands.mid(0, m_options.operands.size() - 1);
        for (const QString& link : links) {
            QString code;
            QString path;
            if (!splitShareLink(link, code, path)) {
                return fail(QStringLiteral("'%1' is not a share link: give CODE or CODE/path").arg(link));
            }
        }
        return checkServer(false);
    }
    return true;
}

bool CKXCommandLine::checkServer(bool needToken)
{
    if (m_options.server.isEmpty()) {
        return fail(QStringLiteral("no server: give --server URL or set KX_SERVER"));
    }
    if (!m_options.server.startsWith(QLatin1String("http://")) &&
        !m_options.server.startsWith(QLatin1String("https://"))) {
        return fail(
            QStringLiteral("server '%1' is not an http:// or https:// address").arg(m_options.server));
    }
    if (needToken && m_options.token.isEmpty()) {
        return fail(QStringLiteral("no token: give --token T or set KX_TOKEN"));
    }
    return true;
}

bool CKXCommandLine::splitShareLink(const QString& operand, QString& code, QString& path)
{
    static const QRegularExpression link(QStringLiteral("^([A-Za-z0-9_-]{1,64})(/.*)?$"));
    const QRegularExpressionMatch match = link.match(operand);
    if (!match.hasMatch()) {
        return false;
    }
    code = match.captured(1);
    path = match.captured(2);
    return true;
}

bool CKXCommandLine::readNumbers(const QString& jobs, const QString& limit)
{
    if (!readCount(jobs, QStringLiteral("--jobs wants a number"), kMaxJobs, m_options.jobs)) {
        return false;
    }
    if (!parseRate(limit, m_options.limit)) {
        return fail(QStringLiteral("--limit wants a rate such as 500K or 10M, got '%1'").arg(limit));
    }
    return true;
}

bool CKXCommandLine::readTransfers(const QString& transfers)
{
    return readCount(transfers, QStringLiteral("--transfers wants a number"), kMaxTransfers,
                     m_options.transfers);
}

bool CKXCommandLine::readCount(const QString& text, const QString& wants, int max, int& out)
{
    bool ok = false;
    out = text.toInt(&ok);
    if (!ok || out < 1 || out > max) {
        return fail(QStringLiteral("%1 from 1 to %2, got '%3'").arg(wants).arg(max).arg(text));
    }
    return true;
}

bool CKXCommandLine::checkBatch()
{
    if (!m_options.isBatch()) {
        return true;
    }
    const QString& command = m_options.command;
    if (command != QLatin1String("upload") && command != QLatin1String("download") &&
        !command.startsWith(QLatin1String("share-"))) {
        return fail(QStringLiteral("'%1' moves one file at a time").arg(command));
    }
    if (m_options.recursive && command == QLatin1String("share-download")) {
        return fail(QStringLiteral("a share link cannot list a folder: name its files one by one"));
    }
    if (!m_options.taskId.isEmpty()) {
        return fail(QStringLiteral("--task-id names one transfer; several files get one each"));
    }
    return true;
}

bool CKXCommandLine::readTimeout(const QString& seconds)
{
    return readCount(seconds, QStringLiteral("--timeout wants seconds"), kMaxTimeoutSec, m_options.timeout);
}

bool CKXCommandLine::checkTaskId()
{
    static const QRegularExpression allowed(QStringLiteral("^[A-Za-z0-9{}._:@+=-]{1,128}$"));
    if (!allowed.match(m_options.taskId).hasMatch()) {
        return fail(QStringLiteral("--task-id wants 1 to 128 letters, digits or {}._:@+=-, got '%1'")
                        .arg(m_options.taskId));
    }
    return true;
}
