#include "KXTransfer.h"

#include "KXLoggerWrapper.h"
#include "KXRequestModels.h"
#include "KXTFStoreManager.h"
#include "KXTransferDB.h"
#include "KXTransferParse.h"
#include "KXTransferTask.h"
#include "KXUtil.h"
#include "ServerApi.h"

#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QFileInfo>

namespace {

const TaskState kStateRunning = StateWorking;
const QString kNoSpaceText = QStringLiteral("No space left on device");

} // namespace

CKXTransfer::CKXTransfer(const SubTaskInfo& task, TransferErrorCallback errorCallback,
                         TransferProgressCallback progressCallback)
    : m_task(new CKXTransferTask(task))
{
    setCallback(errorCallback, progressCallback);
    m_handle = 0;
}

CKXTransfer::~CKXTransfer()
{
    delete m_task;
}

void CKXTransfer::threadEnd()
{
    if (m_deleted) {
        dropStoredState();
    }
    emit threadFinished(m_handle, this);
}

void CKXTransfer::setCallback(TransferErrorCallback errorCallback, TransferProgressCallback progressCallback)
{
    m_errorCallback = errorCallback;
    m_progressCallback = progressCallback;
}

void CKXTransfer::setHandle(long long handle)
{
    m_handle = handle;
}

void CKXTransfer::cancelTask()
{
    cancel();
    end();
}

void CKXTransfer::del()
{
    TLOG_FATAL(QStringLiteral("删除任务 %1").arg(m_task->getId()));
    // Set before the cancel, so that a thread ending meanwhile drops the state in threadEnd() if
    // this call's own drop comes too early.
    m_deleted = true;
    cancelTask();
    dropStoredState();
}

void CKXTransfer::dropStoredState()
{
    CKXTFStoreManager::inst()->db()->DelTransferTask(m_task->getId());
}

void CKXTransfer::stopWithoutWaiting()
{
    // Interruption first: request() reads it after publishing a new request id, so one side or
    // the other aborts a request that is being started right now.
    cancel();
    abortRequest();
}

void CKXTransfer::abortRequest()
{
    const qint64 id = m_requestId.load();
    if (id != 0) {
        ServerApi::Cancel(id);
    }
}

CKXTransferTask* CKXTransfer::transferTask()
{
    return m_task;
}

void CKXTransfer::run()
{
    const QString id = m_task->getId();
    if (CKXTFStoreManager::inst()->db()->LoadTransferTask(id, *m_task)) {
        TLOG_FATAL(QStringLiteral("查询到存在的任务 %1").arg(id));
    }
    if (m_task->getTaskState() == StateCompleted) {
        TLOG_FATAL(QStringLiteral("添加了已完成的任务 %1").arg(id));
        compelteHandler();
        return;
    }
    m_task->setTaskState(kStateRunning);
    CKXTFStoreManager::inst()->addTaskInfo(m_task->getSubTaskInfo());

    QString message;
    long long code = 0;
    long long httpCode = 200;
    if (!verifyTask(m_task->getSubTaskInfo(), message, code, httpCode)) {
        errorHandler(static_cast<ErrorCode>(code), message, static_cast<int>(httpCode));
        return;
    }
    begin();
    // The handlers request interruption when the task has ended; the thread stays until then.
    waitUntilCancelled();
}

bool CKXTransfer::begin()
{
    TLOG_FATAL(QStringLiteral("开始处理传输任务 %1").arg(m_task->getId()));
    m_task->setTaskState(kStateRunning);
    saveDB();
    if (m_task->getIsUpload()) {
        uploadTask();
    } else {
        downloadTask();
    }
    return true;
}

bool CKXTransfer::verifyTask(const SubTaskInfo& task, QString& message, long long& code, long long& httpCode)
{
    if (task.isUpload) {
        if (!localFileIsExist(task.localFile.path)) {
            TLOG_FATAL(QStringLiteral("本地文件不存在 %1").arg(task.subTaskId));
            message = QStringLiteral("本地文件不存在");
            code = LocalFileError;
            httpCode = 200;
            return false;
        }
        return canUpload(task, message, code, httpCode);
    }
    return canDownload(task, message, code, httpCode);
}

void CKXTransfer::verifyTask()
{
    if (m_task->getIsUpload()) {
        if (!localFileIsExist(m_task->getLocalFileInfo().path)) {
            TLOG_FATAL(QStringLiteral("本地文件不存在 %1").arg(m_task->getId()));
            errorHandler(LocalFileError, QStringLiteral("本地文件不存在"), 200);
            return;
        }
        uploadTask();
    } else {
        downloadTask();
    }
}

void CKXTransfer::downloadTask() {}

void CKXTransfer::uploadTask() {}

void CKXTransfer::debugInfo() {}

bool CKXTransfer::localFileIsExist(const QString& path)
{
    return KXUtil::isExist(path.toUtf8().toStdString());
}

void CKXTransfer::request(const std::function<qint64(ServerApi::ResponseCallback)>& call,
                          const std::function<void(const ResponseData&)>& onResponse)
{
    const Pending pending = newRequest();
    const qint64 id = call(completion(pending, onResponse));
    m_requestId.store(id);
    if (isCancelled()) {
        ServerApi::Cancel(id);
    }
    waitFor(pending);
    m_requestId.store(0);
}

bool CKXTransfer::remoteFileIsExist(const SubTaskInfo& task)
{
    bool found = false;
    request([&](ServerApi::ResponseCallback done) { return metadata(task, done); },
            [&found](const ResponseData& response) { found = response.statusCode == 200; });
    const QString text = found ? QStringLiteral("云端文件存在") : QStringLiteral("云端文件不存在");
    TLOG_INFO(QStringLiteral("%1 %2").arg(text, task.remoteFile.path));
    return found;
}

qint64 CKXTransfer::metadata(const SubTaskInfo& task, std::function<void(const ResponseData&)> callback)
{
    return ServerApi::MetaData(CKXRequestModels::metaEntry(task), callback);
}

qint64 CKXTransfer::authUpload(const SubTaskInfo& task, std::function<void(const ResponseData&)> callback)
{
    return ServerApi::AuthUpload(CKXRequestModels::entry(task), QFileInfo(task.localFile.path).size(),
                                 callback, CKXRequestModels::route(task));
}

bool CKXTransfer::canUpload(const SubTaskInfo& task, QString& message, long long& code, long long& httpCode)
{
    CKXAuthUplaodParse parser;
    request([&](ServerApi::ResponseCallback done) { return authUpload(task, done); },
            [&parser](const ResponseData& response) { parser.ParseResp(response); });
    if (parser.hasError()) {
        message = parser.errorMsg().message;
        code = parser.errorCode();
        httpCode = parser.statusCode();
        return false;
    }
    if (!parser.getDataServerHost().isEmpty()) {
        m_task->setDataServerHost(parser.getDataServerHost());
    }
    return true;
}

bool CKXTransfer::canDownload(const SubTaskInfo& task, QString& message, long long& code, long long& httpCode)
{
    Q_UNUSED(httpCode)
    const QString path = task.localFile.path;
    TLOG_FATAL(QStringLiteral("处理下载任务验证 %1").arg(task.subTaskId));
    const qint64 available = KXUtil::GetDiskAvailableBytes(path);
    TLOG_FATAL(QStringLiteral("%1 当前剩余空间大小: %2").arg(path).arg(available));
    if (available < 0) {
        return true;
    }
    const qint64 needed = task.size - task.completeBytes;
    TLOG_FATAL(QStringLiteral("%1 完成下载 需要空间 %2").arg(path).arg(needed));
    const qint64 left = available - needed;
    TLOG_FATAL(QStringLiteral("%1 剩余可用空间 %2").arg(path).arg(left));
    if (left < 0) {
        code = NoSpace;
        message = tr("空间不足 请释放空间后再尝试下载");
        return false;
    }
    return true;
}

QString CKXTransfer::duplicateNameHandler(const QString& path)
{
    if (!KXUtil::isExist(path)) {
        return path;
    }
    const QFileInfo info(path);
    const QDir dir = info.absoluteDir();
    const QString base = info.completeBaseName();
    const QString suffix = info.suffix();
    for (qint64 n = 1;; ++n) {
        const QString name =
            QStringLiteral("%1%2%3%4.%5")
                .arg(base, QStringLiteral("("), QString::number(n), QStringLiteral(")"), suffix);
        const QString candidate = dir.absoluteFilePath(name);
        if (!KXUtil::isExist(candidate)) {
            return candidate;
        }
    }
}

bool CKXTransfer::renameTmpFile(ErrorCode& code, QString& message)
{
    const SubTaskInfo task = m_task->getSubTaskInfo();
    const QString localPath = task.localFile.path;
    TLOG_INFO(QStringLiteral("文件原始路径： %1").arg(localPath));
    const QString tmp = tmpFilePath();
    TLOG_INFO(QStringLiteral("文件临时路径： %1").arg(tmp));
    if (!KXUtil::isExist(tmp)) {
        TLOG_FATAL(QStringLiteral("本地临时文件不存在:%1").arg(tmp));
        code = LocalFileError;
        message = tr("本地文件不存在");
        return false;
    }
    // A file of the wrong length is never published: whatever cut it short or padded it, the
    // destination keeps what it held.
    const qint64 written = QFileInfo(tmp).size();
    if (task.size > 0 && written != task.size) {
        TLOG_FATAL(QStringLiteral("临时文件大小不符 tmp:%1 size:%2 expected:%3")
                       .arg(tmp)
                       .arg(written)
                       .arg(task.size));
        code = RenameTmpFileError;
        message = tr("重命名本地临时文件错误");
        return false;
    }
    QString dest = localPath;
    if (!task.remoteFile.syncOverwrite) {
        dest = duplicateNameHandler(localPath);
    }
    TLOG_FATAL(QStringLiteral("文件目标路径:%1").arg(dest));
    if (dest.isEmpty()) {
        TLOG_FATAL(
            QStringLiteral("文件目标路径为空:%1 原始路径为:%2 临时路径为:%3").arg(dest, localPath, tmp));
        code = LocalFileError;
        message = tr("本地文件不存在");
        return false;
    }
    // moveFile replaces the destination atomically, so an overwritten file is never missing;
    // removing it first is only needed where the platform's rename cannot replace.
    if (KXUtil::isExist(dest) && !QFileInfo(dest).isFile() && !KXUtil::removeFile(dest)) {
        TLOG_FATAL(QStringLiteral("删除文件失败，目标路径： %1").arg(dest));
        code = LocalFileError;
        message = tr("本地文件不存在");
        return false;
    }
    if (!KXUtil::moveFile(tmp, dest)) {
        TLOG_FATAL(QStringLiteral("移动文件失败 tmp:%1 dest:%2").arg(tmp, dest));
        code = RenameTmpFileError;
        message = tr("重命名本地临时文件错误");
        return false;
    }
    m_tmpLock.release();
    TLOG_FATAL(QStringLiteral("重命名本地临时文件 tmp:%1 dest:%2").arg(tmp, dest));
    return true;
}

void CKXTransfer::finishDownload(const DownloadEnding& ending, const CKXParseProcessor& parser)
{
    const QString id = m_task->getId();
    if (QFile* file = ending.file) {
        // Catch errors the buffered writes report only when flushed.
        file->flush();
        const QFileDevice::FileError fileError = file->error();
        const QString fileMessage = file->errorString();
        if (fileError != QFileDevice::NoError) {
            TLOG_FATAL_AT(ending.site, QStringLiteral("文件操作出错: %1  error:%2 msg:%3")
                                           .arg(file->fileName())
                                           .arg(fileError)
                                           .arg(fileMessage));
        }
        file->close();
        file->deleteLater();
        if (fileError != QFileDevice::NoError) {
            errorHandler(static_cast<ErrorCode>(fileError), fileMessage, 200);
            return;
        }
    }
    if (parser.hasError()) {
        if (!ending.failedText.isEmpty()) {
            TLOG_FATAL_AT(ending.site,
                          ending.failedText.arg(id).arg(parser.errorCode()).arg(parser.errorMsg().message));
        }
        int code = parser.errorCode();
        if (ending.statusAsCode) {
            code = parser.statusCode() != 0 ? parser.statusCode() : parser.errorCode();
        }
        errorHandler(static_cast<ErrorCode>(code), parser.errorMsg().message, parser.statusCode());
        return;
    }
    if (!ending.doneAfterRename) {
        TLOG_FATAL_AT(ending.site, ending.doneText.arg(id));
    }
    ErrorCode code = NoError;
    QString message;
    if (!renameTmpFile(code, message)) {
        TLOG_FATAL_AT(ending.site, QStringLiteral("重命名本地临时文件错误 %1").arg(id));
        errorHandler(code, message, 200);
        return;
    }
    if (ending.doneAfterRename) {
        TLOG_FATAL_AT(ending.site, ending.doneText.arg(id));
    }
    compelteHandler();
}

QString CKXTransfer::tmpFilePath() const
{
    return KXUtil::tmpFile(m_task->getLocalFileInfo().path, m_task->getId());
}

bool CKXTransfer::holdTmpFile(const QString& tmp, int& error)
{
    return m_tmpLock.acquire(tmp, error);
}

void CKXTransfer::progressHandler(long long bytesDone, long long total)
{
    Q_UNUSED(total)
    if (m_task->getTaskState() & StateCompleted) {
        return;
    }
    m_task->setSendBytes(bytesDone);
    const SubTaskInfo record = m_task->getSubTaskInfo();
    CKXTFStoreManager::inst()->addTaskInfo(record);
    if (m_progressCallback) {
        m_progressCallback(m_handle, record, bytesDone);
    }
}

void CKXTransfer::compelteHandler()
{
    TLOG_FATAL(QStringLiteral("任务完成 %1").arg(m_task->getId()));
    m_task->setTaskState(StateCompleted);
    m_task->setCompleteTime(QDateTime::currentMSecsSinceEpoch());
    m_task->setCompleteBytes(m_task->getSize());
    m_task->setSendBytes(m_task->getSize());
    const SubTaskInfo record = m_task->getSubTaskInfo();
    CKXTFStoreManager::inst()->addTaskInfo(record);
    // Saved before the client hears of it: a client that reads the task from the callback deletes
    // its row (a completed task is read once), and a later save would bring the row back.
    saveDB();
    if (m_errorCallback) {
        m_errorCallback(m_handle, record, NoError);
    }
    cancel();
}

void CKXTransfer::cancelHandler()
{
    TLOG_FATAL(QStringLiteral("主动取消任务 %1").arg(m_task->getId()));
    if (!(m_task->getTaskState() & (StateError | StateCompleted))) {
        m_task->setTaskState(StatePaused);
    }
    const SubTaskInfo record = m_task->getSubTaskInfo();
    CKXTFStoreManager::inst()->addTaskInfo(record);
    if (m_errorCallback) {
        m_errorCallback(m_handle, record, NoError);
    }
    saveDB();
    cancel();
}

void CKXTransfer::errorHandler(ErrorCode code, const QString& message, int httpCode)
{
    TLOG_FATAL(QStringLiteral("任务失败 code:%1 msg :%2").arg(code).arg(message));
    ErrorCode finalCode = code;
    QString finalMessage = message;
    if (code == 4 && message == kNoSpaceText) {
        finalMessage = tr("空间不足 请释放空间后再尝试下载");
        finalCode = NoSpace;
    }
    if (!m_partialFile.isEmpty() && KXUtil::isExist(m_partialFile)) {
        KXUtil::removeFile(m_partialFile);
    }
    m_task->setErrorCode(finalCode);
    m_task->setErrorInfo(finalMessage);
    m_task->setHttpCode(httpCode);
    m_task->setTaskState(StateError);
    const SubTaskInfo record = m_task->getSubTaskInfo();
    CKXTFStoreManager::inst()->addTaskInfo(record);
    if (m_errorCallback) {
        m_errorCallback(m_handle, record, finalCode);
    }
    saveDB();
    cancel();
}

void CKXTransfer::saveDB()
{
    CKXTFStoreManager::inst()->db()->AddTransferTask(*m_task);
}

void CKXTransfer::serverLogging(const QString& event, const SubTaskInfo& task)
{
    const QString remotePath = task.remoteFile.path;
    const QString folder = QFileInfo(remotePath).path();
    const QString name = KXUtil::fileName(remotePath);
    request(
        [&](ServerApi::ResponseCallback done) {
            return ServerApi::RPCServerLogging(event, folder, name, task.remoteFile.pathType,
                                               task.remoteFile.neid, task.remoteFile.reservedText1, QString(),
                                               done);
        },
        nullptr);
}
