#include "KXTFBaseThread.h"

#include "KXEventDispatcher.h"
#include "KXLoggerWrapper.h"

CKXTFBaseThread::CKXTFBaseThread() : QThread(nullptr)
{
    // QThread owns the dispatcher from here on and deletes it when the thread finishes.
    setEventDispatcher(new CKXEventDispatcher());
    connect(this, &QThread::finished, this, &CKXTFBaseThread::threadEnd, Qt::DirectConnection);
    connect(this, &QThread::started, this, &CKXTFBaseThread::threadStart, Qt::DirectConnection);
}

CKXTFBaseThread::~CKXTFBaseThread()
{
    TLOG_FATAL(QStringLiteral("~CKXTFBaseThread() isFinished:%1 isRunning:%2")
                   .arg(isFinished() ? 1 : 0)
                   .arg(isRunning() ? 1 : 0));
    // A thread that never ran still holds the dispatcher it was given; a finished one has none.
    if (!isRunning()) {
        delete eventDispatcher();
    }
}

void CKXTFBaseThread::cancel()
{
    // The flag of our own is kept because QThread drops an interruption request made before the
    // thread runs. It is set before the wake-up is sent under the mutex, so a waiter that has just
    // found it unset is already asleep when the wake-up comes.
    m_cancelRequested.store(true);
    requestInterruption();
    QMutexLocker locker(&m_cancelMutex);
    m_cancelled.wakeAll();
}

bool CKXTFBaseThread::end()
{
    quit();
    exit(0);
    wait();
    return isFinished();
}

bool CKXTFBaseThread::isCancelled()
{
    return m_cancelRequested.load() || isInterruptionRequested();
}

void CKXTFBaseThread::waitUntilCancelled()
{
    QMutexLocker locker(&m_cancelMutex);
    while (!isCancelled()) {
        m_cancelled.wait(&m_cancelMutex);
    }
}

void CKXTFBaseThread::threadEnd() {}

void CKXTFBaseThread::threadStart()
{
    setObjectName(QStringLiteral("transfer thread"));
}

CKXTFBaseThread::Pending CKXTFBaseThread::newRequest()
{
    auto pending = std::make_shared<PendingRequest>();
    pending->waiter = this;
    return pending;
}

ServerApi::ResponseCallback CKXTFBaseThread::completion(const Pending& pending,
                                                        std::function<void(const ResponseData&)> onResponse)
{
    return [pending, onResponse = std::move(onResponse)](const ResponseData& response) {
        QMutexLocker locker(&pending->mutex);
        if (pending->done) {
            return;
        }
        if (onResponse) {
            onResponse(response);
        }
        pending->done = true;
        pending->waiter->exit(0);
    };
}

void CKXTFBaseThread::waitFor(const Pending& pending)
{
    for (;;) {
        {
            QMutexLocker locker(&pending->mutex);
            if (pending->done) {
                return;
            }
        }
        exec();
    }
}
