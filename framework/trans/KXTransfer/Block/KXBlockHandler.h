#pragma once

// The chunked transfer's listener for its blocks: sums every block's progress into the task's sent
// bytes and publishes the record to the task store, and relays a finished block as its own
// completeHandler signal.
//
// Created and deleted by the chunked transfer, on the transfer's thread, where its slots run
// (queued from the block threads). Does not own the task.

#include <QObject>

class CKXBlockTask;
class CKXBlockTransfer;
class CKXTransferTask;

class CKXBlockHandler : public QObject
{
    Q_OBJECT
public:
    explicit CKXBlockHandler(CKXTransferTask* task);
    ~CKXBlockHandler() override;

signals:
    void completeHandler(CKXBlockTransfer* transfer, CKXBlockTask* task, int errorCode);

public slots:
    void blockComplete(CKXBlockTransfer* transfer, CKXBlockTask* task, int errorCode);
    // `delta` is what the block moved since its previous report.
    void blockTransferring(CKXBlockTransfer* transfer, CKXBlockTask* task, long long delta, long long total);

private:
    CKXTransferTask* m_task;
};
