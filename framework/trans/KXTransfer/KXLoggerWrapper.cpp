#include "KXLoggerWrapper.h"

#include "QtKXLogger.h"

#include <QDir>
#include <QFileInfo>
#include <QStandardPaths>

namespace {

const char* const kModuleFiles[] = {
    "Login.log", "Main.log",     "Monitor.log",  "LocalEdit.log", "Cef.log",
    "Sync.log",  "TransMgr.log", "Transfer.log", "DB.log",        "Upgrade.log",
};

} // namespace

CKXLoggerWrapper* CKXLoggerWrapper::instTransfer()
{
    static CKXLoggerWrapper* wrapper = new CKXLoggerWrapper(Transfer);
    return wrapper;
}

CKXLoggerWrapper* CKXLoggerWrapper::instDB()
{
    static CKXLoggerWrapper* wrapper = new CKXLoggerWrapper(DB);
    return wrapper;
}

CKXLoggerWrapper::CKXLoggerWrapper(ModuleName module) : m_module(module)
{
    open();
}

QString CKXLoggerWrapper::logFolder()
{
    // The parent is taken from the path itself because QDir::cdUp refuses to leave a folder that
    // does not exist yet.
    const QString parent =
        QFileInfo(QStandardPaths::writableLocation(QStandardPaths::AppDataLocation)).absolutePath();
    return QDir(parent).absoluteFilePath(QStringLiteral("OrbalaData/Log"));
}

QString CKXLoggerWrapper::getLogPathName(ModuleName module)
{
    QString name;
    if (module >= Login && module <= Upgrade) {
        name = QString::fromLatin1(kModuleFiles[module]);
    }
    const QString folder = logFolder();
    QDir().mkpath(folder);
    return QDir(folder).absoluteFilePath(name);
}

QString CKXLoggerWrapper::formatMessage(const QString& message, const QString& fileName,
                                        const QString& function, int line)
{
    return QStringLiteral("[%1][%2][%3]: %4")
        .arg(QFileInfo(fileName).fileName(), function, QString::number(line), message);
}

void CKXLoggerWrapper::debug(const QString& message, const QString& sourceFile, const QString& function,
                             int line)
{
    QtKXLogger::debug(m_handle, formatMessage(message, sourceFile, function, line));
}

void CKXLoggerWrapper::information(const QString& message, const QString& sourceFile, const QString& function,
                                   int line)
{
    QtKXLogger::information(m_handle, formatMessage(message, sourceFile, function, line));
}

void CKXLoggerWrapper::error(const QString& message, const QString& sourceFile, const QString& function,
                             int line)
{
    QtKXLogger::error(m_handle, formatMessage(message, sourceFile, function, line));
}

void CKXLoggerWrapper::fatal(const QString& message, const QString& sourceFile, const QString& function,
                             int line)
{
    QtKXLogger::fatal(m_handle, formatMessage(message, sourceFile, function, line));
}

void CKXLoggerWrapper::open()
{
    if (m_handle != 0) {
        return;
    }
    const int handle = QtKXLogger::create(getLogPathName(m_module));
    QtKXLogger::init(handle);
    m_handle = handle;
}

void CKXLoggerWrapper::close()
{
    if (m_handle == 0) {
        return;
    }
    QtKXLogger::destroy(m_handle.exchange(0));
}

void CKXLoggerWrapper::setLevel(int level)
{
    QtKXLogger::setLevel(m_handle, static_cast<QtKXLogger::Level>(level));
}

QString kxLogSource(const char* file)
{
    // Sources are named by their path inside the repository, without the extension.
    QString path = QString::fromUtf8(file);
    const int framework = path.lastIndexOf(QLatin1String("framework/"));
    if (framework > 0) {
        path = path.mid(framework);
    }
    const int dot = path.lastIndexOf(QLatin1Char('.'));
    const int slash = path.lastIndexOf(QLatin1Char('/'));
    return dot > slash ? path.left(dot) : path;
}
