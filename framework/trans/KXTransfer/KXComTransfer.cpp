#include "KXComTransfer.h"

#include "KXLoggerWrapper.h"
#include "KXRequestModels.h"
#include "KXTransferParse.h"
#include "KXTransferTask.h"
#include "KXUtil.h"
#include "ServerApi.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>

namespace {

const int kSourceSync = 1;
const int kSourceManual = 2;

// The open temporary file of a download, written from the server library's thread while the
// transfer's thread waits.
void closeFile(QFile* file)
{
    file->flush();
    file->close();
    file->deleteLater();
}

} // namespace

CKXComTransfer::CKXComTransfer(const SubTaskInfo& task, TransferErrorCallback errorCallback,
                               TransferProgressCallback progressCallback)
    : CKXTransfer(task, errorCallback, progressCallback)
{}

void CKXComTransfer::cancelTask()
{
    stopWithoutWaiting();
}

void CKXComTransfer::serverLoggingFor(bool upload, const SubTaskInfo& task)
{
    QString code;
    if (task.taskSource == kSourceManual) {
        code = QStringLiteral("15");
    } else if (!upload && task.taskSource == kSourceSync) {
        code = QStringLiteral("13");
    }
    if (!code.isEmpty()) {
        serverLogging(code, task);
    }
}

void CKXComTransfer::downloadTask()
{
    const SubTaskInfo task = m_task->getSubTaskInfo();
    const QString id = task.subTaskId;
    const QString localPath = task.localFile.path;
    TLOG_FATAL(QStringLiteral("处理下载任务 %1").arg(id));

    const QDir dir = QFileInfo(localPath).absoluteDir();
    if (!dir.exists()) {
        QDir().mkpath(dir.absolutePath());
    }
    const QString tmp = tmpFilePath();
    int error = 0;
    if (!holdTmpFile(tmp, error)) {
        TLOG_FATAL(QStringLiteral("创建文件失败 %1 path[%2] errorcode[%3]").arg(id, tmp).arg(error));
        errorHandler(LocalFileError, tr("创建文件失败"), 200);
        return;
    }
    // Ours now: removed again if this download fails or is cancelled.
    m_partialFile = tmp;
    serverLoggingFor(false, task);
    const KXSeverApiDLRouterModel model = CKXRequestModels::downloadRouter(task, QString());
    TLOG_FATAL(QStringLiteral("文件下载开始 %1").arg(id));

    QFile* file = new QFile(tmp);
    if (!KXUtil::openEmpty(*file)) {
        TLOG_FATAL(QStringLiteral("打开文件出错 %1 %2").arg(file->fileName(), file->errorString()));
        closeFile(file);
        errorHandler(LocalFileError, tr("本地文件不存在"), 200);
        return;
    }

    CKXDlRouterParse parser;
    request(
        [&](ServerApi::ResponseCallback done) {
            return ServerApi::DownloadRouter(
                model,
                [this, file](const QByteArray& chunk) {
                    const qint64 position = file->pos();
                    if (file->write(chunk) != chunk.size()) {
                        TLOG_FATAL(QStringLiteral("本地写入数据失败,file {name %1 seek:%2 len:%3}")
                                       .arg(file->fileName())
                                       .arg(position)
                                       .arg(chunk.size()));
                        abortRequest();
                    }
                },
                done,
                [this](const DownloadProgressData& progress) {
                    progressHandler(progress.bytesReceived, progress.bytesTotal);
                });
        },
        [&parser](const ResponseData& response) { parser.ParseResp(response); });

    DownloadEnding ending;
    ending.site = KX_LOG_HERE;
    ending.file = file;
    ending.statusAsCode = true;
    ending.doneText = QStringLiteral("文件下载完成 %1");
    finishDownload(ending, parser);
}

void CKXComTransfer::uploadTask()
{
    const SubTaskInfo task = m_task->getSubTaskInfo();
    serverLoggingFor(true, task);
    const KXServerApiUploadFileModel model = CKXRequestModels::uploadFile(task);
    TLOG_FATAL(QStringLiteral("文件上传开始 %1").arg(task.subTaskId));

    CKXUploadParse parser;
    request(
        [&](ServerApi::ResponseCallback done) {
            return ServerApi::UploadFile(model, done, [this](const UploadProgressData& progress) {
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
    TLOG_FATAL(QStringLiteral("文件上传完成 %1").arg(task.subTaskId));
    m_task->setNewMetadata(parser.meta());
    if (!parser.path().isEmpty()) {
        m_task->setNewVaultPath(parser.path());
    }
    compelteHandler();
}
