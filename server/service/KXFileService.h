#pragma once

// The file operations behind both the account routes and the share-link routes, once the caller
// has authenticated the request and resolved its target: whole-file upload and download (with
// one byte range), hash query, block upload and commit.
//
// Created once by the server and used by all connection threads; it keeps no state of its own.

#include "core/KXServerTypes.h"

#include <QJsonObject>

#include <set>
#include <string>
#include <vector>

namespace httplib {
struct Request;
}

class CKXBlockStore;
class CKXMetaStore;
class CKXRequest;
class CKXServerStats;
struct ServerOptions;

class CKXFileService
{
public:
    CKXFileService(CKXMetaStore& meta, CKXBlockStore& blocks, CKXServerStats& stats,
                   const ServerOptions& options);

    // The upload session of a target: the same file (space, path, size) always gets the same id.
    static std::string uploadIdFor(const Target& target, qint64 size);
    static QJsonObject metadataJson(const EntryInfo& entry);

    // Everything that can be refused before any byte is sent: name suffix, parents, folder in the
    // way, existing name, lock, quota.
    ServerError checkUpload(const Target& target, bool overwrite, qint64 size);
    // checkUpload for a whole-file body, whose Content-Length is required.
    ServerError preflightFile(const httplib::Request& req, const Target& target, bool overwrite);
    // Block uploads: a Content-Length of at most 4 MiB, a well-formed hash and an upload_id.
    static ServerError preflightBlock(const httplib::Request& req);
    ServerError uploadSession(const std::string& id, UploadSession* out);
    // A block of `session` that its hash query offered and that fits in the quota.
    ServerError admitBlock(const httplib::Request& req, const UploadSession& session);

    void receiveFile(CKXRequest& r, const Target& target, bool overwrite, qint64 mtime);
    void sendFile(CKXRequest& r, const Target& target, const std::string& rev, const char* notFoundCode);
    // Blocks count as present only where `reach` proves the requester has them (see Reach).
    void queryHash(CKXRequest& r, const Target& target, qint64 size, bool overwrite,
                   const std::vector<std::string>& hashes, const Reach& reach);
    void receiveBlock(CKXRequest& r, const UploadSession& session, const std::string& hash);
    // `params.blocks` is filled here from `hashes`; `uploadId` may be empty. A block `reach`
    // does not prove is missing. A successful commit closes the upload session.
    void commit(CKXRequest& r, CommitParams params, const std::vector<std::string>& hashes,
                const std::string& uploadId, const Reach& reach);

private:
    ServerError makeDurable(const std::vector<BlockRef>& blocks) const;
    // The hashes of `hashes` the store holds and `reach` proves.
    std::set<std::string> presentFor(const Reach& reach, const std::vector<std::string>& hashes);
    ServerError resolveUploadId(const Target& target, qint64 size, const std::string& given,
                                std::string* out);
    // The file to download with its blocks, all present on disk.
    ServerError locateFile(const Target& target, const std::string& rev, const char* notFoundCode,
                           EntryInfo* entry, std::vector<BlockRef>* blocks);
    void streamBody(CKXRequest& r, std::vector<BlockRef> blocks, qint64 start, qint64 length);

    CKXMetaStore& m_meta;
    CKXBlockStore& m_blocks;
    CKXServerStats& m_stats;
    const ServerOptions& m_options;
};
