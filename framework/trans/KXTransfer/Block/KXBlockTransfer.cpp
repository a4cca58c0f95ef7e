#include "KXBlockTransfer.h"

#include "KXBlockHasher.h"
#include "KXBlockTask.h"
#include "KXLoggerWrapper.h"
#include "KXRequestModels.h"
#include "KXTFStoreManager.h"
#include "KXTransferDB.h"
#include "KXTransferParse.h"
#include "KXUtil.h"
#include "ServerApi.h"

#include <QFile>
#include <QHash>

#include <condition_variable>
#include <deque>
#include <memory>
#include <mutex>

namespace {

// A failed file operation never reads as success, even if the file kept no error code.
int failureCode(const QFile& file)
{
    return file.error() != QFileDevice::NoError ? int(file.error()) : int(LocalFileError);
}

const QString kNoSpaceText = QStringLiteral("No space left on device");

// What the blocks of one download share. They write into one file, and the kernel lets one write
// into a file run at a time: the others spin on the file's lock while it copies, and on two cores
// a spinning block thread takes the time of the thread that receives. So the block threads take
// turns on `turn`, asleep. And as their writes go one at a time anyway, the bytes waiting for them
// are counted for the file as a whole: at most about kQueuedBytes, so a slow disk holds the
// receiving thread back instead of filling memory. (Counted per block, 1 MiB each, a 16 GiB
// download that met the disk's write-back kept every queue full: 3 MiB more at its peak than a
// 1 GiB one, which rarely filled them.)
// `budget` guards `queued`; `turn` is held only around writes; neither is held with the other.
struct FileWrites
{
    static constexpr qint64 kQueuedBytes = 2 * 1024 * 1024;

    std::mutex turn;
    std::mutex budget;
    std::condition_variable freed;
    qint64 queued = 0;
};

// One per file, made by the first block that writes it and gone with the last.
std::shared_ptr<FileWrites> fileWrites(const QString& path)
{
    static std::mutex registryLock; // guards files
    static QHash<QString, std::weak_ptr<FileWrites>> files;
    std::lock_guard<std::mutex> locker(registryLock);
    std::shared_ptr<FileWrites> writes = files.value(path).lock();
    if (!writes) {
        writes = std::make_shared<FileWrites>();
        files.insert(path, writes);
        // Entries of files no longer written are dropped as new ones come.
        for (auto it = files.begin(); it != files.end();) {
            it = it.value().expired() ? files.erase(it) : std::next(it);
        }
    }
    return writes;
}

// Carries a block download's bytes from the library thread, which receives the answers of every
// request, to the block thread, which writes them. Written on the library thread, the bytes of all
// the blocks in flight went through that one thread's writes one after the other; now it receives
// while the block threads write.
//
//   library thread: push() --> [pieces] --> writeQueued() on the block thread: posted when a piece
//                                           finds the queue empty, and once more after the answer
//
// Made on the block thread's stack for one request; push() is called by the library thread until
// the request's completion, which comes before the block thread leaves the request. m_lock guards
// m_pieces; push() may wait for the file's budget first, holding nothing, and calls out to nobody.
class PieceQueue
{
public:
    PieceQueue(const QString& path, std::function<void(const QByteArray&)> write)
        : m_write(std::move(write)), m_file(fileWrites(path))
    {}

    // On the library thread (ServerApi never calls back on the caller's thread).
    void push(const QByteArray& piece)
    {
        {
            std::unique_lock<std::mutex> budget(m_file->budget);
            m_file->freed.wait(budget, [this] { return m_file->queued < FileWrites::kQueuedBytes; });
            m_file->queued += piece.size();
        }
        bool wasEmpty = false;
        {
            std::lock_guard<std::mutex> locker(m_lock);
            wasEmpty = m_pieces.empty();
            m_pieces.push_back(piece);
        }
        if (wasEmpty) {
            QMetaObject::invokeMethod(
                &m_blockThread, [this] { writeQueued(); }, Qt::QueuedConnection);
        }
    }

    // On the block thread.
    void writeQueued()
    {
        std::deque<QByteArray> taken;
        {
            std::lock_guard<std::mutex> locker(m_lock);
            taken.swap(m_pieces);
        }
        if (taken.empty()) {
            return;
        }
        qint64 written = 0;
        {
            std::lock_guard<std::mutex> turn(m_file->turn);
            for (const QByteArray& piece : taken) {
                m_write(piece);
                written += piece.size();
            }
        }
        taken.clear(); // the bytes leave memory before the budget lets more in
        {
            std::lock_guard<std::mutex> budget(m_file->budget);
            m_file->queued -= written;
        }
        m_file->freed.notify_all();
    }

private:
    const std::function<void(const QByteArray&)> m_write;
    const std::shared_ptr<FileWrites> m_file;
    std::mutex m_lock;
    std::deque<QByteArray> m_pieces;
    // Receives the posted writes; the last member, so it goes first and takes any still posted
    // with it.
    QObject m_blockThread;
};

} // namespace

CKXBlockTransfer::CKXBlockTransfer(CKXBlockMgr* mgr, CKXBlockTask* task) : m_task(task), m_mgr(mgr)
{
    setObjectName(QStringLiteral("CKXBlockTransfer task id %1").arg(task->subTaskId()));
}

void CKXBlockTransfer::cancel()
{
    m_cancelled.store(true);
    CKXTFBaseThread::cancel();
}

bool CKXBlockTransfer::isCancelled()
{
    return m_cancelled.load() || CKXTFBaseThread::isCancelled();
}

void CKXBlockTransfer::run()
{
    if (m_task->state() == BlockTaskStateCompleted) {
        TLOG_FATAL(QStringLiteral("已完成的块任务 block task id:%1").arg(m_task->taskId()));
        compelteHandler();
        return;
    }
    if (m_task->idx() < 0) {
        TLOG_FATAL(QStringLiteral("块任务 index 报错 index:%1 loc:%2 len:%3")
                       .arg(m_task->idx())
                       .arg(m_task->loc())
                       .arg(m_task->length()));
        errorHandler(BlockIndexError, QStringLiteral("index 错误"), 200);
        return;
    }
    m_task->setState(BlockTaskStateWorking);
    m_task->setSent(0);
    if (stopForCancel()) {
        return;
    }
    QString msg;
    long long code = 0;
    long long httpCode = 200;
    if (!verifyTask(msg, code, httpCode)) {
        errorHandler(ErrorCode(code), msg, 200);
        return;
    }
    const bool viaLink = m_task->info().remoteFile.isDeliveryTrans;
    if (m_task->isUpload()) {
        viaLink ? deliveryUploadTask() : uploadTask();
    } else {
        viaLink ? deliveryDownloadTask() : downloadTask();
    }
}

bool CKXBlockTransfer::verifyTask(QString& msg, long long& code, long long& httpCode)
{
    if (m_task->isUpload()) {
        return true;
    }
    return canDownload(msg, code, httpCode);
}

bool CKXBlockTransfer::canDownload(QString& msg, long long& code, long long&)
{
    const QString path = m_task->info().localFile.path;
    const qint64 available = KXUtil::GetDiskAvailableBytes(path);
    TLOG_FATAL(QStringLiteral("%1 当前剩余空间大小: %2").arg(path).arg(available));
    if (available < 0) {
        return true;
    }
    const long long length = m_task->length();
    TLOG_FATAL(
        QStringLiteral("%1 当前要下载文件第%2块文件大小: %3").arg(path).arg(m_task->idx()).arg(length));
    if (available < length) {
        code = NoSpace;
        msg = tr("空间不足 请释放空间后再尝试下载");
        return false;
    }
    return true;
}

void CKXBlockTransfer::uploadTask()
{
    const SubTaskInfo record = m_task->info();
    const QString route = CKXRequestModels::route(record);
    uploadBlock(
        [this, record, route](ServerApi::ResponseCallback done) {
            return ServerApi::QueryHash(CKXRequestModels::queryHash(record, m_task->hash()), done, route);
        },
        [this, route](const QString& uploadId, ServerApi::ResponseCallback done,
                      ServerApi::UploadProgressCallback onProgress) {
            return ServerApi::ChunkedUpload(blockModel(uploadId), done, onProgress, route);
        });
}

void CKXBlockTransfer::deliveryUploadTask()
{
    const SubTaskInfo record = m_task->info();
    uploadBlock(
        [this, record](ServerApi::ResponseCallback done) {
            return ServerApi::DeliveryQueryHash(CKXRequestModels::deliveryQueryHash(record, m_task->hash()),
                                                done);
        },
        [this, record](const QString& uploadId, ServerApi::ResponseCallback done,
                       ServerApi::UploadProgressCallback onProgress) {
            KXServerApiDeliveryChunkedUploadModel model;
            model.link = CKXRequestModels::deliveryData(record);
            model.block = blockModel(uploadId);
            return ServerApi::DeliveryChunkedUpload(model, done, onProgress);
        });
}

KXServerApiChunkedUploadModel CKXBlockTransfer::blockModel(const QString& uploadId) const
{
    KXServerApiChunkedUploadModel model;
    model.uploadId = uploadId;
    model.hash = m_task->hash();
    model.length = m_task->length();
    model.sourcePath = m_task->info().localFile.path;
    model.sourceOffset = m_task->loc();
    return model;
}

void CKXBlockTransfer::uploadBlock(const QueryCall& query, const SendCall& send)
{
    const QString id = m_task->taskId();
    const int idx = m_task->idx();
    const long long loc = m_task->loc();
    const long long length = m_task->length();
    TLOG_FATAL(
        QStringLiteral("上传文件块数据 block %1 idx:%2 loc:%3 len:%4").arg(id).arg(idx).arg(loc).arg(length));
    if (!ensureHash() || stopForCancel()) {
        return;
    }
    CKXQueryHashParse queryParser;
    requestAndWait(query, queryParser);
    TLOG_FATAL(
        QStringLiteral("QueryHash 完成 block %1 idx:%2 loc:%4 len:%3").arg(id).arg(idx).arg(length).arg(loc));
    if (queryParser.hasError()) {
        failFromParser(queryParser);
    } else if (!queryParser.need_upload()) {
        quickTransfer();
    } else if (!stopForCancel()) {
        sendBlock(queryParser.upload_id(), send);
    }
}

void CKXBlockTransfer::quickTransfer()
{
    const long long length = m_task->length();
    TLOG_FATAL(QStringLiteral("秒传 block %1 idx:%2 loc:%3 len:%4")
                   .arg(m_task->taskId())
                   .arg(m_task->idx())
                   .arg(m_task->loc())
                   .arg(length));
    m_task->setQuickTrans(true);
    const long long delta = qMax(length - m_task->sent(), 0LL);
    m_task->setSent(length);
    emit progress(this, m_task, delta, length);
    compelteHandler();
}

void CKXBlockTransfer::sendBlock(const QString& uploadId, const SendCall& send)
{
    // The file is checked as a read of the block would check it; the bytes themselves are read
    // while they are sent, so that a block in flight holds no memory of its size.
    QFile file;
    QString msg;
    const int openCode = openBlock(file, msg);
    file.close();
    if (openCode != 0) {
        errorHandler(ErrorCode(openCode), msg, 200);
        return;
    }
    CKXChunkedUploadParse parser;
    requestAndWait(
        [&](ServerApi::ResponseCallback done) {
            return send(uploadId, done, [this](const UploadProgressData& report) {
                progressHandler(report.bytesSent, report.bytesTotal);
            });
        },
        parser);
    if (parser.hasError()) {
        failFromParser(parser);
        return;
    }
    const QString localHash = m_task->hash();
    if (parser.hash() != localHash) {
        const QString text = QStringLiteral("[TRANSFER] ChunkedUpload 文件hash 比对不一致");
        TLOG_FATAL(text);
        TLOG_FATAL(QStringLiteral("block %1 ChunkedUpload 文件hash 比对不一致 local:%2 ChunkedUpload:%3")
                       .arg(m_task->taskId(), localHash, parser.hash()));
        errorHandler(UploadHashError, text, 200);
        return;
    }
    TLOG_FATAL(QStringLiteral("ChunkedUpload 完成"));
    compelteHandler();
}

bool CKXBlockTransfer::ensureHash()
{
    if (m_hasher) {
        m_hasher->claim(m_task);
    }
    if (!m_task->hash().isEmpty()) {
        return true;
    }
    QFile file;
    QString msg;
    int code = openBlock(file, msg);
    const QString hash = code == 0 ? KXUtil::SHA256(&file, m_task->length()) : QString();
    if (code == 0 && hash.isEmpty()) {
        code = failureCode(file);
        msg = file.error() != QFileDevice::NoError
                  ? file.errorString()
                  : QStringLiteral("%1 is shorter than its blocks").arg(m_task->info().localFile.path);
    }
    if (code != 0) {
        errorHandler(ErrorCode(code), msg, 200);
        return false;
    }
    m_task->setHash(hash);
    return true;
}

int CKXBlockTransfer::openBlock(QFile& file, QString& errMsg)
{
    return openForReading(file, m_task->info().localFile.path, m_task->loc(), errMsg);
}

int CKXBlockTransfer::openForReading(QFile& file, const QString& path, long long loc, QString& errMsg)
{
    if (!KXUtil::isExist(path)) {
        return LocalFileError;
    }
    file.setFileName(path);
    if (!file.open(QIODevice::ReadOnly | QIODevice::Unbuffered)) {
        TLOG_FATAL(QStringLiteral("打开文件出错:%1 %3 %3").arg(path).arg(file.errorString()));
        errMsg = file.errorString();
        return failureCode(file);
    }
    if (!file.seek(loc)) {
        TLOG_FATAL(
            QStringLiteral("移动文件seek失败 %1，文件: %2 seek loc %3").arg(m_task->taskId(), path).arg(loc));
        errMsg = file.errorString();
        return failureCode(file);
    }
    return 0;
}

int CKXBlockTransfer::getBlockData(const QString& path, long long loc, long long length, QByteArray& data,
                                   QString& errMsg)
{
    QFile file;
    const int code = openForReading(file, path, loc, errMsg);
    if (code != 0) {
        return code;
    }
    data = file.read(length);
    if (file.error() != QFileDevice::NoError) {
        errMsg = file.errorString();
        return failureCode(file);
    }
    return 0;
}

void CKXBlockTransfer::downloadTask()
{
    const SubTaskInfo record = m_task->info();
    downloadBlock([record](const QString& range, ServerApi::DataCallback onData,
                           ServerApi::ResponseCallback done, ServerApi::DownloadProgressCallback onProgress) {
        return ServerApi::DownloadRouter(CKXRequestModels::downloadRouter(record, range), onData, done,
                                         onProgress);
    });
}

void CKXBlockTransfer::deliveryDownloadTask()
{
    const SubTaskInfo record = m_task->info();
    downloadBlock([record](const QString& range, ServerApi::DataCallback onData,
                           ServerApi::ResponseCallback done, ServerApi::DownloadProgressCallback onProgress) {
        return ServerApi::DeliveryDownloadRouter(CKXRequestModels::deliveryDownloadRouter(record, range),
                                                 onData, done, onProgress);
    });
}

void CKXBlockTransfer::downloadBlock(const FetchCall& fetch)
{
    const QString id = m_task->taskId();
    const SubTaskInfo record = m_task->info();
    const QString tmp = KXUtil::tmpFile(record.localFile.path, record.subTaskId);
    if (!KXUtil::isExist(tmp) && !KXUtil::createFile(tmp)) {
        errorHandler(LocalFileError, tr("本地文件不存在"), 200);
        return;
    }
    const long long loc = m_task->loc();
    const QString range = QStringLiteral("bytes=%1-%2").arg(loc).arg(loc + m_task->length() - 1);
    TLOG_FATAL(QStringLiteral("文件块开始下载 %1 range:%2").arg(id, range));
    // Every block of the file writes through a handle of its own, only inside its own range.
    QFile file(tmp);
    if (!openAt(file, loc) || stopForCancel()) {
        return;
    }
    const QString name = KXUtil::fileName(tmp);
    // QFile forgets a failed write at the next write, and the last bytes reach the disk only when
    // flushed: the latest failure is kept here, and the flush comes before the block may count
    // as done.
    FileFailure failure;
    // What this block wrote, so that a resumed download can tell whether the file still holds it.
    // Taken on the library thread while each piece is still in its cache; read here only after the
    // answer's completion, which comes after the last piece.
    KXUtil::Fingerprint digest;
    const auto write = [&file, &failure, name](const QByteArray& chunk) {
        const qint64 position = file.pos();
        if (file.write(chunk) != chunk.size()) {
            TLOG_FATAL(QStringLiteral("本地写入数据失败,file {name %1 seek:%2 len:%3}")
                           .arg(name)
                           .arg(position)
                           .arg(chunk.size()));
            failure = FileFailure{failureCode(file), file.errorString()};
        }
    };
    PieceQueue pieces(tmp, write);
    const auto onData = [&pieces, &digest](const QByteArray& piece) {
        digest.add(piece.constData(), piece.size());
        pieces.push(piece);
    };
    const auto onProgress = [this](const DownloadProgressData& report) {
        progressHandler(report.bytesReceived, report.bytesTotal);
    };
    CKXDlRouterParse parser;
    requestAndWait(
        [&](ServerApi::ResponseCallback done) {
            const auto onResponse = [done, name](const ResponseData& response) {
                TLOG_FATAL(QStringLiteral("下载完成，保存到: %1").arg(name));
                done(response);
            };
            return fetch(range, onData, onResponse, onProgress);
        },
        parser);
    // The answer is complete, so nothing more is pushed; what the posted writes left goes now.
    pieces.writeQueued();
    if (!file.flush()) {
        failure = FileFailure{failureCode(file), file.errorString()};
    }
    file.close();
    m_task->setHash(digest.text());
    downloadAnswered(failure, parser);
}

bool CKXBlockTransfer::openAt(QFile& file, long long loc)
{
    // The error is taken before close(), which forgets it. Unbuffered: each piece of the answer is
    // one write, not several of QFile's buffer size.
    if (!file.open(QIODevice::ReadWrite | QIODevice::Unbuffered)) {
        const ErrorCode code = ErrorCode(failureCode(file));
        const QString text = file.errorString();
        TLOG_FATAL(QStringLiteral("打开文件出错:%1 %3 %3").arg(file.fileName()).arg(text));
        file.close();
        errorHandler(code, text, 200);
        return false;
    }
    if (!file.seek(loc)) {
        const ErrorCode code = ErrorCode(failureCode(file));
        const QString text = file.errorString();
        TLOG_FATAL(QStringLiteral("移动文件seek失败 %1，文件: %2 seek loc %3")
                       .arg(m_task->taskId(), file.fileName())
                       .arg(loc));
        file.close();
        errorHandler(code, text, 200);
        return false;
    }
    return true;
}

void CKXBlockTransfer::downloadAnswered(const FileFailure& failure, const KXBaseParse& parser)
{
    const QString id = m_task->taskId();
    if (failure.code != 0) {
        TLOG_FATAL(
            QStringLiteral("文件操作出错: %1  error:%2 msg:%3").arg(id).arg(failure.code).arg(failure.text));
        errorHandler(ErrorCode(failure.code), failure.text, 200);
    } else if (parser.hasError()) {
        failFromParser(parser);
    } else {
        TLOG_FATAL(QStringLiteral("文件块下载完成 %1").arg(id));
        compelteHandler();
    }
}

void CKXBlockTransfer::requestAndWait(const std::function<qint64(ServerApi::ResponseCallback)>& call,
                                      KXBaseParse& parser)
{
    const Pending pending = newRequest();
    const qint64 id =
        call(completion(pending, [&parser](const ResponseData& response) { parser.ParseResp(response); }));
    m_request.store(id);
    // A cancel that came while the request was being started could not abort it yet.
    if (isCancelled()) {
        ServerApi::Cancel(id);
    }
    waitFor(pending);
    m_request.store(0);
}

void CKXBlockTransfer::failFromParser(const KXBaseParse& parser)
{
    if (stopForCancel()) {
        return;
    }
    errorHandler(ErrorCode(parser.errorCode()), parser.errorMsg().message, parser.statusCode());
}

bool CKXBlockTransfer::stopForCancel()
{
    if (!isCancelled()) {
        return false;
    }
    if (!(m_task->state() & (BlockTaskStateError | BlockTaskStateCompleted))) {
        m_task->setState(BlockTaskStatePaused);
    }
    return true;
}

void CKXBlockTransfer::progressHandler(long long now, long long total)
{
    const long long delta = qMax(now - m_task->sent(), 0LL);
    m_task->setSent(now);
    emit progress(this, m_task, delta, total);
}

void CKXBlockTransfer::compelteHandler()
{
    TLOG_FATAL(QStringLiteral("块任务完成 %1 idx %2").arg(m_task->taskId()).arg(m_task->idx()));
    const long long length = m_task->length();
    m_task->setState(BlockTaskStateCompleted);
    m_task->setSent(length);
    m_task->setTotal(length);
    m_task->setErrorCode(0);
    m_task->setErrorMsg(QString());
    saveDB();
    reportOnce(0);
}

void CKXBlockTransfer::errorHandler(ErrorCode code, QString msg, int statusCode)
{
    TLOG_FATAL(QStringLiteral("块任务失败 %1 %2").arg(code).arg(msg));
    // A full disk reads as the space check's refusal does, code and text, so that the transfer
    // reports it to the client as such.
    if (code == 4 && msg == kNoSpaceText) {
        msg = tr("空间不足 请释放空间后再尝试下载");
        code = NoSpace;
    }
    m_task->setErrorCode(code);
    m_task->setStatusCode(statusCode);
    if (!msg.isEmpty()) {
        m_task->setErrorMsg(msg);
    }
    // Not saved: the stored row keeps the block's last good state for the next attempt.
    m_task->setState(BlockTaskStateError);
    reportOnce(code);
}

void CKXBlockTransfer::cancelTask()
{
    // The request is aborted before the report goes out, so that whoever files the block on the
    // report and waits for this thread never waits for a server answer.
    cancel();
    ServerApi::Cancel(m_request.load());
    cancelHandler();
}

void CKXBlockTransfer::cancelHandler()
{
    TLOG_FATAL(QStringLiteral("主动取消块传输任务 %1 idx %2").arg(m_task->taskId()).arg(m_task->idx()));
    if (!(m_task->state() & (BlockTaskStateError | BlockTaskStateCompleted))) {
        m_task->setState(BlockTaskStatePaused);
    }
    reportOnce(0);
}

void CKXBlockTransfer::saveDB()
{
    TLOG_FATAL(QStringLiteral("块任务完成入库 %1").arg(m_task->taskId()));
    CKXTFStoreManager::inst()->db()->AddBlockTask(*m_task);
}

void CKXBlockTransfer::reportOnce(int errorCode)
{
    if (!m_reported.exchange(true)) {
        emit complete(this, m_task, errorCode);
    }
}
