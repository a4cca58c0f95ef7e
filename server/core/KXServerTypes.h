#pragma once

// Plain records shared by the parts of kxserver. Values only: whoever holds one owns its copy.

#include <QtGlobal>

#include <string>
#include <vector>

// Files are stored as content-addressed blocks of at most this many bytes.
constexpr qint64 kBlockSize = 4194304;

// Outcome of an operation. A default-constructed value means success; a failure carries the HTTP
// status and the machine-readable "code" a client maps to its error numbers.
struct ServerError
{
    int status = 0;
    std::string code;
    std::string message;

    bool ok() const { return status == 0; }
    static ServerError make(int status, std::string code, std::string message)
    {
        ServerError e;
        e.status = status;
        e.code = std::move(code);
        e.message = std::move(message);
        return e;
    }
};

// A path inside one storage space. `space` is "ent" or "self:<account id>"; `path` is normalised
// ("/" or "/a/b", never a trailing slash).
struct Target
{
    std::string space;
    std::string path;
};

struct BlockRef
{
    std::string hash; // SHA-256, lower-case hex
    qint64 size = 0;
};

struct EntryInfo
{
    qint64 id = 0; // 0 for the implicit root folder
    std::string path;
    bool isDir = false;
    qint64 size = 0;
    qint64 rev = 0;
    qint64 mtime = 0;
    bool locked = false;
    bool virus = false;
    qint64 blockCount = 0;
};

struct UploadSession
{
    std::string id;
    std::string space;
    std::string path;
    qint64 size = 0;
};

// The folders whose files and open uploads a requester may build on: a block counts as present
// for a hash query or a commit only when something stored inside one of them already holds it.
// An account reaches its own space and the shared "ent" space, a share-link upload the shared
// folder alone.
using Reach = std::vector<Target>;

struct ShareInfo
{
    std::string code;
    std::string owner; // account id of the creator
    std::string space;
    std::string path; // the shared folder or file
    bool upload = false;
    std::string password; // empty: no password
};

struct ListOptions
{
    bool includeFiles = true;
    std::string sort = "name"; // "name" | "size" | "mtime"
    bool descending = false;
    qint64 offset = 0;
    qint64 limit = 1000;
};

// Everything a commit needs: the blocks in file order and the rules the target must satisfy.
struct CommitParams
{
    Target target;
    std::vector<BlockRef> blocks;
    qint64 size = 0;
    qint64 mtime = 0;
    bool overwrite = false;
    bool makeParents = true;
    qint64 quota = 0; // bytes per space; 0: unlimited
};
