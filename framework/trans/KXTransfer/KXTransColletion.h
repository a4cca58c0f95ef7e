#pragma once

// Receiver of finished transfers. Lives on the finishing thread (CKXTransferHandler), so its slot
// runs there, queued: it removes the handle from the manager, waits for the transfer's thread and
// deletes the transfer. It is the only place that deletes transfers.

#include <QObject>

class CKXTransfer;

class CKXTransColletion : public QObject
{
    Q_OBJECT
public:
    CKXTransColletion() = default;

public slots:
    void transferFinished(long long handle, CKXTransfer* transfer);
};
