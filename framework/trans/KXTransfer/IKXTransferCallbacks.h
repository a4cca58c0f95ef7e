#pragma once

// The two plain callbacks of the public API, shared by the public header and the engine.

#include "KXTransferDefine.h"

// Called once per task when it ends: code 0 for success and for a cancellation, else the failure.
typedef void (*TransferErrorCallback)(long long handle, const SubTaskInfo& task, ErrorCode code);
// Called with the bytes done so far of a whole-file, share-link or URL transfer.
typedef void (*TransferProgressCallback)(long long handle, const SubTaskInfo& task, long long bytes);
