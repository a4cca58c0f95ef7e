#include "KXTransferCreator.h"

#include "KXBlockBuilder.h"
#include "KXChunkedTransfer.h"
#include "KXComTransfer.h"
#include "KXDeliveryTransfer.h"
#include "KXLoggerWrapper.h"

long long CKXTransferCreator::fileSize(const SubTaskInfo& task)
{
    if (task.isUpload) {
        return task.localFile.size;
    }
    return task.remoteFile.size > 0 ? task.remoteFile.size : task.size;
}

CKXTransfer* CKXTransferCreator::transfer(const SubTaskInfo& task)
{
    SubTaskInfo record = task;
    record.size = fileSize(task);
    const bool chunked = record.size > CKXBlockBuilder::kBlockSize;
    if (record.remoteFile.isDeliveryTrans) {
        if (chunked) {
            TLOG_FATAL(QStringLiteral("生成分块外链传输任务 %1").arg(record.subTaskId));
            return new CKXChunkedTransfer(record, nullptr, nullptr);
        }
        TLOG_FATAL(QStringLiteral("生成普通外链传输任务 %1").arg(record.subTaskId));
        return new CKXDeliveryTransfer(record, nullptr, nullptr);
    }
    if (chunked) {
        TLOG_FATAL(QStringLiteral("生成分块传输任务 %1").arg(record.subTaskId));
        return new CKXChunkedTransfer(record, nullptr, nullptr);
    }
    TLOG_FATAL(QStringLiteral("生成普通传输任务 %1").arg(record.subTaskId));
    return new CKXComTransfer(record, nullptr, nullptr);
}
