#include "KXMetaStore.h"

#include "core/KXServerPath.h"

#include <sqlite3.h>

#include <algorithm>
#include <ctime>
#include <string_view>

namespace {

const char* const kSchema = R"SQL(
CREATE TABLE IF NOT EXISTS entries(
  id INTEGER PRIMARY KEY AUTOINCREMENT,
  space TEXT NOT NULL, path TEXT NOT NULL, parent TEXT NOT NULL, name TEXT NOT NULL,
  is_dir INTEGER NOT NULL, size INTEGER NOT NULL DEFAULT 0, rev INTEGER NOT NULL DEFAULT 1,
  mtime INTEGER NOT NULL, locked INTEGER NOT NULL DEFAULT 0, virus INTEGER NOT NULL DEFAULT 0,
  UNIQUE(space, path));
CREATE INDEX IF NOT EXISTS entries_parent ON entries(space, parent);
CREATE TABLE IF NOT EXISTS file_blocks(
  entry_id INTEGER NOT NULL, idx INTEGER NOT NULL, hash TEXT NOT NULL, size INTEGER NOT NULL,
  PRIMARY KEY(entry_id, idx));
CREATE INDEX IF NOT EXISTS file_blocks_hash ON file_blocks(hash);
CREATE TABLE IF NOT EXISTS upload_sessions(
  id TEXT PRIMARY KEY, space TEXT NOT NULL, path TEXT NOT NULL, size INTEGER NOT NULL,
  created INTEGER NOT NULL, touched INTEGER NOT NULL DEFAULT 0);
CREATE TABLE IF NOT EXISTS session_blocks(
  upload_id TEXT NOT NULL, hash TEXT NOT NULL, size INTEGER NOT NULL DEFAULT -1,
  PRIMARY KEY(upload_id, hash));
CREATE INDEX IF NOT EXISTS session_blocks_hash ON session_blocks(hash);
CREATE TABLE IF NOT EXISTS shares(
  code TEXT PRIMARY KEY, owner TEXT NOT NULL, space TEXT NOT NULL, path TEXT NOT NULL,
  upload INTEGER NOT NULL, password TEXT NOT NULL, created INTEGER NOT NULL);
CREATE TABLE IF NOT EXISTS share_sessions(
  digest TEXT PRIMARY KEY, code TEXT NOT NULL, created INTEGER NOT NULL);
)SQL";

// One hit when a file or a received upload block inside the folder ?3 of space ?2 holds block ?1.
const char* const kProvenQuery =
    "SELECT 1 FROM file_blocks fb JOIN entries e ON e.id = fb.entry_id"
    " WHERE fb.hash = ?1 AND e.space = ?2"
    " AND (?3 = '/' OR e.path = ?3 OR substr(e.path, 1, length(?3) + 1) = ?3 || '/')"
    " UNION ALL SELECT 1 FROM session_blocks sb JOIN upload_sessions us ON us.id = sb.upload_id"
    " WHERE sb.hash = ?1 AND sb.size >= 0 AND us.space = ?2"
    " AND (?3 = '/' OR us.path = ?3 OR substr(us.path, 1, length(?3) + 1) = ?3 || '/') LIMIT 1";

// Hashes checked or stored per hold of the lock, so that a huge hash query does not stall every
// other request.
constexpr size_t kBatch = 4096;

const char* const kEntryColumns =
    "SELECT id, path, is_dir, size, rev, mtime, locked, virus,"
    " (SELECT COUNT(*) FROM file_blocks WHERE entry_id = entries.id) FROM entries ";

// One use of a statement prepared once per connection: parsing the SQL cost more than running it
// (a small upload runs a dozen statements). The cache entry is lent while the Statement lives; a
// text already lent (a helper running the statement its caller is still stepping) gets a private
// copy, finalised at the end. Created and destroyed under the store's mutex.
class Statement
{
public:
    Statement(sqlite3* db, PreparedStatements& cache, const std::string& sql)
    {
        auto found = cache.find(sql);
        if (found == cache.end()) {
            sqlite3_stmt* made = nullptr;
            if (sqlite3_prepare_v3(db, sql.c_str(), -1, SQLITE_PREPARE_PERSISTENT, &made, nullptr) !=
                SQLITE_OK) {
                sqlite3_finalize(made);
                return;
            }
            found = cache.emplace(sql, PreparedStatement{made, false}).first;
        }
        if (found->second.lent) {
            if (sqlite3_prepare_v2(db, sql.c_str(), -1, &m_stmt, nullptr) != SQLITE_OK) {
                sqlite3_finalize(m_stmt);
                m_stmt = nullptr;
            }
            return;
        }
        found->second.lent = true;
        m_lent = &found->second;
        m_stmt = m_lent->stmt;
    }
    ~Statement()
    {
        if (!m_lent) {
            sqlite3_finalize(m_stmt);
            return;
        }
        sqlite3_reset(m_stmt);
        sqlite3_clear_bindings(m_stmt);
        m_lent->lent = false;
    }
    Statement(const Statement&) = delete;
    Statement& operator=(const Statement&) = delete;

    bool prepared() const { return m_stmt != nullptr; }
    // Ready to run again with new bindings.
    void reset() { sqlite3_reset(m_stmt); }

    Statement& bind(int index, const std::string& value)
    {
        sqlite3_bind_text(m_stmt, index, value.data(), static_cast<int>(value.size()), SQLITE_TRANSIENT);
        return *this;
    }
    Statement& bind(int index, qint64 value)
    {
        sqlite3_bind_int64(m_stmt, index, value);
        return *this;
    }
    // true while a row is available
    bool next() { return m_stmt && sqlite3_step(m_stmt) == SQLITE_ROW; }
    // runs a statement that returns no rows
    bool run() { return m_stmt && sqlite3_step(m_stmt) == SQLITE_DONE; }
    qint64 integer(int column) const { return sqlite3_column_int64(m_stmt, column); }
    std::string text(int column) const
    {
        const unsigned char* value = sqlite3_column_text(m_stmt, column);
        return value ? std::string(reinterpret_cast<const char*>(value),
                                   static_cast<size_t>(sqlite3_column_bytes(m_stmt, column)))
                     : std::string();
    }

private:
    sqlite3_stmt* m_stmt = nullptr;
    PreparedStatement* m_lent = nullptr;
};

// Rolls back unless committed.
class Transaction
{
public:
    explicit Transaction(sqlite3* db) : m_db(db)
    {
        m_open = sqlite3_exec(db, "BEGIN IMMEDIATE", nullptr, nullptr, nullptr) == SQLITE_OK;
    }
    ~Transaction()
    {
        if (m_open) {
            sqlite3_exec(m_db, "ROLLBACK", nullptr, nullptr, nullptr);
        }
    }
    bool begun() const { return m_open; }
    bool commit()
    {
        m_open = sqlite3_exec(m_db, "COMMIT", nullptr, nullptr, nullptr) != SQLITE_OK;
        return !m_open;
    }

private:
    sqlite3* m_db;
    bool m_open;
};

EntryInfo readEntry(const Statement& row)
{
    EntryInfo e;
    e.id = row.integer(0);
    e.path = row.text(1);
    e.isDir = row.integer(2) != 0;
    e.size = row.integer(3);
    e.rev = row.integer(4);
    e.mtime = row.integer(5);
    e.locked = row.integer(6) != 0;
    e.virus = row.integer(7) != 0;
    e.blockCount = row.integer(8);
    return e;
}

qint64 now()
{
    return static_cast<qint64>(std::time(nullptr));
}

ServerError notFound(const std::string& path)
{
    return ServerError::make(404, "nameentry_not_exist", "no such file or folder: " + path);
}

} // namespace

CKXMetaStore::~CKXMetaStore()
{
    for (auto& prepared : m_prepared) {
        sqlite3_finalize(prepared.second.stmt);
    }
    sqlite3_close_v2(m_db);
}

bool CKXMetaStore::open(const std::string& path, std::string* error, bool durable)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    int flags = SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_FULLMUTEX;
    if (sqlite3_open_v2(path.c_str(), &m_db, flags, nullptr) != SQLITE_OK) {
        *error = "cannot open " + path + ": " + (m_db ? sqlite3_errmsg(m_db) : "out of memory");
        return false;
    }
    sqlite3_busy_timeout(m_db, 10000);
    m_synchronous = durable ? "PRAGMA synchronous=FULL" : "PRAGMA synchronous=OFF";
    if (!execLocked("PRAGMA journal_mode=WAL") || !execLocked(m_synchronous) || !execLocked(kSchema) ||
        !migrateLocked()) {
        *error = "cannot prepare " + path + ": " + sqlite3_errmsg(m_db);
        return false;
    }
    return true;
}

bool CKXMetaStore::execLocked(const char* sql)
{
    return sqlite3_exec(m_db, sql, nullptr, nullptr, nullptr) == SQLITE_OK;
}

// Stores written before upload sessions expired lack their last-activity column.
bool CKXMetaStore::migrateLocked()
{
    if (Statement(m_db, m_prepared, "SELECT touched FROM upload_sessions LIMIT 0").prepared()) {
        return true;
    }
    return execLocked("ALTER TABLE upload_sessions ADD COLUMN touched INTEGER NOT NULL DEFAULT 0;"
                      "UPDATE upload_sessions SET touched = created");
}

ServerError CKXMetaStore::internalLocked(const std::string& what)
{
    return ServerError::make(500, "internal", what + ": " + sqlite3_errmsg(m_db));
}

bool CKXMetaStore::entry(const Target& target, EntryInfo* out)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return lookupLocked(target, out);
}

bool CKXMetaStore::lookupLocked(const Target& target, EntryInfo* out)
{
    if (target.path == "/") {
        *out = EntryInfo();
        out->path = "/";
        out->isDir = true;
        out->rev = 1;
        return true;
    }
    Statement q(m_db, m_prepared, std::string(kEntryColumns) + "WHERE space = ? AND path = ?");
    q.bind(1, target.space).bind(2, target.path);
    if (!q.next()) {
        return false;
    }
    *out = readEntry(q);
    return true;
}

std::vector<EntryInfo> CKXMetaStore::children(const Target& folder, const ListOptions& options)
{
    const char* column = options.sort == "size" ? "size" : options.sort == "mtime" ? "mtime" : "name";
    std::string sql = std::string(kEntryColumns) + "WHERE space = ? AND parent = ?" +
                      (options.includeFiles ? "" : " AND is_dir = 1") + " ORDER BY " + column +
                      (options.descending ? " DESC" : " ASC") + ", name ASC LIMIT ? OFFSET ?";
    std::lock_guard<std::mutex> lock(m_mutex);
    Statement q(m_db, m_prepared, sql);
    q.bind(1, folder.space).bind(2, folder.path).bind(3, options.limit).bind(4, options.offset);
    std::vector<EntryInfo> out;
    while (q.next()) {
        out.push_back(readEntry(q));
    }
    return out;
}

std::vector<BlockRef> CKXMetaStore::blocksOf(qint64 entryId)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    Statement q(m_db, m_prepared, "SELECT hash, size FROM file_blocks WHERE entry_id = ? ORDER BY idx");
    q.bind(1, entryId);
    std::vector<BlockRef> out;
    while (q.next()) {
        out.push_back(BlockRef{q.text(0), q.integer(1)});
    }
    return out;
}

std::set<std::string> CKXMetaStore::referencedBlocks()
{
    return hashSet("SELECT DISTINCT hash FROM file_blocks");
}

std::set<std::string> CKXMetaStore::liveBlocks()
{
    return hashSet("SELECT hash FROM file_blocks UNION SELECT hash FROM session_blocks WHERE size >= 0");
}

std::set<std::string> CKXMetaStore::hashSet(const char* sql)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    Statement q(m_db, m_prepared, sql);
    std::set<std::string> out;
    while (q.next()) {
        out.insert(q.text(0));
    }
    return out;
}

std::set<std::string> CKXMetaStore::provenBlocks(const Reach& reach, const std::vector<std::string>& hashes)
{
    std::set<std::string> out;
    for (size_t first = 0; first < hashes.size(); first += kBatch) {
        std::lock_guard<std::mutex> lock(m_mutex);
        Statement q(m_db, m_prepared, kProvenQuery);
        for (size_t i = first; i < std::min(hashes.size(), first + kBatch); ++i) {
            for (const Target& root : reach) {
                q.reset();
                if (q.bind(1, hashes[i]).bind(2, root.space).bind(3, root.path).next()) {
                    out.insert(hashes[i]);
                    break;
                }
            }
        }
    }
    return out;
}

qint64 CKXMetaStore::usageLocked(const std::string& space)
{
    Statement q(m_db, m_prepared,
                "SELECT COALESCE(SUM(size), 0) FROM entries WHERE space = ? AND is_dir = 0");
    q.bind(1, space);
    return q.next() ? q.integer(0) : 0;
}

qint64 CKXMetaStore::pendingLocked(const std::string& space, const std::string& exceptPath)
{
    Statement q(m_db, m_prepared,
                "SELECT COALESCE(SUM(sb.size), 0) FROM session_blocks sb"
                " JOIN upload_sessions us ON us.id = sb.upload_id"
                " WHERE us.space = ? AND us.path != ? AND sb.size > 0");
    q.bind(1, space).bind(2, exceptPath);
    return q.next() ? q.integer(0) : 0;
}

ServerError CKXMetaStore::ancestorConflictLocked(const Target& target)
{
    std::vector<std::string> folders = KXServerPath::ancestors(target.path);
    for (size_t i = 0; i < folders.size(); ++i) {
        EntryInfo e;
        if (!lookupLocked(Target{target.space, folders[i]}, &e)) {
            break;
        }
        if (!e.isDir) {
            return ServerError::make(
                409, i == 0 ? "root parent folder conflict with file" : "parent folder conflict with file",
                folders[i] + " is a file");
        }
    }
    return {};
}

ServerError CKXMetaStore::checkTarget(const Target& target, bool overwrite, qint64 newSize, qint64 quota)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return checkTargetLocked(target, overwrite, newSize, quota);
}

ServerError CKXMetaStore::checkTargetLocked(const Target& target, bool overwrite, qint64 newSize,
                                            qint64 quota)
{
    if (target.path == "/") {
        return ServerError::make(409, "conflict with folder", "/ is a folder");
    }
    ServerError e = ancestorConflictLocked(target);
    if (!e.ok()) {
        return e;
    }
    EntryInfo current;
    bool exists = lookupLocked(target, &current);
    if (exists && current.isDir) {
        return ServerError::make(409, "conflict with folder", target.path + " is a folder");
    }
    if (exists && !overwrite) {
        return ServerError::make(409, "target name exists", target.path + " exists");
    }
    if (exists && current.locked) {
        return ServerError::make(423, "file is locked", target.path + " is locked");
    }
    if (quota > 0 && usageLocked(target.space) + pendingLocked(target.space, target.path) -
                             (exists ? current.size : 0) + newSize >
                         quota) {
        return ServerError::make(507, "space limit", "the upload would exceed the quota");
    }
    return {};
}

bool CKXMetaStore::sameBlocksLocked(qint64 entryId, const std::vector<BlockRef>& blocks)
{
    Statement q(m_db, m_prepared, "SELECT hash, size FROM file_blocks WHERE entry_id = ? ORDER BY idx");
    q.bind(1, entryId);
    size_t i = 0;
    for (; q.next(); ++i) {
        if (i >= blocks.size() || q.text(0) != blocks[i].hash || q.integer(1) != blocks[i].size) {
            return false;
        }
    }
    return i == blocks.size();
}

bool CKXMetaStore::insertEntryLocked(const Target& target, bool isDir, qint64 size, qint64 mtime, qint64* id)
{
    Statement q(m_db, m_prepared,
                "INSERT INTO entries(space, path, parent, name, is_dir, size, rev, mtime)"
                " VALUES(?, ?, ?, ?, ?, ?, 1, ?)");
    q.bind(1, target.space).bind(2, target.path).bind(3, KXServerPath::parentOf(target.path));
    q.bind(4, KXServerPath::nameOf(target.path)).bind(5, qint64(isDir ? 1 : 0)).bind(6, size).bind(7, mtime);
    if (!q.run()) {
        return false;
    }
    *id = sqlite3_last_insert_rowid(m_db);
    return true;
}

bool CKXMetaStore::ensureParentsLocked(const Target& target, qint64 mtime)
{
    for (const std::string& folder : KXServerPath::ancestors(target.path)) {
        EntryInfo e;
        qint64 id = 0;
        if (!lookupLocked(Target{target.space, folder}, &e) &&
            !insertEntryLocked(Target{target.space, folder}, true, 0, mtime, &id)) {
            return false;
        }
    }
    return true;
}

bool CKXMetaStore::writeBlocksLocked(qint64 entryId, const std::vector<BlockRef>& blocks)
{
    Statement clear(m_db, m_prepared, "DELETE FROM file_blocks WHERE entry_id = ?");
    if (!clear.bind(1, entryId).run()) {
        return false;
    }
    for (size_t i = 0; i < blocks.size(); ++i) {
        Statement q(m_db, m_prepared,
                    "INSERT INTO file_blocks(entry_id, idx, hash, size) VALUES(?, ?, ?, ?)");
        q.bind(1, entryId).bind(2, qint64(i)).bind(3, blocks[i].hash).bind(4, blocks[i].size);
        if (!q.run()) {
            return false;
        }
    }
    return true;
}

bool CKXMetaStore::writeFileLocked(const CommitParams& params, qint64 existingId)
{
    qint64 id = existingId;
    if (!ensureParentsLocked(params.target, params.mtime)) {
        return false;
    }
    if (existingId != 0) {
        Statement q(m_db, m_prepared,
                    "UPDATE entries SET size = ?, rev = rev + 1, mtime = ?, virus = 0 WHERE id = ?");
        if (!q.bind(1, params.size).bind(2, params.mtime).bind(3, id).run()) {
            return false;
        }
    } else if (!insertEntryLocked(params.target, false, params.size, params.mtime, &id)) {
        return false;
    }
    return writeBlocksLocked(id, params.blocks);
}

ServerError CKXMetaStore::commitFile(const CommitParams& params, EntryInfo* out)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    Transaction tx(m_db);
    if (!tx.begun()) {
        return internalLocked("cannot begin transaction");
    }
    ServerError e = checkTargetLocked(params.target, params.overwrite, params.size, params.quota);
    if (!e.ok()) {
        return e;
    }
    EntryInfo parent;
    if (!params.makeParents &&
        !lookupLocked(Target{params.target.space, KXServerPath::parentOf(params.target.path)}, &parent)) {
        return notFound(KXServerPath::parentOf(params.target.path));
    }
    EntryInfo current;
    bool exists = lookupLocked(params.target, &current);
    if (exists && sameBlocksLocked(current.id, params.blocks)) {
        *out = current;
        return {};
    }
    if (!writeFileLocked(params, exists ? current.id : 0) || !tx.commit()) {
        return internalLocked("cannot commit " + params.target.path);
    }
    lookupLocked(params.target, out);
    return {};
}

ServerError CKXMetaStore::createFolder(const Target& target, bool makeParents, EntryInfo* out)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    Transaction tx(m_db);
    if (!tx.begun()) {
        return internalLocked("cannot begin transaction");
    }
    ServerError e = ancestorConflictLocked(target);
    if (!e.ok()) {
        return e;
    }
    EntryInfo current;
    if (lookupLocked(target, &current)) {
        return current.isDir ? ServerError::make(409, "folder_already_existed", target.path + " exists")
                             : ServerError::make(409, "conflict with file", target.path + " is a file");
    }
    std::string parent = KXServerPath::parentOf(target.path);
    if (!makeParents && !lookupLocked(Target{target.space, parent}, &current)) {
        return notFound(parent);
    }
    qint64 id = 0;
    if (!ensureParentsLocked(target, now()) || !insertEntryLocked(target, true, 0, now(), &id) ||
        !tx.commit()) {
        return internalLocked("cannot create " + target.path);
    }
    lookupLocked(target, out);
    return {};
}

ServerError CKXMetaStore::setFlagLocked(const Target& target, const char* sql, bool on)
{
    Statement q(m_db, m_prepared, sql);
    if (!q.bind(1, qint64(on ? 1 : 0)).bind(2, target.space).bind(3, target.path).run()) {
        return internalLocked("cannot flag " + target.path);
    }
    return sqlite3_changes(m_db) == 0 ? notFound(target.path) : ServerError();
}

ServerError CKXMetaStore::setLocked(const Target& target, bool locked)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return setFlagLocked(target, "UPDATE entries SET locked = ? WHERE space = ? AND path = ? AND is_dir = 0",
                         locked);
}

ServerError CKXMetaStore::setVirus(const Target& target, bool virus)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return setFlagLocked(target, "UPDATE entries SET virus = ? WHERE space = ? AND path = ? AND is_dir = 0",
                         virus);
}

bool CKXMetaStore::saveUploadSession(const UploadSession& session, const std::vector<std::string>& hashes)
{
    // In key order the rows go into the indexes page by page instead of all over them.
    std::vector<std::string_view> offered(hashes.begin(), hashes.end());
    std::sort(offered.begin(), offered.end());
    offered.erase(std::unique(offered.begin(), offered.end()), offered.end());
    bool ok = true;
    for (size_t first = 0; ok && (first == 0 || first < offered.size()); first += kBatch) {
        std::lock_guard<std::mutex> lock(m_mutex);
        // Not worth a sync: after a power loss the client's next hash query offers them again, and
        // the next durable transaction forces these out with it.
        execLocked("PRAGMA synchronous=OFF");
        Transaction tx(m_db);
        ok = tx.begun() && (first > 0 || openSessionLocked(session));
        Statement offer(m_db, m_prepared,
                        "INSERT OR IGNORE INTO session_blocks(upload_id, hash) VALUES(?, ?)");
        for (size_t i = first; ok && i < std::min(offered.size(), first + kBatch); ++i) {
            offer.reset();
            ok = offer.bind(1, session.id).bind(2, std::string(offered[i])).run();
        }
        ok = ok && tx.commit();
        execLocked(m_synchronous);
    }
    return ok;
}

bool CKXMetaStore::openSessionLocked(const UploadSession& session)
{
    Statement open(m_db, m_prepared,
                   "INSERT OR IGNORE INTO upload_sessions(id, space, path, size, created, touched)"
                   " VALUES(?1, ?2, ?3, ?4, ?5, ?5)");
    Statement touch(m_db, m_prepared, "UPDATE upload_sessions SET touched = ? WHERE id = ?");
    return open.bind(1, session.id)
               .bind(2, session.space)
               .bind(3, session.path)
               .bind(4, session.size)
               .bind(5, now())
               .run() &&
           touch.bind(1, now()).bind(2, session.id).run();
}

bool CKXMetaStore::uploadSession(const std::string& id, UploadSession* out)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    Statement q(m_db, m_prepared, "SELECT id, space, path, size FROM upload_sessions WHERE id = ?");
    q.bind(1, id);
    if (!q.next()) {
        return false;
    }
    *out = UploadSession{q.text(0), q.text(1), q.text(2), q.integer(3)};
    return true;
}

ServerError CKXMetaStore::admitBlock(const UploadSession& session, const std::string& hash, qint64 size,
                                     qint64 quota)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    Statement q(m_db, m_prepared, "SELECT size FROM session_blocks WHERE upload_id = ? AND hash = ?");
    if (!q.bind(1, session.id).bind(2, hash).next()) {
        return ServerError::make(400, "bad request",
                                 "block " + hash + " was not offered by the hash query of upload " +
                                     session.id);
    }
    if (q.integer(0) >= 0 || quota <= 0) {
        return {}; // a repeated block takes no more room
    }
    // The file the session will replace frees its bytes when the upload commits.
    EntryInfo current;
    bool replaces = lookupLocked(Target{session.space, session.path}, &current) && !current.isDir;
    if (usageLocked(session.space) - (replaces ? current.size : 0) + pendingLocked(session.space, {}) + size >
        quota) {
        return ServerError::make(507, "space limit", "the block would exceed the quota");
    }
    return {};
}

bool CKXMetaStore::recordBlock(const std::string& uploadId, const std::string& hash, qint64 size)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    Transaction tx(m_db);
    Statement received(m_db, m_prepared,
                       "UPDATE session_blocks SET size = ? WHERE upload_id = ? AND hash = ?");
    Statement touch(m_db, m_prepared, "UPDATE upload_sessions SET touched = ? WHERE id = ?");
    return tx.begun() && received.bind(1, size).bind(2, uploadId).bind(3, hash).run() &&
           touch.bind(1, now()).bind(2, uploadId).run() && tx.commit();
}

void CKXMetaStore::closeUploadSession(const std::string& id)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    Transaction tx(m_db);
    Statement blocks(m_db, m_prepared, "DELETE FROM session_blocks WHERE upload_id = ?");
    Statement session(m_db, m_prepared, "DELETE FROM upload_sessions WHERE id = ?");
    if (tx.begun() && blocks.bind(1, id).run() && session.bind(1, id).run()) {
        tx.commit();
    }
}

int CKXMetaStore::expireUploadSessions(qint64 idleSince)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    Transaction tx(m_db);
    Statement blocks(m_db, m_prepared,
                     "DELETE FROM session_blocks WHERE upload_id IN"
                     " (SELECT id FROM upload_sessions WHERE touched < ?)");
    Statement sessions(m_db, m_prepared, "DELETE FROM upload_sessions WHERE touched < ?");
    if (!tx.begun() || !blocks.bind(1, idleSince).run() || !sessions.bind(1, idleSince).run()) {
        return 0;
    }
    int expired = sqlite3_changes(m_db);
    return tx.commit() ? expired : 0;
}

bool CKXMetaStore::saveShare(const ShareInfo& share)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    Statement q(m_db, m_prepared,
                "INSERT INTO shares(code, owner, space, path, upload, password, created)"
                " VALUES(?, ?, ?, ?, ?, ?, ?)");
    q.bind(1, share.code).bind(2, share.owner).bind(3, share.space).bind(4, share.path);
    return q.bind(5, qint64(share.upload ? 1 : 0)).bind(6, share.password).bind(7, now()).run();
}

bool CKXMetaStore::share(const std::string& code, ShareInfo* out)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    Statement q(m_db, m_prepared,
                "SELECT code, owner, space, path, upload, password FROM shares WHERE code = ?");
    q.bind(1, code);
    if (!q.next()) {
        return false;
    }
    *out = ShareInfo{q.text(0), q.text(1), q.text(2), q.text(3), q.integer(4) != 0, q.text(5)};
    return true;
}

bool CKXMetaStore::saveShareSession(const std::string& digest, const std::string& code)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    Statement q(m_db, m_prepared,
                "INSERT OR REPLACE INTO share_sessions(digest, code, created) VALUES(?, ?, ?)");
    return q.bind(1, digest).bind(2, code).bind(3, now()).run();
}

bool CKXMetaStore::shareSessionCode(const std::string& digest, std::string* code)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    Statement q(m_db, m_prepared, "SELECT code FROM share_sessions WHERE digest = ?");
    q.bind(1, digest);
    if (!q.next()) {
        return false;
    }
    *code = q.text(0);
    return true;
}
