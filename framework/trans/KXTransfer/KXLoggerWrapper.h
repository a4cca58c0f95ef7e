#pragma once

// Turns a message plus its source position into one line "[file][function][line]: message" and
// hands it to QtKXLogger. One wrapper stands for one log file; the engine uses two, reached
// through instTransfer() ("Transfer.log") and instDB() ("DB.log"). Both are function-local
// statics that live until the process exits. The wrapper holds no lock: QtKXLogger is thread-safe.

#include <QString>

#include <atomic>

class CKXLoggerWrapper
{
public:
    enum ModuleName
    {
        Login = 0,
        Main = 1,
        Monitor = 2,
        LocalEdit = 3,
        Cef = 4,
        Sync = 5,
        TransMgr = 6,
        Transfer = 7,
        DB = 8,
        Upgrade = 9,
    };

    static CKXLoggerWrapper* instTransfer();
    static CKXLoggerWrapper* instDB();

    explicit CKXLoggerWrapper(ModuleName module);

    // The folder of every module's log file, beside the application-data folder. Not created.
    static QString logFolder();
    // The module's file in logFolder(), creating the folder.
    static QString getLogPathName(ModuleName module);
    static QString formatMessage(const QString& message, const QString& fileName, const QString& function,
                                 int line);

    void debug(const QString& message, const QString& sourceFile, const QString& function, int line);
    void information(const QString& message, const QString& sourceFile, const QString& function, int line);
    void error(const QString& message, const QString& sourceFile, const QString& function, int line);
    void fatal(const QString& message, const QString& sourceFile, const QString& function, int line);

    // The task store shuts the transfer log down with the engine and opens it again at the next
    // configuration; these two do that without replacing the wrapper object.
    void open();
    void close();
    void setLevel(int level);
    int handle() const { return m_handle.load(); }

private:
    ModuleName m_module;
    std::atomic<int> m_handle{0};
};

// The source path of the calling file without its extension, as log lines name their source.
QString kxLogSource(const char* file);

#define KX_LOG_AT(inst, level, msg)                                                                          \
    CKXLoggerWrapper::inst()->level((msg), kxLogSource(__FILE__), QString::fromLatin1(__func__), __LINE__)

// Where a log line is recorded as coming from. A helper that logs on behalf of its caller takes
// the caller's KX_LOG_HERE, so the line names the unit and function that asked for the work.
struct KXLogSite
{
    QString file;
    QString function;
    int line = 0;
};

#define KX_LOG_HERE                                                                                          \
    KXLogSite                                                                                                \
    {                                                                                                        \
        kxLogSource(__FILE__), QString::fromLatin1(__func__), __LINE__                                       \
    }

// Engine log ("Transfer.log").
#define TLOG_DEBUG(msg) KX_LOG_AT(instTransfer, debug, msg)
#define TLOG_INFO(msg) KX_LOG_AT(instTransfer, information, msg)
#define TLOG_ERROR(msg) KX_LOG_AT(instTransfer, error, msg)
#define TLOG_FATAL(msg) KX_LOG_AT(instTransfer, fatal, msg)
#define TLOG_FATAL_AT(site, msg)                                                                             \
    CKXLoggerWrapper::instTransfer()->fatal((msg), (site).file, (site).function, (site).line)

// Database log ("DB.log").
#define DBLOG_DEBUG(msg) KX_LOG_AT(instDB, debug, msg)
#define DBLOG_INFO(msg) KX_LOG_AT(instDB, information, msg)
#define DBLOG_ERROR(msg) KX_LOG_AT(instDB, error, msg)
#define DBLOG_FATAL(msg) KX_LOG_AT(instDB, fatal, msg)
