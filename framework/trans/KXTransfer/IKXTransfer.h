#pragma once

// The public API of libKXTransfer: the only entry points of the engine.
//
// Call setConfig(TransferConfigUserPath, ...) once before the first task, then per task
// init -> start -> (optionally cancel or del) -> one final error callback; deinit once at the end.
// Every function may be called from any thread. The callbacks arrive on the transfer's own
// worker thread, never on the caller's: make them thread-safe.
// The engine's threads run Qt event loops: the application must have a QCoreApplication (or a
// QApplication) before the first call.

#include "IKXTransferCallbacks.h"
#include "KXTransferDefine.h"
#include "kxtransfer_export.h"

#include <QString>

enum TransferConfigName
{
    TransferConfigUserPath = 1,           // prepares the task database and the task log
    TransferConfigMaxConcurrentCount = 2, // blocks in flight per chunked file (decimal int)
    TransferConfigSpeedLimit = 3,         // per-second speed limit (decimal; stored, not applied)
};

namespace Transfer {

// Creates a transfer for the task and returns its handle (0 when none could be made). The class
// is chosen from the task: blocks above 4 MiB, whole file otherwise; with isUrl a plain URL
// download. Nothing starts before start().
KXTRANSFER_EXPORT long long init(const SubTaskInfo& task, TransferErrorCallback errorCallback,
                                 TransferProgressCallback progressCallback, bool isUrl = false);

// Creates a download of a plain address into localPath.
KXTRANSFER_EXPORT long long init(const QString& dataServer, const QString& localPath,
                                 TransferErrorCallback errorCallback,
                                 TransferProgressCallback progressCallback);

KXTRANSFER_EXPORT void setConfig(TransferConfigName name, QString value);
KXTRANSFER_EXPORT void start(long long handle);
// Stops the transfer and forgets its handle at once; its stored state allows a later resume.
// Returns without waiting (also from inside a callback): the request in flight is aborted and the
// one final callback follows on the transfer's thread, with code 0 for a chunked transfer and the
// aborted request's code for the others, unless the transfer had finished already.
KXTRANSFER_EXPORT void cancel(long long handle);
// As cancel, and deletes the task's stored state; the handle goes when its thread has finished.
KXTRANSFER_EXPORT void del(long long handle);
// Cancels the transfers still running, waits for their final callbacks and shuts the engine down;
// their tasks can be started again later. Not from inside a callback.
KXTRANSFER_EXPORT void deinit();
// The latest record of a task. A completed task is handed out once and then forgotten.
KXTRANSFER_EXPORT bool taskInfo(const QString& subTaskId, SubTaskInfo& out);
// Transfers currently filed under a handle.
KXTRANSFER_EXPORT int transferCount();

} // namespace Transfer
