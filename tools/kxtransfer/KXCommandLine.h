#pragma once

// The command line of kxtransfer: one command, its operands and the options, with the server
// address and token falling back to KX_SERVER and KX_TOKEN. parse() only reads and checks; it
// touches neither the engine nor the network. Plain value object, used on the main thread.

#include <QProcessEnvironment>
#include <QString>
#include <QStringList>

struct KXToolOptions
{
    QString command; // upload | download | share-upload | share-download | get | list | demo
    QStringList operands;
    QString server;
    QString token;
    int jobs = 4;
    qint64 limit = 0; // bytes per second, 0: unlimited
    int timeout = 0;  // seconds a silent server is given, 0: the server-API library's default
    bool overwrite = false;
    QString taskId;
    bool quiet = false;
    QString password;       // a share link's
    bool recursive = false; // -r: the operands name folder trees
    int transfers = 4;      // files moved at once by a command over several files

    // Several files or a tree in one call, rather than the one-file form.
    bool isBatch() const { return recursive || operands.size() > 2; }
};

class CKXCommandLine
{
public:
    // false: a usage error, described by errorText(). --help is not an error.
    bool parse(const QStringList& arguments, const QProcessEnvironment& env);
    bool helpRequested() const { return m_help; }
    const KXToolOptions& options() const { return m_options; }
    QString errorText() const { return m_error; }

    static QString usageText();
    // Where the engine keeps its database and logs under the current environment.
    static QString locationsText();

    // "10M", "512k", "1.5MiB", "2000000": bytes per second (K, M, G are powers of 1024).
    static bool parseRate(const QString& text, qint64& bytesPerSec);
    // "CODE" or "CODE/path/in/share": the link's code and the path inside it ("" when none).
    static bool splitShareLink(const QString& operand, QString& code, QString& path);

private:
    bool fail(const QString& message);
    bool checkOperands();
    bool checkServer(bool needToken);
    bool readNumbers(const QString& jobs, const QString& limit);
    bool readTransfers(const QString& transfers);
    // A whole number from 1 to `max` into `out`, or a failure "<wants> from 1 to <max>, got '<text>'".
    bool readCount(const QString& text, const QString& wants, int max, int& out);
    bool checkBatch();
    bool readTimeout(const QString& seconds);
    bool checkTaskId();

    KXToolOptions m_options;
    QString m_error;
    bool m_help = false;
};
