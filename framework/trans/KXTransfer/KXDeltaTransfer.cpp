#include "KXDeltaTransfer.h"

CKXDeltaTransfer::CKXDeltaTransfer(const SubTaskInfo& task, TransferErrorCallback errorCallback,
                                   TransferProgressCallback progressCallback)
    : CKXTransfer(task, errorCallback, progressCallback)
{}

void CKXDeltaTransfer::run()
{
    if (isCancelled()) {
        return;
    }
    for (;;) {
        QThread::sleep(5);
        errorHandler(SourceNotFound, QString(), 200);
        if (isCancelled()) {
            return;
        }
    }
}
