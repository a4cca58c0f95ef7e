#include "KXBlockBuilder.h"

#include "KXBlockTask.h"
#include "KXTFStoreManager.h"
#include "KXTransferDB.h"
#include "KXTransferTask.h"

#include <QUuid>

CKXBlockBuilder::CKXBlockBuilder(CKXTransferTask* task) : m_task(task) {}

long long CKXBlockBuilder::blockCount(long long size)
{
    if (size < kBlockSize) {
        return 1;
    }
    return size / kBlockSize + (size % kBlockSize != 0 ? 1 : 0);
}

bool CKXBlockBuilder::isExistBlocks() const
{
    return m_task->getIsChunckComplete();
}

void CKXBlockBuilder::init(QList<CKXBlockTask*>& blocks)
{
    if (!isExistBlocks()) {
        createBlocks(blocks);
        CKXTFStoreManager::inst()->db()->AddBlockTaskFormList(blocks);
        return;
    }
    queryBlocks(blocks);
}

bool CKXBlockBuilder::queryBlocks(QList<CKXBlockTask*>& blocks)
{
    return CKXTFStoreManager::inst()->db()->LoadBlockTasks(m_task->getId(), blocks);
}

bool CKXBlockBuilder::createBlocks(QList<CKXBlockTask*>& blocks)
{
    const auto shared = std::make_shared<const SubTaskInfo>(m_task->getSubTaskInfo());
    const SubTaskInfo& record = *shared;
    const long long size = record.isUpload ? record.localFile.size : record.remoteFile.size;
    // A negative size is a broken record, not a file: leave the list empty so the task fails.
    const long long count = size < 0 ? 0 : blockCount(size);
    long long loc = 0;
    long long remaining = size;
    for (long long i = 0; i < count; ++i) {
        BlockTaskFields info;
        info.subTaskId = record.subTaskId;
        info.idx = static_cast<int>(i);
        info.taskId = QUuid::createUuid().toString();
        info.length = kBlockSize;
        info.loc = loc;
        info.isUpload = record.isUpload;
        info.state = BlockTaskStateNone;
        if (i == count - 1) {
            info.length = count == 1 ? size : remaining;
        }
        info.total = info.length;
        blocks.append(new CKXBlockTask(info, shared));
        remaining -= kBlockSize;
        loc += kBlockSize;
    }
    return true;
}
