#include "KXDeliveryTransfer.h"

#include "KXLoggerWrapper.h"
#include "KXRequestModels.h"
#include "KXTransferParse.h"
#include "KXTransferTask.h"
#include "KXUtil.h"
#include "ServerApi.h"

#include <QDir>
#include <QFileInfo>

CKXDeliveryTransfer::CKXDeliveryTransfer(const SubTaskInfo& task, TransferErrorCallback errorCallback,
                                         TransferProgressCallback progressCallback)
    : CKXTransfer(task, errorCallback, progressCallback)
{}

void CKXDeliveryTransfer::cancelTask()
{
    stopWithoutWaiting();
}

bool CKXDeliveryTransfer::canUpload(const SubTaskInfo& task, QString& message, long long& code,
                                    long long& httpCode)
{
    Q_UNUSED(httpCode)
    if (!task.isUpload) {
        return true;
    }
    const KXServerApiDeliveryAuthUploadModel model = CKXRequestModels::deliveryAuthUpload(task);
    CKXDeliveryAuthUploadParse parser;
    request([&](ServerApi::ResponseCallback done) { return ServerApi::DeliveryAuthUpload(model, done); },
            [&parser](const ResponseData& response) { parser.ParseResp(response); });
    if (!parser.hasError()) {
        SubTaskInfo record = m_task->getSubTaskInfo();
        record.remoteFile.delivery.url = parser.uploadUrl();
        record.remoteFile.delivery.lbc = parser.LBC();
        if (!parser.deliverySessionId().isEmpty()) {
            record.remoteFile.delivery.sessionId = parser.deliverySessionId();
        }
        m_task->setSubTaskInfo(record);
        return true;
    }
    TLOG_FATAL(QStringLiteral("auth upload %1 code：%2 msg:%3")
                   .arg(task.subTaskId)
                   .arg(parser.errorCode())
                   .arg(parser.errorMsg().message));
    message = parser.errorMsg().message;
    code = parser.errorCode();
    return false;
}

void CKXDeliveryTransfer::downloadTask()
{
    const SubTaskInfo task = m_task->getSubTaskInfo();
    const QString id = task.subTaskId;
    TLOG_FATAL(QStringLiteral("处理下载任务 %1").arg(id));
    const QString localPath = task.localFile.path;
    const QDir dir = QFileInfo(localPath).absoluteDir();
    if (!dir.exists()) {
        QDir().mkpath(dir.absolutePath());
    }
    const QString tmp = tmpFilePath();
    int error = 0;
    if (!holdTmpFile(tmp, error)) {
        TLOG_FATAL(QStringLiteral("local file is not exist %1").arg(id));
        errorHandler(LocalFileError, QStringLiteral("local file is not exist"), 200);
        return;
    }
    // Ours now: removed again if this download fails or is cancelled.
    m_partialFile = tmp;
    KXServerApiDeliveryDownloadFileModel model = CKXRequestModels::deliveryData(task);
    model.localPath = tmp;
    CKXDeliveryDownloadParse parser;
    request(
        [&](ServerApi::ResponseCallback done) {
            return ServerApi::DeliveryDownloadFile(model, done, [this](const DownloadProgressData& progress) {
                progressHandler(progress.bytesReceived, progress.bytesTotal);
            });
        },
        [&parser](const ResponseData& response) { parser.ParseResp(response); });
    DownloadEnding ending;
    ending.site = KX_LOG_HERE;
    // The wording is shared with the upload path on purpose.
    ending.failedText = QStringLiteral("文件上传失败 %1 code：%2 msg:%3");
    ending.doneText = QStringLiteral("文件上传完成 %1");
    finishDownload(ending, parser);
}

void CKXDeliveryTransfer::uploadTask()
{
    const SubTaskInfo task = m_task->getSubTaskInfo();
    const KXServerApiDeliveryUploadFileModel model = CKXRequestModels::deliveryData(task);
    CKXDeliveryUploadParse parser;
    request(
        [&](ServerApi::ResponseCallback done) {
            return ServerApi::DeliveryUploadFile(model, done, [this](const UploadProgressData& progress) {
                progressHandler(progress.bytesSent, progress.bytesTotal);
            });
        },
        [&parser](const ResponseData& response) { parser.ParseResp(response); });
    if (parser.hasError()) {
        TLOG_FATAL(QStringLiteral("文件上传失败 %1 code：%2 msg:%3")
                       .arg(task.subTaskId)
                       .arg(parser.statusCode())
                       .arg(parser.errorMsg().message));
        errorHandler(static_cast<ErrorCode>(parser.errorCode()), parser.errorMsg().message,
                     parser.statusCode());
        return;
    }
    m_task->setNewMetadata(parser.meta());
    TLOG_FATAL(QStringLiteral("文件上传完成 %1").arg(task.subTaskId));
    compelteHandler();
}
