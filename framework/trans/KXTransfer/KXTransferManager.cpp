#include "KXTransferManager.h"

#include "KXLoggerWrapper.h"
#include "KXTFStoreManager.h"
#include "KXTransColletion.h"
#include "KXTransfer.h"
#include "KXTransferCreator.h"
#include "KXTransferHandler.h"
#include "KXTransferTask.h"
#include "KXUrlTransfer.h"

#include <QTime>

#include <random>
#include <vector>

CKXTransferManager* CKXTransferManager::m_inst = nullptr;

namespace {

// Guards only the creation and destruction of the singleton pointer, so that two first calls
// from different client threads cannot create two managers.
QMutex g_instMutex;

} // namespace

CKXTransferManager* CKXTransferManager::inst()
{
    QMutexLocker locker(&g_instMutex);
    if (!m_inst) {
        m_inst = new CKXTransferManager();
    }
    return m_inst;
}

CKXTransferManager* CKXTransferManager::existing()
{
    QMutexLocker locker(&g_instMutex);
    return m_inst;
}

void CKXTransferManager::clear()
{
    CKXTransferManager* manager = existing();
    if (!manager) {
        return;
    }
    // Stopped while it is still the singleton: the finishing thread reports every transfer it
    // deletes to it.
    manager->stopAll();
    {
        QMutexLocker locker(&g_instMutex);
        if (m_inst != manager) {
            return;
        }
        m_inst = nullptr;
    }
    // Deleted outside the lock: the finishing thread may still ask for the manager meanwhile.
    delete manager;
}

class CKXTransferManager::Use
{
public:
    Use(CKXTransferManager* manager, CKXTransfer* transfer) : m_manager(manager), m_transfer(transfer) {}
    Use(Use&& other) noexcept : m_manager(other.m_manager), m_transfer(other.m_transfer)
    {
        other.m_transfer = nullptr;
    }
    ~Use()
    {
        if (!m_transfer) {
            return;
        }
        QMutexLocker locker(&m_manager->m_mutex);
        if (--m_manager->m_inUse[m_transfer] == 0) {
            m_manager->m_inUse.remove(m_transfer);
            m_manager->m_unused.wakeAll();
        }
    }
    CKXTransfer* operator->() const { return m_transfer; }
    CKXTransfer* get() const { return m_transfer; }
    explicit operator bool() const { return m_transfer != nullptr; }

private:
    CKXTransferManager* m_manager;
    CKXTransfer* m_transfer;
};

CKXTransferManager::Use CKXTransferManager::use(long long handle, bool remove)
{
    QMutexLocker locker(&m_mutex);
    auto it = m_transfers.find(handle);
    if (it == m_transfers.end()) {
        return Use(this, nullptr);
    }
    CKXTransfer* transfer = it.value();
    if (remove) {
        m_transfers.erase(it);
    }
    ++m_inUse[transfer];
    return Use(this, transfer);
}

void CKXTransferManager::retire(CKXTransfer* transfer)
{
    QMutexLocker locker(&m_mutex);
    while (m_inUse.contains(transfer)) {
        m_unused.wait(&m_mutex);
    }
    if (m_started.remove(transfer)) {
        m_retired.wakeAll();
    }
}

void CKXTransferManager::stopAll()
{
    std::vector<Use> running;
    {
        QMutexLocker locker(&m_mutex);
        // Transfers never started are neither stopped nor deleted.
        m_transfers.clear();
        // Marked in use, so that none of them is deleted while it is being cancelled.
        for (CKXTransfer* transfer : qAsConst(m_started)) {
            ++m_inUse[transfer];
            running.emplace_back(this, transfer);
        }
    }
    for (const Use& transfer : running) {
        transfer->cancelTask();
    }
    running.clear();
    QMutexLocker locker(&m_mutex);
    while (!m_started.isEmpty()) {
        m_retired.wait(&m_mutex);
    }
}

CKXTransferManager::CKXTransferManager() : QObject(nullptr)
{
    qRegisterMetaType<CKXTransfer*>("CKXTransfer*");
    m_handler = new CKXTransferHandler();
    m_handler->start(QThread::InheritPriority);
    while (!m_handler->isRunning()) {
        QThread::msleep(10);
    }
}

CKXTransferManager::~CKXTransferManager()
{
    {
        QMutexLocker locker(&m_mutex);
        m_transfers.clear();
    }
    // Without the interruption request the handler's run() would enter its loop again.
    m_handler->cancel();
    m_handler->end();
    delete m_handler;
}

long long CKXTransferManager::makeTransfer(const SubTaskInfo& task, TransferErrorCallback errorCallback,
                                           TransferProgressCallback progressCallback)
{
    return initTransfer(CKXTransferCreator::transfer(task), errorCallback, progressCallback);
}

long long CKXTransferManager::makeUrlTransfer(const SubTaskInfo& task, TransferErrorCallback errorCallback,
                                              TransferProgressCallback progressCallback)
{
    return initTransfer(new CKXUrlTransfer(task, nullptr, nullptr), errorCallback, progressCallback);
}

long long CKXTransferManager::initTransfer(CKXTransfer* transfer, TransferErrorCallback errorCallback,
                                           TransferProgressCallback progressCallback)
{
    if (!transfer) {
        return 0;
    }
    connect(transfer, &CKXTransfer::threadFinished, m_handler->getTransCollection(),
            &CKXTransColletion::transferFinished);
    const long long handle = createTransferHandle(transfer);
    transfer->setHandle(handle);
    transfer->setCallback(errorCallback, progressCallback);
    CKXTFStoreManager::inst()->addTaskInfo(transfer->transferTask()->getSubTaskInfo());
    return handle;
}

long long CKXTransferManager::createTransferHandle(CKXTransfer* transfer)
{
    QMutexLocker locker(&m_mutex);
    // Seeded from the clock on every call; a handle in use is drawn again.
    const QTime now = QTime::currentTime();
    std::minstd_rand generator(static_cast<unsigned>(now.second() * 1000 + now.msec()) + 1u);
    std::uniform_int_distribution<long long> draw(0, 2147483647);
    long long handle = draw(generator);
    while (m_transfers.contains(handle)) {
        handle = draw(generator);
    }
    m_transfers.insert(handle, transfer);
    TLOG_FATAL(QStringLiteral("生成传输handle %1").arg(handle));
    return handle;
}

CKXTransfer* CKXTransferManager::getTransfer(long long handle, bool remove)
{
    QMutexLocker locker(&m_mutex);
    auto it = m_transfers.find(handle);
    if (it == m_transfers.end()) {
        return nullptr;
    }
    CKXTransfer* transfer = it.value();
    if (remove) {
        m_transfers.erase(it);
    }
    return transfer;
}

void CKXTransferManager::destoryTransfer(long long handle)
{
    QMutexLocker locker(&m_mutex);
    if (m_transfers.remove(handle) > 0) {
        TLOG_FATAL(QStringLiteral("移除任务 %1").arg(handle));
    } else {
        TLOG_FATAL(QStringLiteral("没有找到任务 %1").arg(handle));
    }
}

void CKXTransferManager::start(long long handle)
{
    const Use transfer = use(handle, false);
    if (transfer) {
        TLOG_FATAL(QStringLiteral("开始任务 %1").arg(handle));
        {
            QMutexLocker locker(&m_mutex);
            m_started.insert(transfer.get());
        }
        transfer->start(QThread::InheritPriority);
    }
}

void CKXTransferManager::cancel(long long handle)
{
    const Use transfer = use(handle, true);
    if (transfer) {
        TLOG_FATAL(QStringLiteral("取消任务 %1").arg(handle));
        transfer->cancelTask();
    }
}

void CKXTransferManager::del(long long handle)
{
    const Use transfer = use(handle, false);
    if (transfer) {
        TLOG_FATAL(QStringLiteral("删除任务 %1").arg(handle));
        transfer->del();
    }
}

int CKXTransferManager::transferCount()
{
    QMutexLocker locker(&m_mutex);
    return m_transfers.size();
}

void CKXTransferManager::transferFinished(long long handle, CKXTransfer* transfer)
{
    TLOG_FATAL(QStringLiteral("传输完成从队列中删除 %1").arg(handle));
    transfer->end();
    destoryTransfer(handle);
}
