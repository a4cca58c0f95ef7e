#include "KXTFStoreManager.h"

#include "KXJsonConvert.h"
#include "KXLoggerWrapper.h"
#include "KXTransferDB.h"
#include "KXUtil.h"
#include "QtKXLogger.h"

#include <QDir>

#include <atomic>

namespace {

std::atomic<CKXTFStoreManager*> g_instance{nullptr};
QMutex g_instanceMutex; // serialises creating and destroying the instance

} // namespace

CKXTFStoreManager* CKXTFStoreManager::inst()
{
    CKXTFStoreManager* store = g_instance.load(std::memory_order_acquire);
    if (store != nullptr) {
        return store;
    }
    // Two first calls at once must not make two stores, one of which would be lost with its tasks.
    QMutexLocker lock(&g_instanceMutex);
    store = g_instance.load(std::memory_order_relaxed);
    if (store == nullptr) {
        store = new CKXTFStoreManager();
        g_instance.store(store, std::memory_order_release);
    }
    return store;
}

void CKXTFStoreManager::clear()
{
    QMutexLocker lock(&g_instanceMutex);
    delete g_instance.exchange(nullptr);
}

CKXTFStoreManager::~CKXTFStoreManager()
{
    m_tasks.clear();
    delete m_db;
    qDeleteAll(m_unconfiguredDbs);
    CKXLoggerWrapper::instTransfer()->close();
}

void CKXTFStoreManager::addTaskInfo(const SubTaskInfo& info)
{
    QMutexLocker lock(&m_mutex);
    m_tasks.insert(info.subTaskId, info);
}

bool CKXTFStoreManager::getTaskInfo(const QString& subTaskId, SubTaskInfo& out)
{
    TLOG_DEBUG(QStringLiteral("获取info %1").arg(subTaskId));
    SubTaskInfo found;
    {
        QMutexLocker lock(&m_mutex);
        auto it = m_tasks.constFind(subTaskId);
        if (it == m_tasks.constEnd()) {
            lock.unlock();
            TLOG_FATAL(QStringLiteral("获取不到对应的传输任务 subTaskId = %1").arg(subTaskId));
            return false;
        }
        found = it.value();
        // Forgotten under the same lock that found it, so two readers never both get it.
        if (found.state & StateCompleted) {
            m_tasks.remove(subTaskId);
        }
    }
    out = found;
    TLOG_DEBUG(
        QStringLiteral("remote path: %1 subTaskId: %2 state: %3 error code: %4 http code: %5 error msg: %6")
            .arg(found.remoteFile.path, found.subTaskId, QString::number(found.state),
                 QString::number(found.errorCode), QString::number(found.httpCode), found.errorInfo));
    if (found.state & StateCompleted) {
        forgetCompleted(found);
    }
    return true;
}

void CKXTFStoreManager::forgetCompleted(const SubTaskInfo& info)
{
    TLOG_FATAL(QStringLiteral("处理已完成任务 %1 %2").arg(info.subTaskId, info.remoteFile.path));
    CKXTransferDB* database = db();
    if (database != nullptr) {
        database->DelTransferTask(info.subTaskId);
        database->DelBlockTasks(info.subTaskId);
    }
    TLOG_FATAL(QStringLiteral("删除已完成 %1 %2").arg(info.subTaskId, info.remoteFile.path));
}

bool CKXTFStoreManager::destroyTaskInfo(const QString& subTaskId)
{
    QMutexLocker lock(&m_mutex);
    return m_tasks.remove(subTaskId) > 0;
}

QList<SubTaskInfo> CKXTFStoreManager::allTasks() const
{
    QMutexLocker lock(&m_mutex);
    return m_tasks.values();
}

QString CKXTFStoreManager::taskInfoJson(const SubTaskInfo& info) const
{
    QMutexLocker lock(&m_mutex);
    return CKXJsonConvert::SubTaskInfo2JsonString(info);
}

bool CKXTFStoreManager::taskInfoFormJson(const QString& json, SubTaskInfo& out) const
{
    QMutexLocker lock(&m_mutex);
    return CKXJsonConvert::JsonString2SubTaskInfo(json, out);
}

void CKXTFStoreManager::setMaxConcurrentCount(int count)
{
    QMutexLocker lock(&m_mutex);
    m_maxConcurrentCount = count;
}

int CKXTFStoreManager::maxConcurrentCount() const
{
    QMutexLocker lock(&m_mutex);
    return m_maxConcurrentCount;
}

void CKXTFStoreManager::setSecSpeedLimit(qint64 bytesPerSecond)
{
    QMutexLocker lock(&m_mutex);
    m_secSpeedLimit = bytesPerSecond;
}

qint64 CKXTFStoreManager::secSpeedLimit() const
{
    QMutexLocker lock(&m_mutex);
    return m_secSpeedLimit;
}

void CKXTFStoreManager::setDBPath(const QString& dir)
{
    QMutexLocker lock(&m_mutex);
    m_dbDir = dir;
}

QString CKXTFStoreManager::dbPath() const
{
    QMutexLocker lock(&m_mutex);
    return m_dbDir;
}

QString CKXTFStoreManager::databaseFilePath() const
{
    return databaseFileIn(dbPath());
}

QString CKXTFStoreManager::databaseFileIn(const QString& dir)
{
    QString path = dir;
    if (path.isEmpty()) {
        return QString();
    }
    if (!path.endsWith(QLatin1Char('/')) && !path.endsWith(QDir::separator())) {
        path += QDir::separator();
    }
    return path + QStringLiteral("transfer.db");
}

QString CKXTFStoreManager::userDbDir()
{
    return KXUtil::getUserPath(QStringLiteral("Transfer"));
}

CKXTransferDB* CKXTFStoreManager::db()
{
    QMutexLocker lock(&m_dbMutex);
    if (m_db != nullptr && m_db->dbPath().isEmpty() && !dbPath().isEmpty()) {
        m_unconfiguredDbs.append(m_db);
        m_db = nullptr;
    }
    if (m_db == nullptr) {
        m_db = new CKXTransferDB(databaseFilePath());
        m_db->init();
    }
    return m_db;
}

void CKXTFStoreManager::initLog(const QString& path, const QString& name)
{
    CKXLoggerWrapper* log = CKXLoggerWrapper::instTransfer();
    log->open();
    bool isNumber = false;
    const int level = name.toInt(&isNumber);
    const bool known = isNumber && level >= QtKXLogger::LevelDebug && level <= QtKXLogger::LevelFatal;
    log->setLevel(known ? level : QtKXLogger::LevelDebug);
    TLOG_INFO(QStringLiteral("初始化日志 %1 %2").arg(path, name));
}
