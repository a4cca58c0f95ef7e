#pragma once

// Moves one whole file (at most 4194304 bytes) to or from a share link in a single request: a
// download of a shared file into a local path, or an upload of a local file into a shared folder
// after the link has authorised it. Ownership as CKXTransfer.

#include "KXTransfer.h"

class CKXDeliveryTransfer : public CKXTransfer
{
    Q_OBJECT
public:
    CKXDeliveryTransfer(const SubTaskInfo& task, TransferErrorCallback errorCallback,
                        TransferProgressCallback progressCallback);

    // Aborts the request in flight and requests interruption, without waiting for the thread.
    void cancelTask() override;
    // Share-link authorisation of an upload; downloads need none.
    bool canUpload(const SubTaskInfo& task, QString& message, long long& code, long long& httpCode) override;
    void downloadTask() override;
    void uploadTask() override;
};
