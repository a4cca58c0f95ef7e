#pragma once

// A task record with every persisted field away from its default, and a field-by-field
// comparison of the persisted part of two records, shared by the task and block tests.

#include "KXTransferDefine.h"

#include <QStringList>

inline SubTaskInfo sampleSubTaskInfo()
{
    SubTaskInfo t;
    t.size = 9000000001LL;
    t.sendBytes = 4194304;
    t.completeBytes = 2097152;
    t.usedTime = 37;
    t.completeTime = 1700000000123LL;
    t.timeRetry = 5;
    t.priority = 9;
    t.httpCode = 507;
    t.retryTimes = 2;
    t.state = static_cast<TaskState>(StateWorking | StatePaused);
    t.errorCode = NoSpace;
    t.transMethod = static_cast<TaskTransferMethod>(2);
    t.rsyncState = static_cast<RSyncTransferState>(3);
    t.taskSource = static_cast<TaskSource>(7);
    t.taskId = QStringLiteral("task-01");
    t.errorInfo = QStringLiteral("磁盘空间不足 \"No space left on device\"");
    t.dataServerHost = QStringLiteral("dc1.example.net");
    t.newMetadata = QStringLiteral("{\"rev\":\"7\",\"名\":\"x\"}");
    t.newVaultPath = QStringLiteral("/团队/报告 (1).docx");
    t.password = QStringLiteral("hunter2-密码\"'\\");
    t.remoteFile.size = 123456789;
    t.remoteFile.isDir = true;
    t.remoteFile.estHeadLength = 64;
    t.remoteFile.path = QStringLiteral("/团队/报告.docx");
    t.remoteFile.pathType = QStringLiteral("ent");
    t.remoteFile.neid = QStringLiteral("1001");
    t.remoteFile.prefixNeid = QStringLiteral("1000");
    t.remoteFile.from = QStringLiteral("share");
    t.remoteFile.rev = QStringLiteral("r42");
    t.remoteFile.isEncrypted = true;
    t.remoteFile.canDownloadVirus = true;
    t.remoteFile.syncOverwrite = true;
    t.remoteFile.isFromUrl = true;
    t.remoteFile.isDirectUrl = true;
    t.remoteFile.downloadUrl = QStringLiteral("https://example.net/d?a=1&b=\"2\"");
    t.remoteFile.zipPassword = QStringLiteral("zip密码");
    t.remoteFile.modifyTime = QStringLiteral("2024-05-06 07:08:09");
    t.remoteFile.isDeliveryTrans = true;
    DeliveryInfo& d = t.remoteFile.delivery;
    d.code = QStringLiteral("code1");
    d.overwrite = QStringLiteral("rename");
    d.token = QStringLiteral("tok");
    d.host = QStringLiteral("share.example.net");
    d.lbc = QStringLiteral("lbc1");
    d.url = QStringLiteral("https://share.example.net/x");
    d.sessionId = QStringLiteral("sess");
    d.s = QStringLiteral("s-param");
    d.userId = QStringLiteral("u77");
    d.isUpload = false;
    d.rev = QStringLiteral("dr3");
    d.isDir = true;
    d.bytes = 31337;
    t.localFile.size = 9000000001LL;
    t.localFile.path = QStringLiteral("/home/用户/报告.docx");
    t.localFile.time = QStringLiteral("1714979289");
    t.isFolder = false;
    t.isUpload = true;
    t.isQuickTrans = true;
    t.subTaskId = QStringLiteral("sub-01");
    t.fingerMark = QStringLiteral("fp-ab");
    t.isChunckComplete = true;
    t.isMainSubTask = true;
    t.isVirus = true;
    // Not persisted, but carried by copies.
    t.reservedCount = 11;
    t.reservedText = QStringLiteral("r");
    t.partSizes = {4194304, 4194304, 17};
    t.remoteFile.reservedText1 = QStringLiteral("r1");
    t.remoteFile.reservedText2 = QStringLiteral("r2");
    t.remoteFile.reservedList = QStringList{QStringLiteral("x")};
    return t;
}

// Names of the persisted fields that differ; empty when the records agree.
inline QStringList persistedDifferences(const SubTaskInfo& a, const SubTaskInfo& b)
{
    QStringList diff;
#define KX_CMP(field)                                                                                        \
    do {                                                                                                     \
        if (!(a.field == b.field))                                                                           \
            diff << QStringLiteral(#field);                                                                  \
    } while (false)
    KX_CMP(size);
    KX_CMP(sendBytes);
    KX_CMP(completeBytes);
    KX_CMP(usedTime);
    KX_CMP(completeTime);
    KX_CMP(timeRetry);
    KX_CMP(priority);
    KX_CMP(httpCode);
    KX_CMP(retryTimes);
    KX_CMP(state);
    KX_CMP(errorCode);
    KX_CMP(transMethod);
    KX_CMP(rsyncState);
    KX_CMP(taskSource);
    KX_CMP(taskId);
    KX_CMP(errorInfo);
    KX_CMP(dataServerHost);
    KX_CMP(newMetadata);
    KX_CMP(newVaultPath);
    KX_CMP(password);
    KX_CMP(isFolder);
    KX_CMP(isUpload);
    KX_CMP(isQuickTrans);
    KX_CMP(subTaskId);
    KX_CMP(fingerMark);
    KX_CMP(isChunckComplete);
    KX_CMP(isMainSubTask);
    KX_CMP(isVirus);
    KX_CMP(remoteFile.size);
    KX_CMP(remoteFile.isDir);
    KX_CMP(remoteFile.estHeadLength);
    KX_CMP(remoteFile.path);
    KX_CMP(remoteFile.pathType);
    KX_CMP(remoteFile.neid);
    KX_CMP(remoteFile.prefixNeid);
    KX_CMP(remoteFile.from);
    KX_CMP(remoteFile.rev);
    KX_CMP(remoteFile.isEncrypted);
    KX_CMP(remoteFile.canDownloadVirus);
    KX_CMP(remoteFile.syncOverwrite);
    KX_CMP(remoteFile.isFromUrl);
    KX_CMP(remoteFile.isDirectUrl);
    KX_CMP(remoteFile.downloadUrl);
    KX_CMP(remoteFile.zipPassword);
    KX_CMP(remoteFile.modifyTime);
    KX_CMP(remoteFile.isDeliveryTrans);
    KX_CMP(remoteFile.delivery.code);
    KX_CMP(remoteFile.delivery.overwrite);
    KX_CMP(remoteFile.delivery.token);
    KX_CMP(remoteFile.delivery.host);
    KX_CMP(remoteFile.delivery.lbc);
    KX_CMP(remoteFile.delivery.url);
    KX_CMP(remoteFile.delivery.sessionId);
    KX_CMP(remoteFile.delivery.s);
    KX_CMP(remoteFile.delivery.userId);
    KX_CMP(remoteFile.delivery.isUpload);
    KX_CMP(remoteFile.delivery.rev);
    KX_CMP(remoteFile.delivery.isDir);
    KX_CMP(remoteFile.delivery.bytes);
    KX_CMP(localFile.size);
    KX_CMP(localFile.path);
    KX_CMP(localFile.time);
#undef KX_CMP
    return diff;
}
