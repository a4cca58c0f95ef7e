// One chunked transfer, step by step, with the function that runs each step. Everything but the
// block threads runs on the transfer's own thread; every path ends in exactly one of
// compelteHandler(), errorHandler() or cancelHandler().
//
//   CKXTransfer::run ---- stored row loaded; verifyTask() (an upload asks canUpload: AuthUpload)
//        |
//   begin()
//        |-- build or reload blocks .... CKXBlockBuilder::init (createBlocks | queryBlocks)
//        |-- file them ................. checkAllTasks: finished -> Complete, others -> Waiting; saveDB
//        v
//   runBlocks() ---- CKXBlockOpQueue starts up to maxConcurrentCount CKXBlockTransfer threads;
//        |           this thread waits in exec() until no block is Running or Waiting
//        |
//        |    upload block (CKXBlockTransfer::uploadBlock)        download block (downloadBlock)
//        |      ensureHash ... hash of the block's bytes            fetch ... DownloadRouter with the
//        |      query ........ QueryHash / DeliveryQueryHash                  block's range, written at
//        |      server has it? -- yes --> quickTransfer                      its offset in the .kxtmp
//        |                      -- no ---> send: sendBlock                   file (openAt)
//        |                                 (ChunkedUpload, hash checked)
//        v
//   finishBlocks()
//        |-- a block failed ............ handleErrorTask -> errorHandler
//        '-- all blocks complete ....... allBlocksComplete
//               |                                            |
//        upload: commit                               download: rename
//        uploadTaskComplete / deliveryUploadTaskComplete     downloadTaskComplete
//          CommitHash / DeliveryCommitHash                     renameTmpFile (.kxtmp -> file)
//          commitAnswered -> storeFileDone                     storeFileDone, RPCServerLogging
//          -> compelteHandler                                  -> compelteHandler
//
//   cancelTask() (client thread): stops the op queue and the running blocks, which are filed as
//   paused; begin() then ends through endIfCancelled -> cancelHandler.

#include "KXChunkedTransfer.h"

#include "Block/KXBlockBuilder.h"
#include "Block/KXBlockHandler.h"
#include "Block/KXBlockHasher.h"
#include "Block/KXBlockMgr.h"
#include "Block/KXBlockOpQueue.h"
#include "Block/KXBlockTask.h"
#include "Block/KXBlockTransfer.h"
#include "Block/KXBlockVerifier.h"
#include "KXLoggerWrapper.h"
#include "KXRequestModels.h"
#include "KXTFStoreManager.h"
#include "KXTransferDB.h"
#include "KXTransferParse.h"
#include "KXTransferTask.h"
#include "KXUtil.h"
#include "ServerApi.h"

#include <QFileInfo>
#include <QThread>

namespace {

const ErrorCode kCreateBlocksError = ErrorCode(65535);
const TaskSource kSourceReported = TaskSource(2);

} // namespace

CKXChunkedTransfer::CKXChunkedTransfer(const SubTaskInfo& task, TransferErrorCallback errorCallback,
                                       TransferProgressCallback progressCallback)
    : CKXTransfer(task, errorCallback, progressCallback)
{}

CKXChunkedTransfer::~CKXChunkedTransfer()
{
    if (CKXBlockOpQueue* queue = m_opQueue.load()) {
        queue->cancel();
        queue->end();
        delete queue; // ends any block thread still registered
    }
    delete m_handler;
    delete m_mgr;
    qDeleteAll(m_blocks);
}

void CKXChunkedTransfer::verifyTask()
{
    const SubTaskInfo record = m_task->getSubTaskInfo();
    if (record.isUpload && !localFileIsExist(record.localFile.path)) {
        TLOG_FATAL(QStringLiteral("本地文件不存在 %1").arg(m_task->getId()));
        errorHandler(LocalFileError, tr("本地文件不存在"), 200);
        return;
    }
    record.isUpload ? uploadTask() : downloadTask();
}

bool CKXChunkedTransfer::canUpload(const SubTaskInfo& task, QString& message, long long& code,
                                   long long& httpCode)
{
    hashAheadOfBlocks(task);
    if (task.remoteFile.isDeliveryTrans) {
        return deliveryCanUpload(task, message, code, httpCode);
    }
    return CKXTransfer::canUpload(task, message, code, httpCode);
}

bool CKXChunkedTransfer::deliveryCanUpload(const SubTaskInfo& task, QString& message, long long& code,
                                           long long& httpCode)
{
    if (!task.isUpload) {
        return true;
    }
    CKXDeliveryAuthUploadParse parser;
    request(
        [&task](ServerApi::ResponseCallback done) {
            return ServerApi::DeliveryAuthUpload(CKXRequestModels::deliveryAuthUpload(task), done);
        },
        [&parser](const ResponseData& response) { parser.ParseResp(response); });
    if (parser.hasError()) {
        const TransferErrorMessage error = parser.errorMsg();
        TLOG_FATAL(QStringLiteral("auth upload %1 code：%2 msg:%3")
                       .arg(m_task->getId())
                       .arg(parser.errorCode())
                       .arg(error.message));
        message = error.message;
        code = parser.errorCode();
        httpCode = parser.statusCode();
        return false;
    }
    SubTaskInfo record = m_task->getSubTaskInfo();
    DeliveryInfo& link = record.remoteFile.delivery;
    link.url = parser.uploadUrl();
    link.lbc = parser.LBC();
    if (!parser.deliverySessionId().isEmpty()) {
        link.sessionId = parser.deliverySessionId();
    }
    m_task->setSubTaskInfo(record);
    return true;
}

bool CKXChunkedTransfer::begin()
{
    const QString id = m_task->getId();
    m_handler = new CKXBlockHandler(m_task);
    m_mgr = new CKXBlockMgr;
    {
        CKXBlockBuilder builder(m_task);
        builder.init(m_blocks);
    }
    if (m_cancelRequested.load()) {
        endIfCancelled();
        return false;
    }
    if (m_blocks.isEmpty()) {
        TLOG_FATAL(QStringLiteral("reate blocks error %1").arg(id));
        errorHandler(kCreateBlocksError, QStringLiteral("create blocks error"), 200);
        return false;
    }
    m_task->setChunckComplete(true);
    if (!m_task->getIsUpload() && !holdTmpFileOrFail()) {
        return false;
    }
    resetChangedBlocks();
    checkAllTasks();
    saveDB();
    if (m_cancelRequested.load()) {
        endIfCancelled();
        return false;
    }
    if (m_mgr->isExistWaitingTask()) {
        runBlocks();
    }
    m_earlyHasher.reset(); // not handed over when no block was left to run
    if (!m_cancelRequested.load()) {
        finishBlocks();
    }
    endIfCancelled();
    return true;
}

bool CKXChunkedTransfer::holdTmpFileOrFail()
{
    const QString tmp = tmpFilePath();
    int error = 0;
    if (holdTmpFile(tmp, error)) {
        return true;
    }
    TLOG_FATAL(QStringLiteral("创建文件失败 %1 path[%2] errorcode[%3]").arg(m_task->getId(), tmp).arg(error));
    errorHandler(LocalFileError, tr("创建文件失败"), 200);
    return false;
}

void CKXChunkedTransfer::resetChangedBlocks()
{
    const bool upload = m_task->getIsUpload();
    const QString path = upload ? m_task->getLocalFileInfo().path : tmpFilePath();
    for (CKXBlockTask* block : CKXBlockVerifier::changedBlocks(m_blocks, path, upload)) {
        TLOG_FATAL(QStringLiteral("块内容已改变，重新传输 %1 idx %2").arg(m_task->getId()).arg(block->idx()));
        block->setHash(QString());
        block->setState(BlockTaskStateNone);
        block->setSent(0);
        block->setQuickTrans(false);
    }
}

void CKXChunkedTransfer::hashAheadOfBlocks(const SubTaskInfo& task)
{
    // Stored blocks may hold their hashes already; the op queue's own hasher knows which.
    if (!task.isUpload || m_task->getIsChunckComplete() || m_earlyHasher) {
        return;
    }
    m_earlyHasher.reset(new CKXBlockHasher(task.localFile.path, task.localFile.size,
                                           CKXBlockBuilder::kBlockSize,
                                           CKXTFStoreManager::inst()->maxConcurrentCount()));
    m_earlyHasher->start(QThread::idealThreadCount());
}

void CKXChunkedTransfer::runBlocks()
{
    const QString id = m_task->getId();
    auto* queue = new CKXBlockOpQueue(m_mgr, m_handler, CKXTFStoreManager::inst()->maxConcurrentCount(),
                                      std::move(m_earlyHasher));
    // Published before the cancel flag is read, so that a concurrent cancelTask() either sees the
    // queue or is seen here.
    m_opQueue.store(queue);
    if (m_cancelRequested.load()) {
        return;
    }
    // A cancel leaves blocks waiting, so the op queue never ends this loop then; the last running
    // block to be filed does.
    connect(m_handler, &CKXBlockHandler::completeHandler, m_handler, [this] {
        if (blockLoopDone()) {
            exit(0);
        }
    });
    queue->start(QThread::InheritPriority);
    TLOG_INFO(QStringLiteral("处理分块任务开始 %1").arg(id));
    // Any exit() ends exec(); only the state of the queues says whether the blocks are through.
    while (!blockLoopDone()) {
        exec();
    }
    TLOG_FATAL(QStringLiteral("处理分块任务结束 %1").arg(id));
    queue->cancel();
    queue->end();
}

bool CKXChunkedTransfer::blockLoopDone() const
{
    if (!m_mgr->isEmpty(CKXBlockMgr::Running)) {
        return false;
    }
    return m_cancelRequested.load() || m_mgr->isEmpty(CKXBlockMgr::Waiting);
}

void CKXChunkedTransfer::finishBlocks()
{
    if (m_mgr->isEmpty(CKXBlockMgr::Waiting) && m_mgr->isEmpty(CKXBlockMgr::Running)) {
        TLOG_FATAL(QStringLiteral("分块任务全部传输完成 %1").arg(m_task->getId()));
    }
    if (!m_mgr->isEmpty(CKXBlockMgr::Error)) {
        handleErrorTask();
    } else if (m_mgr->count(CKXBlockMgr::Complete) == m_blocks.size()) {
        allBlocksComplete();
    }
}

void CKXChunkedTransfer::endIfCancelled()
{
    if (!m_cancelRequested.load()) {
        return;
    }
    if (!(m_task->getTaskState() & (StateError | StateCompleted | StatePaused))) {
        cancelHandler();
    }
}

void CKXChunkedTransfer::checkAllTasks()
{
    // Blocks about to move take the task as it is now: a resumed task's stored blocks carry the
    // record of their first run, without this run's upload host or share session.
    const auto record = std::make_shared<const SubTaskInfo>(m_task->getSubTaskInfo());
    long long done = 0;
    for (CKXBlockTask* block : qAsConst(m_blocks)) {
        if (block->state() == BlockTaskStateCompleted) {
            done += block->total();
            m_mgr->addCompleteQueueWithMutex(block);
        } else {
            block->setSharedSubTaskInfo(record);
            m_mgr->addWaitingQueueWithMutex(block);
        }
    }
    m_task->setCompleteBytes(done);
    m_task->setSendBytes(done);
    progressHandler(done, m_task->getSize());
}

void CKXChunkedTransfer::handleErrorTask()
{
    TLOG_FATAL(QStringLiteral("处理出错的块任务队列，整合错误信息"));
    int code = 0;
    int status = 0;
    QString message;
    for (CKXBlockTask* block : m_mgr->tasks(CKXBlockMgr::Error)) {
        if (block->errorCode() != 0) {
            code = block->errorCode();
        }
        if (block->statusCode() != 200) {
            status = block->statusCode();
        }
        const QString blockMessage = block->errorMsg();
        if (!blockMessage.isEmpty()) {
            message = blockMessage;
        }
    }
    TLOG_FATAL(
        QStringLiteral("分块任务出错信息 error %1 msg %2 status %3").arg(code).arg(message).arg(status));
    errorHandler(ErrorCode(code), message, status);
}

void CKXChunkedTransfer::allBlocksComplete()
{
    const SubTaskInfo record = m_task->getSubTaskInfo();
    if (!record.remoteFile.isDeliveryTrans) {
        record.isUpload ? uploadTaskComplete() : downloadTaskComplete();
    } else {
        record.isUpload ? deliveryUploadTaskComplete() : downloadTaskComplete();
    }
}

namespace {

// The file's block hashes in file order, and whether the server held every block already.
QStringList blockHashes(const QList<CKXBlockTask*>& blocks, bool& allQuick)
{
    QStringList hashes;
    allQuick = true;
    for (CKXBlockTask* block : blocks) {
        hashes << block->hash();
        allQuick = allQuick && block->isQuickTrans();
    }
    return hashes;
}

} // namespace

void CKXChunkedTransfer::uploadTaskComplete()
{
    bool quick = true;
    const QStringList hashes = blockHashes(m_blocks, quick);
    m_task->setQuickTrans(quick);
    const SubTaskInfo record = m_task->getSubTaskInfo();
    if (record.taskSource == kSourceReported) {
        serverLogging(QStringLiteral("15"), record);
    }
    CKXCommitHashParse parser;
    request(
        [&record, &hashes](ServerApi::ResponseCallback done) {
            return ServerApi::CommitHash(CKXRequestModels::commitHash(record, hashes), done,
                                         CKXRequestModels::route(record));
        },
        [&parser](const ResponseData& response) { parser.ParseResp(response); });
    commitAnswered(parser);
}

void CKXChunkedTransfer::deliveryUploadTaskComplete()
{
    bool quick = true;
    const QStringList hashes = blockHashes(m_blocks, quick);
    m_task->setQuickTrans(quick);
    const SubTaskInfo record = m_task->getSubTaskInfo();
    CKXCommitHashParse parser;
    request(
        [&record, &hashes](ServerApi::ResponseCallback done) {
            return ServerApi::DeliveryCommitHash(CKXRequestModels::deliveryCommitHash(record, hashes), done);
        },
        [&parser](const ResponseData& response) { parser.ParseResp(response); });
    commitAnswered(parser);
}

void CKXChunkedTransfer::commitAnswered(const CKXCommitHashParse& parser)
{
    const QString id = m_task->getId();
    if (parser.hasError()) {
        errorHandler(ErrorCode(parser.errorCode()), parser.errorMsg().message, parser.statusCode());
        return;
    }
    if (parser.need_upload()) {
        TLOG_FATAL(QStringLiteral("分块任务commit失败 %1").arg(id));
        if (!parser.blockHashes().isEmpty()) {
            errorHandler(UploadHashError, tr("上传文件hash出错，需要重传"), 200);
        }
        // Asked for blocks without naming any: the task is left as it is, neither done nor failed.
        return;
    }
    m_task->setNewMetadata(parser.meta());
    const QString path = parser.path();
    if (!path.isEmpty() && path != m_task->getRemoteFileInfo().path) {
        m_task->setNewVaultPath(path);
    }
    storeFileDone();
    TLOG_FATAL(QStringLiteral("分块任务commit完成 %1").arg(id));
    compelteHandler();
}

void CKXChunkedTransfer::storeFileDone()
{
    // A process killed from here on must find the task complete when it starts again: its block
    // rows are gone, and a download's temporary file has already been moved into place. Only the
    // stored row says so; the task itself is complete for the client at compelteHandler().
    SubTaskInfo done = m_task->getSubTaskInfo();
    done.state = StateCompleted;
    done.completeBytes = done.size;
    done.sendBytes = done.size;
    CKXTransferTask stored(done);
    CKXTFStoreManager::inst()->db()->AddTransferTask(stored);
    CKXTFStoreManager::inst()->db()->DelBlockTasks(m_task->getId());
}

void CKXChunkedTransfer::downloadTaskComplete()
{
    ErrorCode code = NoError;
    QString message;
    if (!renameTmpFile(code, message)) {
        errorHandler(code, message, 200);
        return;
    }
    storeFileDone();
    const SubTaskInfo record = m_task->getSubTaskInfo();
    request(
        [&record](ServerApi::ResponseCallback done) {
            const RemoteFileInfo& remote = record.remoteFile;
            return ServerApi::RPCServerLogging(QStringLiteral("15"), QFileInfo(remote.path).path(),
                                               KXUtil::fileName(record.localFile.path), remote.pathType,
                                               remote.neid, QStringLiteral("2"), QStringLiteral("13"), done);
        },
        [](const ResponseData&) {});
    compelteHandler();
}

void CKXChunkedTransfer::cancelTask()
{
    TLOG_FATAL(QStringLiteral("取消分块传输任务 %1").arg(m_task->getId()));
    m_cancelRequested.store(true);
    stopWithoutWaiting();
    if (CKXBlockOpQueue* queue = m_opQueue.load()) {
        // The dispatcher stops first, so that every block it started is registered and no new one
        // starts behind the cancel.
        queue->cancel();
        queue->end();
        queue->cancelTask();
    }
    // Ends the block loop when no block is running; otherwise the last block filed does.
    exit(0);
}

void CKXChunkedTransfer::errorHandler(ErrorCode code, const QString& message, int httpCode)
{
    if (m_cancelRequested.load()) {
        cancelHandler();
        return;
    }
    CKXTransfer::errorHandler(code, message, httpCode);
}

void CKXChunkedTransfer::dropStoredState()
{
    CKXTransfer::dropStoredState();
    CKXTFStoreManager::inst()->db()->DelBlockTasks(m_task->getId());
    const SubTaskInfo record = m_task->getSubTaskInfo();
    // Another process downloading the same task holds its temporary file: not ours to remove.
    int error = 0;
    const QString tmp = tmpFilePath();
    if (!record.isUpload && KXUtil::isExist(tmp) && holdTmpFile(tmp, error)) {
        KXUtil::removeFile(tmp);
        m_tmpLock.release();
    }
}
