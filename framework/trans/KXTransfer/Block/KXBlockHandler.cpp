#include "KXBlockHandler.h"

#include "KXBlockTask.h"
#include "KXLoggerWrapper.h"
#include "KXTFStoreManager.h"
#include "KXTransferTask.h"

CKXBlockHandler::CKXBlockHandler(CKXTransferTask* task) : m_task(task) {}

CKXBlockHandler::~CKXBlockHandler()
{
    disconnect(this, &CKXBlockHandler::completeHandler, nullptr, nullptr);
}

void CKXBlockHandler::blockComplete(CKXBlockTransfer* transfer, CKXBlockTask* task, int errorCode)
{
    TLOG_FATAL(QStringLiteral("块传输完成 %1 %2").arg(task->taskId()).arg(errorCode));
    TLOG_FATAL(QStringLiteral("块传输信息 sub task id:%1,index:%2,loc:%3,len:%4,%5/%6")
                   .arg(task->subTaskId())
                   .arg(task->idx())
                   .arg(task->loc())
                   .arg(task->length())
                   .arg(task->sent())
                   .arg(task->total()));
    CKXTFStoreManager::inst()->addTaskInfo(m_task->getSubTaskInfo());
    emit completeHandler(transfer, task, errorCode);
}

void CKXBlockHandler::blockTransferring(CKXBlockTransfer*, CKXBlockTask*, long long delta, long long)
{
    // The client's progress callback is not called from here: it reads a chunked transfer's
    // progress from the task store.
    m_task->addSendBytes(delta);
    CKXTFStoreManager::inst()->addTaskInfo(m_task->getSubTaskInfo());
}
