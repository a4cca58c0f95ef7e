#include "KXFileService.h"

#include "core/KXServerOptions.h"
#include "core/KXServerPath.h"
#include "core/KXSha256.h"
#include "ops/KXServerStats.h"
#include "store/KXBlockCutter.h"
#include "store/KXBlockStore.h"
#include "store/KXMetaStore.h"
#include "store/KXRangeReader.h"

#include <QString>

#include <algorithm>
#include <array>
#include <cctype>
#include <ctime>
#include <memory>
#include <set>
#include <string_view>

namespace {

bool parseCount(const std::string& text, qint64* out)
{
    if (text.empty() || text.size() > 18 ||
        !std::all_of(text.begin(), text.end(), [](unsigned char c) { return std::isdigit(c) != 0; })) {
        return false;
    }
    *out = std::stoll(text);
    return true;
}

std::string trim(const std::string& text)
{
    size_t first = text.find_first_not_of(" \t");
    size_t last = text.find_last_not_of(" \t");
    return first == std::string::npos ? std::string() : text.substr(first, last - first + 1);
}

// One "bytes=a-b", "bytes=a-" or "bytes=-n" range against a file of `size` bytes; false when it
// cannot be satisfied (several ranges included: the protocol serves exactly one).
bool parseRange(const std::string& header, qint64 size, qint64* start, qint64* end)
{
    std::string params = trim(header);
    if (params.compare(0, 6, "bytes=") != 0 || params.find(',') != std::string::npos) {
        return false;
    }
    size_t dash = params.find('-', 6);
    if (dash == std::string::npos || size <= 0) {
        return false;
    }
    std::string first = trim(params.substr(6, dash - 6));
    std::string last = trim(params.substr(dash + 1));
    qint64 a = 0;
    qint64 b = size - 1;
    if (first.empty()) {
        if (!parseCount(last, &a) || a == 0) {
            return false;
        }
        a = std::max<qint64>(0, size - a);
    } else if (!parseCount(first, &a) || (!last.empty() && !parseCount(last, &b))) {
        return false;
    }
    b = std::min(b, size - 1);
    if (a >= size || a > b) {
        return false;
    }
    *start = a;
    *end = b;
    return true;
}

bool hasDeniedSuffix(const std::string& name, const std::vector<std::string>& suffixes)
{
    auto lower = [](std::string s) {
        std::transform(s.begin(), s.end(), s.begin(), [](unsigned char c) { return std::tolower(c); });
        return s;
    };
    std::string lowered = lower(name);
    for (const std::string& suffix : suffixes) {
        std::string s = lower(suffix);
        if (!s.empty() && lowered.size() >= s.size() &&
            lowered.compare(lowered.size() - s.size(), s.size(), s) == 0) {
            return true;
        }
    }
    return false;
}

qint64 now()
{
    return static_cast<qint64>(std::time(nullptr));
}

} // namespace

CKXFileService::CKXFileService(CKXMetaStore& meta, CKXBlockStore& blocks, CKXServerStats& stats,
                               const ServerOptions& options)
    : m_meta(meta), m_blocks(blocks), m_stats(stats), m_options(options)
{}

std::string CKXFileService::uploadIdFor(const Target& target, qint64 size)
{
    return CKXSha256::hex("kx-upload:" + target.space + "\n" + target.path + "\n" + std::to_string(size))
        .substr(0, 32);
}

ServerError CKXFileService::checkUpload(const Target& target, bool overwrite, qint64 size)
{
    if (hasDeniedSuffix(KXServerPath::nameOf(target.path), m_options.denySuffixes)) {
        return ServerError::make(415, "file type limit", "files named like " + target.path + " are refused");
    }
    return m_meta.checkTarget(target, overwrite, size, m_options.quota);
}

ServerError CKXFileService::preflightFile(const std::string& contentLength, const Target& target,
                                          bool overwrite)
{
    qint64 length = 0;
    if (!parseCount(contentLength, &length)) {
        return ServerError::make(411, "bad request", "a whole-file upload needs a Content-Length");
    }
    return checkUpload(target, overwrite, length);
}

ServerError CKXFileService::preflightBlock(const std::string& contentLength, const std::string& uploadId,
                                           const std::string& hash)
{
    qint64 length = 0;
    // Without a length the body's end is not known before it is read, nor whether it fits.
    if (contentLength.empty()) {
        return ServerError::make(411, "bad request", "a block upload needs a Content-Length");
    }
    if (!parseCount(contentLength, &length) || length > kBlockSize) {
        return ServerError::make(413, "block too large", "a block holds at most 4194304 bytes");
    }
    if (uploadId.empty()) {
        return ServerError::make(400, "bad request", "upload_id is required");
    }
    if (!CKXSha256::isHexDigest(QString::fromStdString(hash).toLower().toStdString())) {
        return ServerError::make(400, "bad request", "hash must be a SHA-256 in hex");
    }
    return {};
}

ServerError CKXFileService::uploadSession(const std::string& id, UploadSession* out)
{
    if (!m_meta.uploadSession(id, out)) {
        return ServerError::make(404, "source not found", "unknown upload_id " + id);
    }
    return {};
}

ServerError CKXFileService::admitBlock(const std::string& contentLength, const std::string& hash,
                                       const UploadSession& session)
{
    qint64 length = 0;
    parseCount(contentLength, &length);
    return m_meta.admitBlock(session, QString::fromStdString(hash).toLower().toStdString(), length,
                             m_options.quota);
}

ServerError CKXFileService::receiveFile(const BodyReader& body, const std::string& contentLength,
                                        const Target& target, bool overwrite, qint64 mtime, EntryInfo* stored)
{
    ServerError e = preflightFile(contentLength, target, overwrite);
    if (!e.ok()) {
        return e;
    }
    qint64 expected = 0;
    parseCount(contentLength, &expected);
    CKXBlockCutter cutter(m_blocks);
    bool received = body([&](const char* data, size_t size) {
        m_stats.add(CKXServerStats::FileUploadBytes, static_cast<qint64>(size));
        return cutter.feed(data, size);
    });
    bool complete = cutter.error().empty() && (!received || cutter.finish());
    m_stats.add(CKXServerStats::BlocksStored, cutter.storedCount());
    m_stats.add(CKXServerStats::BlocksDeduplicated, cutter.dedupCount());
    if (!complete) {
        return ServerError::make(500, "internal", cutter.error());
    }
    if (!received || cutter.total() != expected) {
        return ServerError::make(400, "bad request", "body shorter than Content-Length; nothing stored");
    }
    CommitParams params{target, cutter.blocks(), expected, mtime > 0 ? mtime : now(), overwrite,
                        true,   m_options.quota};
    e = makeDurable(params.blocks);
    e = e.ok() ? m_meta.commitFile(params, stored) : e;
    if (e.ok()) {
        m_stats.add(CKXServerStats::FileUploads);
    }
    return e;
}

ServerError CKXFileService::locateFile(const Target& target, const std::string& rev, const char* notFoundCode,
                                       FileRead* out)
{
    EntryInfo* entry = &out->entry;
    if (!m_meta.entry(target, entry) ||
        (!rev.empty() && !entry->isDir && rev != std::to_string(entry->rev))) {
        return ServerError::make(404, notFoundCode, "no such file (or revision): " + target.path);
    }
    if (entry->isDir) {
        return ServerError::make(409, "conflict with folder", target.path + " is a folder");
    }
    if (entry->virus) {
        return ServerError::make(403, "download_file_VirusF", target.path + " is flagged as a virus");
    }
    out->blocks = m_meta.blocksOf(entry->id);
    for (const BlockRef& block : out->blocks) {
        if (m_blocks.sizeOf(block.hash) != block.size) {
            return ServerError::make(500, "internal", "block " + block.hash + " is missing");
        }
    }
    return {};
}

ServerError CKXFileService::selectRange(const std::string& range, FileRead* file)
{
    qint64 start = 0;
    qint64 end = file->entry.size - 1;
    if (!range.empty() && !parseRange(range, file->entry.size, &start, &end)) {
        return ServerError::make(416, "invalid range", "cannot serve '" + range + "'");
    }
    file->partial = !range.empty();
    file->start = start;
    file->length = end - start + 1;
    auto reader = std::make_shared<CKXRangeReader>(m_blocks, file->blocks);
    CKXServerStats* stats = &m_stats;
    file->read = [reader, start, stats](qint64 offset, qint64 want, const ByteSink& write) {
        qint64 n = 0;
        const char* bytes = reader->view(start + offset, want, &n);
        if (n <= 0 || !write(bytes, static_cast<size_t>(n))) {
            return false;
        }
        stats->add(CKXServerStats::DownloadBytes, n);
        return true;
    };
    m_stats.add(CKXServerStats::Downloads);
    return {};
}

std::set<std::string> CKXFileService::presentFor(const Reach& reach, const std::vector<std::string>& hashes)
{
    std::vector<std::string> stored;
    for (const std::string& hash : hashes) {
        if (m_blocks.sizeOf(hash) >= 0) {
            stored.push_back(hash);
        }
    }
    return m_meta.provenBlocks(reach, stored);
}

ServerError CKXFileService::queryHash(const Target& target, qint64 size, bool overwrite,
                                      const std::vector<std::string>& hashes, const Reach& reach,
                                      UploadState* out)
{
    ServerError e = checkUpload(target, overwrite, size);
    if (!e.ok()) {
        return e;
    }
    UploadSession session{uploadIdFor(target, size), target.space, target.path, size};
    if (!m_meta.saveUploadSession(session, hashes)) {
        return ServerError::make(500, "internal", "cannot save the upload session");
    }
    std::set<std::string> present = presentFor(reach, hashes);
    std::set<std::string_view> seen;
    out->uploadId = session.id;
    out->needed.clear();
    for (const std::string& hash : hashes) {
        if (seen.insert(hash).second && !present.count(hash)) {
            out->needed.push_back(hash);
        }
    }
    m_stats.add(CKXServerStats::HashQueries);
    return {};
}

ServerError CKXFileService::receiveBlock(const BodyReader& body, const std::string& contentLength,
                                         const UploadSession& session, const std::string& hash,
                                         std::string* stored)
{
    qint64 announced = 0;
    parseCount(contentLength, &announced);
    std::string data;
    data.reserve(static_cast<size_t>(std::clamp<qint64>(announced, 0, kBlockSize)));
    bool tooLarge = false;
    // Hashed piece by piece as it arrives, while each piece is still in the CPU's cache: a second
    // pass over the whole block would read it back from memory.
    CKXSha256 sha;
    bool complete = body([&](const char* bytes, size_t size) {
        tooLarge = static_cast<qint64>(data.size() + size) > kBlockSize;
        if (!tooLarge) {
            data.append(bytes, size);
            sha.update(bytes, size);
        }
        return !tooLarge;
    });
    m_stats.add(CKXServerStats::BlockBytes, static_cast<qint64>(data.size()));
    if (tooLarge || !complete) {
        return tooLarge ? ServerError::make(413, "block too large", "a block holds at most 4194304 bytes")
                        : ServerError::make(400, "bad request", "the block body ended early");
    }
    std::string computed = sha.hexDigest();
    if (computed != hash) {
        return ServerError::make(400, "invalid.hash", "the block hashes to " + computed + ", not " + hash);
    }
    std::string error;
    CKXBlockStore::PutResult put = m_blocks.put(computed, data.data(), data.size(), &error);
    if (put == CKXBlockStore::PutResult::Failed) {
        return ServerError::make(500, "internal", error);
    }
    // Sending the bytes proves the session holds them, wherever else the store has them.
    if (!m_meta.recordBlock(session.id, computed, static_cast<qint64>(data.size()))) {
        return ServerError::make(500, "internal", "cannot record the block");
    }
    m_stats.add(put == CKXBlockStore::PutResult::Stored ? CKXServerStats::BlocksStored
                                                        : CKXServerStats::BlocksDeduplicated);
    m_stats.add(CKXServerStats::BlockUploads);
    *stored = computed;
    return {};
}

// A committed file's blocks reach the disk before its metadata names them.
ServerError CKXFileService::makeDurable(const std::vector<BlockRef>& blocks) const
{
    std::string error;
    if (!m_blocks.makeDurable(blocks, &error)) {
        return ServerError::make(500, "internal", error);
    }
    return {};
}

ServerError CKXFileService::resolveUploadId(const Target& target, qint64 size, const std::string& given,
                                            std::string* out)
{
    *out = uploadIdFor(target, size);
    if (given.empty() || given == *out) {
        return {};
    }
    // A session of the same target with another size still names this upload: the commit then
    // fails on the sizes, as it should.
    UploadSession session;
    ServerError e = uploadSession(given, &session);
    if (e.ok() && session.space == target.space && session.path == target.path) {
        *out = given;
        return {};
    }
    return e.ok() ? ServerError::make(400, "bad request", "upload_id " + given + " belongs to another file")
                  : e;
}

ServerError CKXFileService::commit(CommitParams params, const std::vector<std::string>& hashes,
                                   const std::string& uploadId, const Reach& reach, UploadState* out)
{
    ServerError e = resolveUploadId(params.target, params.size, uploadId, &out->uploadId);
    e = e.ok() ? checkUpload(params.target, params.overwrite, params.size) : e;
    if (!e.ok()) {
        return e;
    }
    std::set<std::string> missing;
    std::set<std::string> present = presentFor(reach, hashes);
    qint64 total = 0;
    out->needed.clear();
    params.blocks.clear();
    for (const std::string& hash : hashes) {
        qint64 size = present.count(hash) ? m_blocks.sizeOf(hash) : -1;
        if (size < 0 && missing.insert(hash).second) {
            out->needed.push_back(hash);
        }
        params.blocks.push_back(BlockRef{hash, size});
        total += std::max<qint64>(size, 0);
    }
    if (!out->needed.empty()) {
        return {};
    }
    if (total != params.size) {
        return ServerError::make(400, "content_hash_error",
                                 "the blocks add up to " + std::to_string(total) + " bytes, not " +
                                     std::to_string(params.size));
    }
    params.quota = m_options.quota;
    params.mtime = params.mtime > 0 ? params.mtime : now();
    e = makeDurable(params.blocks);
    e = e.ok() ? m_meta.commitFile(params, &out->entry) : e;
    if (!e.ok()) {
        return e;
    }
    m_meta.closeUploadSession(out->uploadId);
    m_stats.add(CKXServerStats::Commits);
    return {};
}
