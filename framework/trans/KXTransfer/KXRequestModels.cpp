#include "KXRequestModels.h"

#include <QFileInfo>

namespace {

const int kSourceSync = 1;

QString flagText(bool value)
{
    return value ? QStringLiteral("true") : QStringLiteral("false");
}

} // namespace

KXServerApiEntryModel CKXRequestModels::entry(const SubTaskInfo& task)
{
    KXServerApiEntryModel model;
    model.host = task.dataServerHost;
    model.pathType = task.remoteFile.pathType;
    model.path = task.remoteFile.path;
    model.neid = task.remoteFile.neid;
    model.prefixNeid = task.remoteFile.prefixNeid;
    model.rev = task.remoteFile.rev;
    model.from = task.remoteFile.from;
    model.overwrite = flagText(task.remoteFile.syncOverwrite);
    model.modifyTime = task.isUpload ? task.localFile.time : task.remoteFile.modifyTime;
    return model;
}

KXServerApiMetaEntryModel CKXRequestModels::metaEntry(const SubTaskInfo& task)
{
    KXServerApiMetaEntryModel model;
    model.entry = entry(task);
    // Metadata is asked of the main server, not of the data server chosen for an upload.
    model.entry.host.clear();
    return model;
}

QString CKXRequestModels::source(const SubTaskInfo& task)
{
    return task.taskSource == kSourceSync ? QStringLiteral("sync") : QString();
}

QString CKXRequestModels::route(const SubTaskInfo& task)
{
    return task.remoteFile.from;
}

KXSeverApiDLRouterModel CKXRequestModels::downloadRouter(const SubTaskInfo& task, const QString& range)
{
    KXSeverApiDLRouterModel model;
    model.entry = entry(task);
    model.range = range;
    model.source = source(task);
    return model;
}

KXServerApiUploadFileModel CKXRequestModels::uploadFile(const SubTaskInfo& task)
{
    KXServerApiUploadFileModel model;
    model.entry = entry(task);
    model.localPath = task.localFile.path;
    model.source = source(task);
    model.size = QFileInfo(task.localFile.path).size();
    return model;
}

KXServerApiQueryHashModel CKXRequestModels::queryHash(const SubTaskInfo& task, const QString& blockHash)
{
    KXServerApiQueryHashModel model;
    model.entry = entry(task);
    model.fileSize = task.size;
    model.blockHashes << blockHash;
    return model;
}

KXServerApiCommitHashModel CKXRequestModels::commitHash(const SubTaskInfo& task, const QStringList& hashes)
{
    KXServerApiCommitHashModel model;
    model.entry = entry(task);
    model.blockHashes = hashes;
    model.size = task.size;
    model.source = QStringLiteral("sync");
    return model;
}

KXServerApiDeliveryDataModel CKXRequestModels::deliveryData(const SubTaskInfo& task)
{
    const DeliveryInfo& link = task.remoteFile.delivery;
    KXServerApiDeliveryDataModel model;
    model.code = link.code;
    model.token = link.token;
    // Uploads go to the address the authorisation answered; downloads to the link's host.
    model.host = task.isUpload && !link.url.isEmpty() ? link.url : link.host;
    model.sessionId = link.sessionId;
    model.path = task.remoteFile.path;
    model.localPath = task.localFile.path;
    model.size = task.isUpload ? QFileInfo(task.localFile.path).size() : task.size;
    // The data and the commit must ask for the replacement the authorisation was granted for.
    model.overwrite = link.overwrite;
    return model;
}

KXServerApiDeliveryAuthUploadModel CKXRequestModels::deliveryAuthUpload(const SubTaskInfo& task)
{
    const DeliveryInfo& link = task.remoteFile.delivery;
    const QFileInfo target(task.remoteFile.path);
    KXServerApiDeliveryAuthUploadModel model;
    model.code = link.code;
    model.token = link.token;
    model.host = link.host;
    model.path = target.path() == QLatin1String(".") ? QString() : target.path();
    model.name = target.fileName();
    model.overwrite = link.overwrite;
    model.size = QFileInfo(task.localFile.path).size();
    return model;
}

KXServerApiDeliveryQueryHashModel CKXRequestModels::deliveryQueryHash(const SubTaskInfo& task,
                                                                      const QString& blockHash)
{
    KXServerApiDeliveryQueryHashModel model;
    model.link = deliveryData(task);
    model.link.size = task.size;
    model.blockHashes << blockHash;
    return model;
}

KXServerApiDeliveryCommitHashModel CKXRequestModels::deliveryCommitHash(const SubTaskInfo& task,
                                                                        const QStringList& hashes)
{
    KXServerApiDeliveryCommitHashModel model;
    model.link = deliveryData(task);
    model.blockHashes = hashes;
    model.size = task.size;
    return model;
}

KXSeverApiDeliveryDLRouterModel CKXRequestModels::deliveryDownloadRouter(const SubTaskInfo& task,
                                                                         const QString& range)
{
    KXSeverApiDeliveryDLRouterModel model;
    model.link = deliveryData(task);
    model.range = range;
    return model;
}
