#pragma once

// File metadata in SQLite (<root>/meta.db, WAL, synchronous=FULL): entries (files and folders of
// every space), each file's ordered block list, upload sessions with the blocks each offered and
// received, share links and share sessions.
// Every change runs in one transaction, so after a crash a file is either there with all its
// blocks listed or not there at all.
//
// Created once by the server (or the share command) and shared by all connection threads; one
// connection, serialised by m_mutex.

#include "core/KXServerTypes.h"

#include <mutex>
#include <set>
#include <string>
#include <unordered_map>
#include <vector>

struct sqlite3;
struct sqlite3_stmt;

// A statement prepared once for the store's connection, and whether a caller is using it now.
struct PreparedStatement
{
    sqlite3_stmt* stmt = nullptr;
    bool lent = false;
};
using PreparedStatements = std::unordered_map<std::string, PreparedStatement>;

class CKXMetaStore
{
public:
    CKXMetaStore() = default;
    ~CKXMetaStore();
    CKXMetaStore(const CKXMetaStore&) = delete;
    CKXMetaStore& operator=(const CKXMetaStore&) = delete;

    // `durable`: every transaction is on disk when it returns; otherwise the operating system
    // writes it out when it likes (a power loss may take recent changes, never consistency).
    bool open(const std::string& path, std::string* error, bool durable = true);

    // false when the entry does not exist. The root "/" always exists.
    bool entry(const Target& target, EntryInfo* out);
    std::vector<EntryInfo> children(const Target& folder, const ListOptions& options);
    std::vector<BlockRef> blocksOf(qint64 entryId);
    // Hashes of every block some stored file consists of.
    std::set<std::string> referencedBlocks();
    // referencedBlocks() and every block an open upload session has received.
    std::set<std::string> liveBlocks();
    // Those of `hashes` that a file or an open upload session inside `reach` holds.
    std::set<std::string> provenBlocks(const Reach& reach, const std::vector<std::string>& hashes);

    // Whether a file of `newSize` bytes may be written at `target` (parents, folder in the way,
    // existing name, lock, quota). The quota counts the blocks open uploads of other paths hold.
    ServerError checkTarget(const Target& target, bool overwrite, qint64 newSize, qint64 quota);
    // Makes the file appear (or replaces it) atomically after checking the target again. A
    // repeated commit of exactly the blocks the file already holds changes nothing.
    ServerError commitFile(const CommitParams& params, EntryInfo* out);
    ServerError createFolder(const Target& target, bool makeParents, EntryInfo* out);
    ServerError setLocked(const Target& target, bool locked);
    ServerError setVirus(const Target& target, bool virus);

    // Opens the session, or marks it active again, and adds `offered` to the blocks it may
    // receive (clients may ask block by block, all under the one session of the file).
    bool saveUploadSession(const UploadSession& session, const std::vector<std::string>& offered);
    bool uploadSession(const std::string& id, UploadSession* out);
    // Whether the session may receive the block: offered by its hash query, and within the quota
    // once the blocks every open session of the space holds are counted.
    ServerError admitBlock(const UploadSession& session, const std::string& hash, qint64 size, qint64 quota);
    bool recordBlock(const std::string& uploadId, const std::string& hash, qint64 size);
    void closeUploadSession(const std::string& id);
    // Drops the sessions idle since before `idleSince` (seconds since the epoch) with what they
    // held; returns how many went.
    int expireUploadSessions(qint64 idleSince);
    bool saveShare(const ShareInfo& share);
    bool share(const std::string& code, ShareInfo* out);
    bool saveShareSession(const std::string& digest, const std::string& code);
    bool shareSessionCode(const std::string& digest, std::string* code);

private:
    // The first column of every row `sql` selects; takes m_mutex.
    std::set<std::string> hashSet(const char* sql);
    // Helpers named *Locked expect m_mutex to be held.
    bool execLocked(const char* sql);
    bool migrateLocked();
    bool openSessionLocked(const UploadSession& session);
    bool lookupLocked(const Target& target, EntryInfo* out);
    qint64 usageLocked(const std::string& space);
    // Bytes the open upload sessions of `space` have received, except those of `exceptPath`.
    qint64 pendingLocked(const std::string& space, const std::string& exceptPath);
    ServerError ancestorConflictLocked(const Target& target);
    ServerError checkTargetLocked(const Target& target, bool overwrite, qint64 newSize, qint64 quota);
    bool sameBlocksLocked(qint64 entryId, const std::vector<BlockRef>& blocks);
    bool ensureParentsLocked(const Target& target, qint64 mtime);
    bool insertEntryLocked(const Target& target, bool isDir, qint64 size, qint64 mtime, qint64* id);
    bool writeBlocksLocked(qint64 entryId, const std::vector<BlockRef>& blocks);
    // Parents, the entry (new, or `existingId` replaced with a new revision) and its block list.
    bool writeFileLocked(const CommitParams& params, qint64 existingId);
    ServerError setFlagLocked(const Target& target, const char* sql, bool on);
    ServerError internalLocked(const std::string& what);

    std::mutex m_mutex;
    sqlite3* m_db = nullptr;                               // guarded by m_mutex
    PreparedStatements m_prepared;                         // by SQL text; guarded by m_mutex
    const char* m_synchronous = "PRAGMA synchronous=FULL"; // set by open()
};
