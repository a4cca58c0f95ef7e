#pragma once

// Fills the server-API request models from a task record, so that every transfer class
// addresses the server the same way. Stateless; every function is thread-safe.

#include "KXTransferDefine.h"
#include "ServerApiTypes.h"

class CKXRequestModels
{
public:
    // The remote entry of the task: data-server host, space, full remote path, ids, overwrite.
    static KXServerApiEntryModel entry(const SubTaskInfo& task);
    static KXServerApiMetaEntryModel metaEntry(const SubTaskInfo& task);
    // "sync" for tasks of the sync source (1), else empty.
    static QString source(const SubTaskInfo& task);
    // The pass-through routing value of AuthUpload, QueryHash, ChunkedUpload and CommitHash.
    static QString route(const SubTaskInfo& task);
    static KXSeverApiDLRouterModel downloadRouter(const SubTaskInfo& task, const QString& range);
    static KXServerApiUploadFileModel uploadFile(const SubTaskInfo& task);
    static KXServerApiQueryHashModel queryHash(const SubTaskInfo& task, const QString& blockHash);
    static KXServerApiCommitHashModel commitHash(const SubTaskInfo& task, const QStringList& hashes);

    // Share links: the link, its password and session, and the path inside the share.
    static KXServerApiDeliveryDataModel deliveryData(const SubTaskInfo& task);
    static KXServerApiDeliveryAuthUploadModel deliveryAuthUpload(const SubTaskInfo& task);
    static KXServerApiDeliveryQueryHashModel deliveryQueryHash(const SubTaskInfo& task,
                                                               const QString& blockHash);
    static KXServerApiDeliveryCommitHashModel deliveryCommitHash(const SubTaskInfo& task,
                                                                 const QStringList& hashes);
    static KXSeverApiDeliveryDLRouterModel deliveryDownloadRouter(const SubTaskInfo& task,
                                                                  const QString& range);
};
