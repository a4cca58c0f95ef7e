#include "IKXTransfer.h"

#include "KXLoggerWrapper.h"
#include "KXTFStoreManager.h"
#include "KXTransferManager.h"
#include "KXUtil.h"

#include <QDir>
#include <QFileInfo>
#include <QUuid>

namespace Transfer {

long long init(const SubTaskInfo& task, TransferErrorCallback errorCallback,
               TransferProgressCallback progressCallback, bool isUrl)
{
    if (isUrl) {
        return CKXTransferManager::inst()->makeUrlTransfer(task, errorCallback, progressCallback);
    }
    return CKXTransferManager::inst()->makeTransfer(task, errorCallback, progressCallback);
}

long long init(const QString& dataServer, const QString& localPath, TransferErrorCallback errorCallback,
               TransferProgressCallback progressCallback)
{
    SubTaskInfo record;
    record.subTaskId = QUuid::createUuid().toString();
    record.dataServerHost = dataServer;
    record.localFile.path = localPath;
    record.isFolder = false;
    record.isUpload = false;
    TLOG_FATAL(QStringLiteral("生成普通下载任务 %1").arg(dataServer));
    return CKXTransferManager::inst()->makeUrlTransfer(record, errorCallback, progressCallback);
}

void setConfig(TransferConfigName name, QString value)
{
    CKXTransferManager::inst();
    switch (name) {
    case TransferConfigUserPath: {
        const QString path = CKXTFStoreManager::userDbDir();
        TLOG_INFO(QStringLiteral("初始化数据库地址 %1").arg(path));
        const QFileInfo info(path);
        if (!info.exists()) {
            QDir().mkpath(info.dir().path());
        }
        CKXTFStoreManager::inst()->setDBPath(path);
        CKXTFStoreManager::inst()->initLog(path, value);
        break;
    }
    case TransferConfigMaxConcurrentCount:
        CKXTFStoreManager::inst()->setMaxConcurrentCount(value.toInt());
        break;
    case TransferConfigSpeedLimit:
        CKXTFStoreManager::inst()->setSecSpeedLimit(value.toLongLong());
        break;
    }
}

void start(long long handle)
{
    CKXTransferManager::inst()->start(handle);
}

void cancel(long long handle)
{
    CKXTransferManager::inst()->cancel(handle);
}

void del(long long handle)
{
    CKXTransferManager::inst()->del(handle);
}

void deinit()
{
    CKXTransferManager::clear();
    CKXTFStoreManager::clear();
}

bool taskInfo(const QString& subTaskId, SubTaskInfo& out)
{
    return CKXTFStoreManager::inst()->getTaskInfo(subTaskId, out);
}

int transferCount()
{
    return CKXTransferManager::inst()->transferCount();
}

} // namespace Transfer
