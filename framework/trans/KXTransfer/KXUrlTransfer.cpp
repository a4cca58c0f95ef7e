#include "KXUrlTransfer.h"

#include "KXLoggerWrapper.h"
#include "KXTransferParse.h"
#include "KXTransferTask.h"
#include "KXUtil.h"
#include "ServerApi.h"

#include <QFile>

CKXUrlTransfer::CKXUrlTransfer(const SubTaskInfo& task, TransferErrorCallback errorCallback,
                               TransferProgressCallback progressCallback)
    : CKXTransfer(task, errorCallback, progressCallback)
{}

void CKXUrlTransfer::cancelTask()
{
    stopWithoutWaiting();
}

bool CKXUrlTransfer::begin()
{
    m_task->setTaskState(StateWorking);
    downloadTask();
    return true;
}

void CKXUrlTransfer::downloadTask()
{
    const QString tmp = tmpFilePath();
    m_partialFile = tmp;
    if (!KXUtil::isExist(tmp)) {
        KXUtil::createFile(tmp);
    }
    KXBaseParse parser;
    QFile* file = new QFile(tmp);
    if (!KXUtil::openEmpty(*file)) {
        TLOG_FATAL(QStringLiteral("打开文件出错 %1 %2").arg(file->fileName(), file->errorString()));
        file->flush();
        file->close();
        file->deleteLater();
        errorHandler(LocalFileError, tr("本地文件不存在"), 200);
        return;
    }

    const QString address = m_task->getDataServerHost();
    request(
        [&](ServerApi::ResponseCallback done) {
            return ServerApi::Download(
                address,
                [this, file](const QByteArray& chunk) {
                    const qint64 position = file->pos();
                    if (file->write(chunk) < chunk.size()) {
                        TLOG_FATAL(QStringLiteral("本地写入数据失败,file {name %1 seek:%2 len:%3}")
                                       .arg(file->fileName())
                                       .arg(position)
                                       .arg(chunk.size()));
                        abortRequest();
                    }
                },
                done,
                [this](const DownloadProgressData& progress) {
                    m_task->setSize(progress.bytesTotal);
                    progressHandler(progress.bytesReceived, progress.bytesTotal);
                });
        },
        [&parser](const ResponseData& response) { parser.ParseResp(response); });

    DownloadEnding ending;
    ending.site = KX_LOG_HERE;
    ending.file = file;
    ending.doneText = QStringLiteral("文件下载完成 %1");
    ending.doneAfterRename = true;
    finishDownload(ending, parser);
}

void CKXUrlTransfer::uploadTask()
{
    const QString id = m_task->getId();
    KXBaseParse parser;
    const QString address = m_task->getDataServerHost();
    const QString localPath = m_task->getLocalFileInfo().path;
    request(
        [&](ServerApi::ResponseCallback done) {
            return ServerApi::Upload(localPath, address, done, [this](const UploadProgressData& progress) {
                m_task->setSize(progress.bytesTotal);
                progressHandler(progress.bytesSent, progress.bytesTotal);
            });
        },
        [&parser](const ResponseData& response) { parser.ParseResp(response); });
    if (parser.hasError()) {
        TLOG_FATAL(QStringLiteral("文件上传失败 %1 code：%2 msg:%3")
                       .arg(id)
                       .arg(parser.statusCode())
                       .arg(parser.errorMsg().message));
        errorHandler(static_cast<ErrorCode>(parser.errorCode()), parser.errorMsg().message,
                     parser.statusCode());
        return;
    }
    TLOG_FATAL(QStringLiteral("文件上传完成 %1").arg(id));
    compelteHandler();
}
