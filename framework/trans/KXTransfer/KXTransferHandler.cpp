#include "KXTransferHandler.h"

#include "KXLoggerWrapper.h"
#include "KXTransColletion.h"

CKXTransferHandler::~CKXTransferHandler()
{
    delete m_collection;
}

CKXTransColletion* CKXTransferHandler::getTransCollection()
{
    QMutexLocker locker(&m_mutex);
    if (!m_collection) {
        m_collection = new CKXTransColletion();
        // Whoever asks first, the collection belongs to this thread so that its slot runs here.
        m_collection->moveToThread(this);
    }
    return m_collection;
}

void CKXTransferHandler::run()
{
    TLOG_FATAL(QStringLiteral("开启任务完成处理线程 run"));
    if (isCancelled()) {
        return;
    }
    for (;;) {
        getTransCollection();
        exec();
        if (isCancelled()) {
            return;
        }
    }
}
