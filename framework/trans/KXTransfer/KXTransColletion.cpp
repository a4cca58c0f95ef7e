#include "KXTransColletion.h"

#include "KXLoggerWrapper.h"
#include "KXTransfer.h"
#include "KXTransferManager.h"

void CKXTransColletion::transferFinished(long long handle, CKXTransfer* transfer)
{
    // This step belongs to the finishing thread's unit in the logs.
    CKXLoggerWrapper::instTransfer()->fatal(QStringLiteral("任务完成处理 %1").arg(handle),
                                            QStringLiteral("framework/trans/KXTransfer/KXTransferHandler"),
                                            QStringLiteral("transferFinished"), __LINE__);
    CKXTransferManager* manager = CKXTransferManager::existing();
    if (manager) {
        manager->destoryTransfer(handle);
    }
    transfer->end();
    if (manager) {
        manager->retire(transfer);
    }
    delete transfer;
}
