#pragma once

// Process-wide owner of every live transfer: makes transfers (through the factory, or directly
// as URL transfers), files each under a random handle, records its task in the task store, and
// starts, cancels and deletes transfers by handle. Filed transfers are not owned here: the
// finishing thread (CKXTransferHandler, owned by the manager) deletes them once their thread has
// finished. The manager counts the transfers it started until then, so that clear() can stop
// them all and wait for the last before the task store goes. m_mutex guards the handle map, the
// in-use counts and the started set; it is never held while calling a transfer.

#include "IKXTransferCallbacks.h"

#include <QHash>
#include <QMap>
#include <QMutex>
#include <QObject>
#include <QSet>
#include <QWaitCondition>

class CKXTransfer;
class CKXTransferHandler;

class CKXTransferManager : public QObject
{
    Q_OBJECT
public:
    static CKXTransferManager* inst();
    // The singleton if it exists; never creates one (for the finishing path during shutdown).
    static CKXTransferManager* existing();
    // Cancels every running transfer, waits until the finishing thread has deleted each, then
    // destroys the singleton. Cancelled tasks keep their stored state and can be started again.
    // Not from inside a transfer's callback: it waits for that transfer's thread.
    static void clear();

    long long makeTransfer(const SubTaskInfo& task, TransferErrorCallback errorCallback,
                           TransferProgressCallback progressCallback);
    long long makeUrlTransfer(const SubTaskInfo& task, TransferErrorCallback errorCallback,
                              TransferProgressCallback progressCallback);
    long long initTransfer(CKXTransfer* transfer, TransferErrorCallback errorCallback,
                           TransferProgressCallback progressCallback);
    long long createTransferHandle(CKXTransfer* transfer);
    CKXTransfer* getTransfer(long long handle, bool remove);
    void destoryTransfer(long long handle);

    void start(long long handle);
    void cancel(long long handle);
    void del(long long handle);
    int transferCount();

    // For the finishing thread, before it deletes a transfer: blocks until no client call (start,
    // cancel, del) is using it any more, then forgets it as started.
    void retire(CKXTransfer* transfer);

public slots:
    void transferFinished(long long handle, CKXTransfer* transfer);

private:
    // A transfer looked up for a client call, kept marked as in use until the call returns.
    class Use;
    Use use(long long handle, bool remove);

    CKXTransferManager();
    ~CKXTransferManager() override;

    void stopAll();

    static CKXTransferManager* m_inst;
    CKXTransferHandler* m_handler = nullptr;
    QMap<long long, CKXTransfer*> m_transfers; // guarded by m_mutex
    QHash<CKXTransfer*, int> m_inUse;          // guarded by m_mutex
    QSet<CKXTransfer*> m_started;              // guarded by m_mutex; started, not yet retired
    QWaitCondition m_unused;                   // signalled when an m_inUse count drops to 0
    QWaitCondition m_retired;                  // signalled when m_started loses a transfer
    QMutex m_mutex;
};
