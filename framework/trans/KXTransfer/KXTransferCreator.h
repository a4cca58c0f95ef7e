#pragma once

// Picks the transfer class for a task: blocks above 4194304 bytes, whole file otherwise; share
// links and ordinary tasks alike. Stateless. The caller owns the transfer it returns.

#include "KXTransferDefine.h"

class CKXTransfer;

class CKXTransferCreator
{
public:
    static CKXTransfer* transfer(const SubTaskInfo& task);
    // The size that decides: the local file's for uploads, else the remote file's when known,
    // else the task's own.
    static long long fileSize(const SubTaskInfo& task);
};
