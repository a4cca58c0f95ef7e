#pragma once

// Content-addressed block files under <root>/blocks/ab/cdef... (the SHA-256 of the content, split
// after two digits). A block file is written to <root>/tmp and then linked into place, so a
// process crash leaves at worst a stray temp file, which open() removes. Blocks are shared by
// every file that contains them and never deleted while a file refers to them.
//
// How much a power loss may take depends on the sync mode. In Block mode every block is fsynced
// before it is linked. In Commit and None modes blocks are linked unsynced (Commit starts their
// write-back at once and forces the blocks of a file out in makeDurable(), before the file's
// metadata is committed). A block written unsynced may be torn after a power loss, so a marker
// file names the boot that last wrote blocks that way; when open() finds the marker of another
// boot, lostUnsyncedBlocks() tells the server to drop every block no committed file refers to.
//
// Blocks no file and no open upload session refers to are collected (collect()) once they have
// been idle for the upload expiry. A put() of a block that is there already marks it as in use
// again, and m_collecting keeps a collection from removing a block between that mark and the
// caller recording the block in the metadata.
//
// Created once by the server (or a command-line tool) and used by all connection threads at
// once; besides the lock it holds only an atomic temp-name counter.

#include "core/KXServerOptions.h"
#include "core/KXServerTypes.h"

#include <atomic>
#include <functional>
#include <set>
#include <shared_mutex>
#include <string>
#include <vector>

class CKXBlockStore
{
public:
    enum class PutResult
    {
        Stored,         // the block was new and is now on disk
        AlreadyPresent, // an identical block was there already (deduplicated)
        Failed,
    };

    bool open(const std::string& root, std::string* error,
              ServerOptions::Sync sync = ServerOptions::Sync::Commit);
    // True when blocks written unsynced before the last power loss or reboot may be torn.
    bool lostUnsyncedBlocks() const { return m_lostUnsynced; }
    // Removes every stored block whose hash `keep` does not hold; returns how many went.
    int dropBlocksExcept(const std::set<std::string>& keep);
    // Removes the blocks `keep` does not hold and nobody wrote or put again for `idleSeconds`;
    // returns how many went.
    int collect(const std::set<std::string>& keep, qint64 idleSeconds);
    // Forces the given blocks and their folders out to disk where the sync mode promises a
    // committed file to survive a power loss; a no-op in the other modes.
    bool makeDurable(const std::vector<BlockRef>& blocks, std::string* error) const;
    // A clean stop: everything written unsynced is forced out and the marker goes.
    void close();

    std::string pathOf(const std::string& hash) const;
    // Size of the stored block, -1 when it is absent.
    qint64 sizeOf(const std::string& hash) const;
    // Stores `data` under `hash`; the caller has verified that the data hashes to it. A block that
    // is there already counts as just written, for collect().
    PutResult put(const std::string& hash, const char* data, size_t size, std::string* error);

private:
    bool writeTemp(const std::string& tmpPath, const char* data, size_t size, std::string* error) const;

    bool markUnsyncedWrites(std::string* error);
    // True when the block is stored; it then counts as just written.
    bool markInUse(const std::string& hash);
    // Calls `visit(hash, path)` for every stored block.
    void forEachBlock(const std::function<void(const std::string&, const std::string&)>& visit) const;

    std::string m_root;
    std::string m_blocksDir;
    std::string m_tmpDir;
    ServerOptions::Sync m_sync = ServerOptions::Sync::Commit;
    bool m_lostUnsynced = false;
    std::atomic<quint64> m_tmpCounter{0};
    // Shared while put() marks a stored block in use, exclusive while collect() removes one.
    std::shared_mutex m_collecting;
};
