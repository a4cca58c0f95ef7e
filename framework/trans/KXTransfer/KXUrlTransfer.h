#pragma once

// Downloads a plain address (the task's data-server field) into the task's local path. Created
// only by CKXTransferManager::makeUrlTransfer; it always downloads, whatever is_upload says. The
// size is learnt from the progress reports. A failed download leaves neither the target nor its
// temporary file behind: it starts from byte 0 again anyway. Ownership as CKXTransfer.

#include "KXTransfer.h"

class CKXUrlTransfer : public CKXTransfer
{
    Q_OBJECT
public:
    CKXUrlTransfer(const SubTaskInfo& task, TransferErrorCallback errorCallback,
                   TransferProgressCallback progressCallback);

    // Aborts the download in flight and requests interruption, without waiting for the thread:
    // the task then fails with the cancelled request's code and keeps nothing on disk.
    void cancelTask() override;
    bool begin() override;
    void downloadTask() override;
    void uploadTask() override;
};
