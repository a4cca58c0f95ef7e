#pragma once

// Carries a task of at most 4194304 bytes in one server request: a download streams the whole
// file into its temporary file and then moves it into place; an upload sends the whole file.
// Everything else (checks, handlers, progress) is the base's. Ownership as CKXTransfer.

#include "KXTransfer.h"

class CKXComTransfer : public CKXTransfer
{
    Q_OBJECT
public:
    CKXComTransfer(const SubTaskInfo& task, TransferErrorCallback errorCallback,
                   TransferProgressCallback progressCallback);

    // Aborts the request in flight and requests interruption, without waiting for the thread.
    void cancelTask() override;
    void downloadTask() override;
    void uploadTask() override;

private:
    void serverLoggingFor(bool upload, const SubTaskInfo& task);
};
