#pragma once

// Downloads a plain address (the task's data-server field) into the task's local path. Created
// only by CKXTransferManager::makeUrlTransfer; it always downloads, whatever is_upload says. The
// size is learnt from the progress reports. Ownership as CKXTransfer.

#include "KXTransfer.h"

#include <atomic>

class CKXUrlTransfer : public CKXTransfer
{
    Q_OBJECT
public:
    CKXUrlTransfer(const SubTaskInfo& task, TransferErrorCallback errorCallback,
                   TransferProgressCallback progressCallback);

    bool begin() override;
    void downloadTask() override;
    void uploadTask() override;

private:
    std::atomic<qint64> m_requestId{0};
};
