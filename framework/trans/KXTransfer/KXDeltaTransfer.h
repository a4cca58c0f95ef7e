#pragma once

// A transfer class the factory never chooses: it does no transfer work and reports error 20005
// every five seconds until it is cancelled. Ownership as CKXTransfer.

#include "KXTransfer.h"

class CKXDeltaTransfer : public CKXTransfer
{
    Q_OBJECT
public:
    CKXDeltaTransfer(const SubTaskInfo& task, TransferErrorCallback errorCallback,
                     TransferProgressCallback progressCallback);

protected:
    void run() override;
};
