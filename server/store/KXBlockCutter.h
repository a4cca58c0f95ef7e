#pragma once

// Cuts a streamed whole-file body into 4 MiB blocks and stores each one as soon as it is full,
// so an upload never holds more than one block in memory. Nothing refers to the stored blocks
// until the caller commits the block list; an upload that breaks off leaves only unreferenced
// (and harmless) blocks behind.
//
// Lives in the stack frame of one request, on that request's thread.

#include "core/KXServerTypes.h"

#include <string>
#include <vector>

class CKXBlockStore;

class CKXBlockCutter
{
public:
    explicit CKXBlockCutter(CKXBlockStore& store);

    bool feed(const char* data, size_t size);
    // Stores the last, partial block. Call once after the body is complete.
    bool finish();

    const std::vector<BlockRef>& blocks() const { return m_blocks; }
    qint64 total() const { return m_total; }
    int storedCount() const { return m_stored; }
    int dedupCount() const { return m_dedup; }
    const std::string& error() const { return m_error; }

private:
    bool flush();

    CKXBlockStore& m_store;
    std::string m_buffer;
    std::vector<BlockRef> m_blocks;
    qint64 m_total = 0;
    int m_stored = 0;
    int m_dedup = 0;
    std::string m_error;
};
