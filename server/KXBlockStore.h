#pragma once

// Content-addressed block files under <root>/blocks/ab/cdef... (the SHA-256 of the content, split
// after two digits). A block file only ever appears complete: it is written to <root>/tmp,
// fsynced and then linked into place, so a crash leaves at worst a stray temp file, which open()
// removes. Blocks are shared by every file that contains them and never deleted.
//
// Created once by the server (or a command-line tool) and used by all connection threads at
// once; it holds no mutable state besides an atomic temp-name counter.

#include "KXServerTypes.h"

#include <atomic>
#include <string>

class CKXBlockStore
{
public:
    enum class PutResult
    {
        Stored,         // the block was new and is now on disk
        AlreadyPresent, // an identical block was there already (deduplicated)
        Failed,
    };

    bool open(const std::string& root, std::string* error);

    std::string pathOf(const std::string& hash) const;
    // Size of the stored block, -1 when it is absent.
    qint64 sizeOf(const std::string& hash) const;
    // Stores `data` under `hash`; the caller has verified that the data hashes to it.
    PutResult put(const std::string& hash, const char* data, size_t size, std::string* error);

private:
    bool writeTemp(const std::string& tmpPath, const char* data, size_t size, std::string* error) const;

    std::string m_blocksDir;
    std::string m_tmpDir;
    std::atomic<quint64> m_tmpCounter{0};
};
