#include "KXFileApi.h"

#include "http/KXRequest.h"
#include "service/KXFileService.h"

#include <QJsonArray>

#include <httplib.h>

namespace KXFileApi {

namespace {

std::string flipLastDigit(std::string hash)
{
    hash.back() = hash.back() == '0' ? '1' : '0';
    return hash;
}

QJsonArray hashArray(const std::vector<std::string>& hashes)
{
    QJsonArray array;
    for (const std::string& hash : hashes) {
        array.append(QString::fromStdString(hash));
    }
    return array;
}

CKXFileService::BodyReader bodyOf(CKXRequest& r)
{
    return [&r](const CKXFileService::ByteSink& sink) {
        return r.readBody(sink);
    };
}

} // namespace

QJsonObject metadataJson(const EntryInfo& entry)
{
    return QJsonObject{{"path", QString::fromStdString(entry.path)},
                       {"is_dir", entry.isDir},
                       {"bytes", static_cast<double>(entry.size)},
                       {"rev", QString::number(entry.rev)},
                       {"neid", QString::number(entry.id)},
                       {"modified", static_cast<double>(entry.mtime)},
                       {"blocks", static_cast<double>(entry.blockCount)}};
}

ServerError preflightFile(CKXFileService& files, const httplib::Request& req, const Target& target,
                          bool overwrite)
{
    return files.preflightFile(req.get_header_value("Content-Length"), target, overwrite);
}

ServerError preflightBlock(const httplib::Request& req)
{
    return CKXFileService::preflightBlock(req.get_header_value("Content-Length"),
                                          req.get_param_value("upload_id"), req.get_param_value("hash"));
}

ServerError admitBlock(CKXFileService& files, const httplib::Request& req, const UploadSession& session)
{
    return files.admitBlock(req.get_header_value("Content-Length"), req.get_param_value("hash"), session);
}

void receiveFile(CKXRequest& r, CKXFileService& files, const Target& target, bool overwrite, qint64 mtime)
{
    EntryInfo entry;
    ServerError e =
        files.receiveFile(bodyOf(r), r.header("Content-Length"), target, overwrite, mtime, &entry);
    if (!e.ok()) {
        return r.replyError(e);
    }
    r.replyJson(metadataJson(entry));
}

void sendFile(CKXRequest& r, CKXFileService& files, const Target& target, const std::string& rev,
              const char* notFoundCode)
{
    CKXFileService::FileRead file;
    ServerError e = files.locateFile(target, rev, notFoundCode, &file);
    if (!e.ok()) {
        return r.replyError(e);
    }
    // httplib would cut the body a second time by its own reading of Range (without clamping
    // the end to the file); ranges are answered here alone. The Request object is httplib's own
    // non-const local, so clearing it is safe.
    const_cast<httplib::Request&>(r.http()).ranges.clear();
    httplib::Response& res = r.response();
    const std::string range = r.header("Range");
    e = files.selectRange(range, &file);
    const std::string size = std::to_string(file.entry.size);
    if (!e.ok()) {
        res.set_header("Content-Range", "bytes */" + size);
        return r.replyError(e);
    }
    if (file.partial) {
        res.set_header("Content-Range", "bytes " + std::to_string(file.start) + "-" +
                                            std::to_string(file.start + file.length - 1) + "/" + size);
    }
    res.status = file.partial ? 206 : 200;
    res.set_header("Accept-Ranges", "bytes");
    res.set_header("ETag", "\"" + std::to_string(file.entry.rev) + "\"");
    r.replyStream(file.length, std::move(file.read));
}

void queryHash(CKXRequest& r, CKXFileService& files, const Target& target, qint64 size, bool overwrite,
               const std::vector<std::string>& hashes, const Reach& reach)
{
    CKXFileService::UploadState state;
    ServerError e = files.queryHash(target, size, overwrite, hashes, reach, &state);
    if (!e.ok()) {
        return r.replyError(e);
    }
    r.replyJson(QJsonObject{{"upload_id", QString::fromStdString(state.uploadId)},
                            {"needed_block", hashArray(state.needed)}});
}

void receiveBlock(CKXRequest& r, CKXFileService& files, const UploadSession& session)
{
    const std::string hash = QString::fromStdString(r.param("hash")).toLower().toStdString();
    std::string stored;
    ServerError e = files.receiveBlock(bodyOf(r), r.header("Content-Length"), session, hash, &stored);
    if (!e.ok()) {
        return r.replyError(e);
    }
    std::string answered = r.faultIs("wrong_hash") ? flipLastDigit(stored) : stored;
    r.replyJson(QJsonObject{{"upload_id", QString::fromStdString(session.id)},
                            {"hash", QString::fromStdString(answered)},
                            {"status", QStringLiteral("ok")}});
}

void commit(CKXRequest& r, CKXFileService& files, const CommitParams& params,
            const std::vector<std::string>& hashes, const std::string& uploadId, const Reach& reach)
{
    CKXFileService::UploadState state;
    ServerError e = files.commit(params, hashes, uploadId, reach, &state);
    if (!e.ok()) {
        return r.replyError(e);
    }
    const QString id = QString::fromStdString(state.uploadId);
    if (!state.needed.empty()) {
        return r.replyJson(QJsonObject{{"needed_block", hashArray(state.needed)}, {"upload_id", id}});
    }
    r.replyJson(QJsonObject{
        {"needed_block", QJsonArray()}, {"upload_id", id}, {"metadata", metadataJson(state.entry)}});
}

} // namespace KXFileApi
