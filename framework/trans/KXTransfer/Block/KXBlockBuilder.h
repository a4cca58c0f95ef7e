#pragma once

// Cuts one chunked transfer's file into blocks of kBlockSize bytes, or, when the task's blocks were
// made and stored before (a restart or a resumed task), loads them back so that finished blocks
// are not moved again.
//
// The chunked transfer makes a builder on its thread, calls init() once and drops it; the builder
// owns nothing. The blocks it returns are new'ed and belong to the caller.

#include <QList>

class CKXBlockTask;
class CKXTransferTask;

class CKXBlockBuilder
{
public:
    static constexpr long long kBlockSize = 4194304;

    explicit CKXBlockBuilder(CKXTransferTask* task);

    // 1 below kBlockSize (an empty file too), else size / kBlockSize rounded up.
    static long long blockCount(long long size);
    // Whether the task's blocks were made and stored already.
    bool isExistBlocks() const;
    // Creates and stores the blocks on the first start, loads the stored ones afterwards.
    void init(QList<CKXBlockTask*>& blocks);
    bool queryBlocks(QList<CKXBlockTask*>& blocks);
    // Appends the new blocks of the whole file; makes none for a size that cannot be cut.
    bool createBlocks(QList<CKXBlockTask*>& blocks);

private:
    CKXTransferTask* m_task;
};
