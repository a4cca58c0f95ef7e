#include "ServerApi.h"

#include "KXCurlEngine.h"
#include "KXRequestBuilder.h"

#include <QJsonArray>
#include <QUrl>

namespace {

QString pathTypeOf(const KXServerApiEntryModel& entry)
{
    return entry.pathType.isEmpty() ? QStringLiteral("self") : entry.pathType;
}

QString overwriteOf(const QString& overwrite)
{
    return overwrite == QLatin1String("true") ? QStringLiteral("true") : QStringLiteral("false");
}

QString flagOf(bool value)
{
    return value ? QStringLiteral("1") : QStringLiteral("0");
}

QJsonArray hashArray(const QStringList& hashes)
{
    return QJsonArray::fromStringList(hashes);
}

QString shareRoot(const QString& code)
{
    return QStringLiteral("/v1/share/") + QString::fromLatin1(QUrl::toPercentEncoding(code));
}

// The addressing every account operation on an entry shares.
CKXRequestBuilder entryRequest(const KXServerApiEntryModel& entry, const QString& path)
{
    CKXRequestBuilder builder(entry.host);
    builder.path(path).require(!entry.path.isEmpty(), "remote path").accountSession();
    return builder;
}

CKXRequestBuilder shareRequest(const KXServerApiDeliveryDataModel& link, const QString& path)
{
    CKXRequestBuilder builder(link.host);
    builder.path(shareRoot(link.code) + path).require(!link.code.isEmpty(), "share-link code");
    return builder;
}

QJsonObject entryBody(const KXServerApiEntryModel& entry, qint64 size)
{
    QJsonObject body;
    body.insert(QStringLiteral("path"), entry.path);
    body.insert(QStringLiteral("pathtype"), pathTypeOf(entry));
    body.insert(QStringLiteral("size"), double(size));
    body.insert(QStringLiteral("overwrite"), overwriteOf(entry.overwrite));
    return body;
}

bool blockConsistent(const KXServerApiChunkedUploadModel& block)
{
    if (block.uploadId.isEmpty() || block.hash.isEmpty())
        return false;
    if (block.data.isEmpty() && !block.sourcePath.isEmpty())
        return block.length > 0 && block.sourceOffset >= 0;
    // An unset length (0) means "all of data".
    return block.length == 0 || block.length == block.data.size();
}

// The block's bytes, from memory or streamed from its file range.
CKXRequestBuilder& putBlock(CKXRequestBuilder& builder, const KXServerApiChunkedUploadModel& block)
{
    if (block.data.isEmpty() && !block.sourcePath.isEmpty())
        return builder.putFileRange(block.sourcePath, block.sourceOffset, block.length);
    return builder.putData(block.data);
}

} // namespace

namespace ServerApi {

qint64 MetaData(const KXServerApiMetaEntryModel& model, ResponseCallback onResponse)
{
    const KXServerApiEntryModel& entry = model.entry;
    return entryRequest(entry, QStringLiteral("/v1/metadata"))
        .query("path", entry.path)
        .query("pathtype", pathTypeOf(entry))
        .query("list", flagOf(model.list))
        .query("include_files", flagOf(model.includeFiles))
        .query("sort", model.sortBy.isEmpty() ? QStringLiteral("name") : model.sortBy)
        .query("order", model.sortOrder.isEmpty() ? QStringLiteral("asc") : model.sortOrder)
        .query("offset", QString::number(model.offset))
        .query("limit", QString::number(model.pageSize))
        .retryable()
        .receiveText(std::move(onResponse));
}

qint64 AuthUpload(const KXServerApiEntryModel& model, qint64 fileSize, ResponseCallback onResponse,
                  const QString& route)
{
    QJsonObject body = entryBody(model, fileSize);
    body.insert(QStringLiteral("route"), route);
    return entryRequest(model, QStringLiteral("/v1/upload/auth"))
        .require(fileSize >= 0, "file size")
        .postJson(body)
        .receiveText(std::move(onResponse));
}

qint64 UploadFile(const KXServerApiUploadFileModel& model, ResponseCallback onResponse,
                  UploadProgressCallback onProgress)
{
    const KXServerApiEntryModel& entry = model.entry;
    return entryRequest(entry, QStringLiteral("/v1/files"))
        .query("path", entry.path)
        .query("pathtype", pathTypeOf(entry))
        .query("overwrite", overwriteOf(entry.overwrite))
        .query("source", model.source)
        .query("mtime", entry.modifyTime)
        .putFile(model.localPath, model.size)
        .sendWithProgress(std::move(onResponse), std::move(onProgress));
}

qint64 DownloadRouter(const KXSeverApiDLRouterModel& model, DataCallback onData, ResponseCallback onResponse,
                      DownloadProgressCallback onProgress)
{
    const KXServerApiEntryModel& entry = model.entry;
    return entryRequest(entry, QStringLiteral("/v1/files"))
        .query("path", entry.path)
        .query("pathtype", pathTypeOf(entry))
        .query("rev", entry.rev)
        .query("source", model.source)
        .range(model.range)
        .retryable()
        .receiveData(std::move(onData), std::move(onResponse), std::move(onProgress));
}

qint64 QueryHash(const KXServerApiQueryHashModel& model, ResponseCallback onResponse, const QString& route)
{
    QJsonObject body = entryBody(model.entry, model.fileSize);
    body.insert(QStringLiteral("route"), route);
    body.insert(QStringLiteral("hashes"), hashArray(model.blockHashes));
    return entryRequest(model.entry, QStringLiteral("/v1/upload/hash"))
        .postJson(body)
        .retryable()
        .receiveText(std::move(onResponse));
}

qint64 ChunkedUpload(const KXServerApiChunkedUploadModel& model, ResponseCallback onResponse,
                     UploadProgressCallback onProgress, const QString& /*route*/)
{
    CKXRequestBuilder builder;
    builder.path(QStringLiteral("/v1/upload/block"))
        .require(blockConsistent(model), "block (upload id, hash or length)")
        .accountSession()
        .query("upload_id", model.uploadId)
        .query("hash", model.hash);
    return putBlock(builder, model)
        .retryable()
        .sendWithProgress(std::move(onResponse), std::move(onProgress));
}

qint64 CommitHash(const KXServerApiCommitHashModel& model, ResponseCallback onResponse,
                  const QString& /*route*/)
{
    QJsonObject body = entryBody(model.entry, model.size);
    if (!model.uploadId.isEmpty())
        body.insert(QStringLiteral("upload_id"), model.uploadId);
    body.insert(QStringLiteral("make_parents"), model.makeParents);
    body.insert(QStringLiteral("verify"), model.verify);
    body.insert(QStringLiteral("source"), model.source);
    body.insert(QStringLiteral("hashes"), hashArray(model.blockHashes));
    return entryRequest(model.entry, QStringLiteral("/v1/upload/commit"))
        .postJson(body)
        .receiveText(std::move(onResponse));
}

qint64 DeliveryAuthUpload(const KXServerApiDeliveryAuthUploadModel& model, ResponseCallback onResponse)
{
    QJsonObject body;
    body.insert(QStringLiteral("token"), model.token);
    body.insert(QStringLiteral("path"), model.path);
    body.insert(QStringLiteral("name"), model.name);
    body.insert(QStringLiteral("size"), double(model.size));
    body.insert(QStringLiteral("overwrite"), overwriteOf(model.overwrite));
    return CKXRequestBuilder(model.host)
        .path(shareRoot(model.code) + QStringLiteral("/auth"))
        .require(!model.code.isEmpty(), "share-link code")
        .require(!model.name.isEmpty(), "file name")
        .postJson(body)
        .receiveText(std::move(onResponse));
}

qint64 DeliveryQueryHash(const KXServerApiDeliveryQueryHashModel& model, ResponseCallback onResponse)
{
    QJsonObject body;
    body.insert(QStringLiteral("path"), model.link.path);
    body.insert(QStringLiteral("size"), double(model.link.size));
    body.insert(QStringLiteral("overwrite"), overwriteOf(model.link.overwrite));
    body.insert(QStringLiteral("hashes"), hashArray(model.blockHashes));
    return shareRequest(model.link, QStringLiteral("/upload/hash"))
        .shareSession(model.link.sessionId)
        .postJson(body)
        .retryable()
        .receiveText(std::move(onResponse));
}

qint64 DeliveryChunkedUpload(const KXServerApiDeliveryChunkedUploadModel& model, ResponseCallback onResponse,
                             UploadProgressCallback onProgress)
{
    CKXRequestBuilder builder = shareRequest(model.link, QStringLiteral("/upload/block"));
    builder.require(blockConsistent(model.block), "block (upload id, hash or length)")
        .shareSession(model.link.sessionId)
        .query("upload_id", model.block.uploadId)
        .query("hash", model.block.hash);
    return putBlock(builder, model.block).sendWithProgress(std::move(onResponse), std::move(onProgress));
}

qint64 DeliveryCommitHash(const KXServerApiDeliveryCommitHashModel& model, ResponseCallback onResponse)
{
    QJsonObject body;
    body.insert(QStringLiteral("path"), model.link.path);
    if (!model.uploadId.isEmpty())
        body.insert(QStringLiteral("upload_id"), model.uploadId);
    body.insert(QStringLiteral("size"), double(model.size));
    body.insert(QStringLiteral("overwrite"), overwriteOf(model.link.overwrite));
    body.insert(QStringLiteral("hashes"), hashArray(model.blockHashes));
    return shareRequest(model.link, QStringLiteral("/upload/commit"))
        .shareSession(model.link.sessionId)
        .postJson(body)
        .receiveText(std::move(onResponse));
}

qint64 DeliveryUploadFile(const KXServerApiDeliveryUploadFileModel& model, ResponseCallback onResponse,
                          UploadProgressCallback onProgress)
{
    return shareRequest(model, QStringLiteral("/files"))
        .shareSession(model.sessionId)
        .query("path", model.path)
        .query("overwrite", overwriteOf(model.overwrite))
        .putFile(model.localPath, model.size)
        .sendWithProgress(std::move(onResponse), std::move(onProgress));
}

qint64 DeliveryDownloadFile(const KXServerApiDeliveryDownloadFileModel& model, ResponseCallback onResponse,
                            DownloadProgressCallback onProgress)
{
    return shareRequest(model, QStringLiteral("/files"))
        .shareToken(model.token)
        .query("path", model.path)
        .receiveFile(model.localPath, std::move(onResponse), std::move(onProgress));
}

qint64 DeliveryDownloadRouter(const KXSeverApiDeliveryDLRouterModel& model, DataCallback onData,
                              ResponseCallback onResponse, DownloadProgressCallback onProgress)
{
    return shareRequest(model.link, QStringLiteral("/files"))
        .shareToken(model.link.token)
        .query("path", model.link.path)
        .range(model.range)
        .receiveData(std::move(onData), std::move(onResponse), std::move(onProgress));
}

qint64 Upload(const QString& localPath, const QString& address, ResponseCallback onResponse,
              UploadProgressCallback onProgress)
{
    return CKXRequestBuilder::fromAddress(address)
        .putFile(localPath, -1)
        .sendWithProgress(std::move(onResponse), std::move(onProgress));
}

qint64 Download(const QString& address, DataCallback onData, ResponseCallback onResponse,
                DownloadProgressCallback onProgress)
{
    return CKXRequestBuilder::fromAddress(address).followRedirects().retryable().receiveData(
        std::move(onData), std::move(onResponse), std::move(onProgress));
}

qint64 RPCServerLogging(const QString& event, const QString& folder, const QString& name,
                        const QString& pathType, const QString& neid, const QString& extra1,
                        const QString& extra2, ResponseCallback onResponse)
{
    QJsonObject body;
    body.insert(QStringLiteral("event"), event);
    body.insert(QStringLiteral("folder"), folder);
    body.insert(QStringLiteral("name"), name);
    body.insert(QStringLiteral("pathtype"), pathType.isEmpty() ? QStringLiteral("self") : pathType);
    body.insert(QStringLiteral("neid"), neid);
    body.insert(QStringLiteral("extra1"), extra1);
    body.insert(QStringLiteral("extra2"), extra2);
    return CKXRequestBuilder()
        .path(QStringLiteral("/v1/log"))
        .accountSession()
        .postJson(body)
        .receiveText(std::move(onResponse));
}

void Cancel(qint64 requestId)
{
    CKXCurlEngine::inst().cancel(requestId);
}

} // namespace ServerApi
