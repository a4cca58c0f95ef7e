#pragma once

// The file operations behind both the account routes and the share-link routes, once the caller
// has authenticated the request and resolved its target: whole-file upload and download (with
// one byte range), hash query, block upload and commit.
//
// It answers in values and records, never in HTTP: the api layer reads the request for it and
// turns what it returns into the response.
//
// Created once by the server and used by all connection threads; it keeps no state of its own.

#include "core/KXServerTypes.h"

#include <functional>
#include <set>
#include <string>
#include <vector>

class CKXBlockStore;
class CKXMetaStore;
class CKXServerStats;
struct ServerOptions;

class CKXFileService
{
public:
    // Takes bytes as they come; false stops the flow.
    using ByteSink = std::function<bool(const char* data, size_t size)>;
    // A request body: feeds it to the sink as it arrives; false when it ended early or the sink
    // refused a piece.
    using BodyReader = std::function<bool(const ByteSink& sink)>;

    // A file to send: found by locateFile(), its bytes chosen by selectRange().
    struct FileRead
    {
        EntryInfo entry;
        std::vector<BlockRef> blocks;
        bool partial = false; // one range of the file, not the whole of it
        qint64 start = 0;
        qint64 length = 0;
        // Writes up to `want` bytes from `offset` into the chosen bytes to `write`, counted as
        // download traffic once written; false when none could be read or written.
        std::function<bool(qint64 offset, qint64 want, const ByteSink& write)> read;
    };

    // What a hash query or a commit leaves to send: `needed` lists the blocks still missing
    // (for a commit: nothing was committed), else `entry` is the committed file.
    struct UploadState
    {
        std::string uploadId;
        std::vector<std::string> needed;
        EntryInfo entry;
    };

    CKXFileService(CKXMetaStore& meta, CKXBlockStore& blocks, CKXServerStats& stats,
                   const ServerOptions& options);

    // The upload session of a target: the same file (space, path, size) always gets the same id.
    static std::string uploadIdFor(const Target& target, qint64 size);

    // Everything that can be refused before any byte is sent: name suffix, parents, folder in the
    // way, existing name, lock, quota.
    ServerError checkUpload(const Target& target, bool overwrite, qint64 size);
    // checkUpload for a whole-file body, whose Content-Length is required.
    ServerError preflightFile(const std::string& contentLength, const Target& target, bool overwrite);
    // Block uploads: a Content-Length of at most 4 MiB, a well-formed hash and an upload_id.
    static ServerError preflightBlock(const std::string& contentLength, const std::string& uploadId,
                                      const std::string& hash);
    ServerError uploadSession(const std::string& id, UploadSession* out);
    // A block of `session` that its hash query offered and that fits in the quota.
    ServerError admitBlock(const std::string& contentLength, const std::string& hash,
                           const UploadSession& session);

    // Stores a whole-file body of `contentLength` bytes as `target`.
    ServerError receiveFile(const BodyReader& body, const std::string& contentLength, const Target& target,
                            bool overwrite, qint64 mtime, EntryInfo* stored);
    // The file to download with its blocks, all present on disk.
    ServerError locateFile(const Target& target, const std::string& rev, const char* notFoundCode,
                           FileRead* out);
    // The bytes of a located file that `range` (a Range header, empty: all) asks for; 416
    // "invalid range" when it cannot be served.
    ServerError selectRange(const std::string& range, FileRead* file);
    // Blocks count as present only where `reach` proves the requester has them (see Reach).
    ServerError queryHash(const Target& target, qint64 size, bool overwrite,
                          const std::vector<std::string>& hashes, const Reach& reach, UploadState* out);
    // Stores one block of `session`; `stored` is the hash its bytes have.
    ServerError receiveBlock(const BodyReader& body, const std::string& contentLength,
                             const UploadSession& session, const std::string& hash, std::string* stored);
    // `params.blocks` is filled here from `hashes`; `uploadId` may be empty. A block `reach`
    // does not prove is missing. A successful commit closes the upload session.
    ServerError commit(CommitParams params, const std::vector<std::string>& hashes,
                       const std::string& uploadId, const Reach& reach, UploadState* out);

private:
    ServerError makeDurable(const std::vector<BlockRef>& blocks) const;
    // The hashes of `hashes` the store holds and `reach` proves.
    std::set<std::string> presentFor(const Reach& reach, const std::vector<std::string>& hashes);
    ServerError resolveUploadId(const Target& target, qint64 size, const std::string& given,
                                std::string* out);

    CKXMetaStore& m_meta;
    CKXBlockStore& m_blocks;
    CKXServerStats& m_stats;
    const ServerOptions& m_options;
};
