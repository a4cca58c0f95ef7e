#pragma once

// Reads any byte range of a stored file, crossing block boundaries as needed. Keeps the current
// block file open and mapped between calls, so that a download is sent straight from the page
// cache without a copy into a buffer of ours. Created per download and used only by the thread that writes
// that download's response; shared (through a shared_ptr) by the response's content provider.

#include "core/KXServerTypes.h"

#include <string>
#include <vector>

class CKXBlockStore;

class CKXRangeReader
{
public:
    CKXRangeReader(const CKXBlockStore& store, std::vector<BlockRef> blocks);
    ~CKXRangeReader();
    CKXRangeReader(const CKXRangeReader&) = delete;
    CKXRangeReader& operator=(const CKXRangeReader&) = delete;

    // Up to `size` bytes at `offset` where they lie, in the mapped block (never across its end):
    // valid until the next call. Null with *got = 0 at the end of the file, *got = -1 on an error.
    const char* view(qint64 offset, qint64 size, qint64* got);

private:
    int blockAt(qint64 offset) const;
    bool openBlock(int index);
    void closeBlock();

    const CKXBlockStore& m_store;
    std::vector<BlockRef> m_blocks;
    std::vector<qint64> m_starts; // file offset of each block
    int m_fd = -1;
    int m_openIndex = -1;
    const char* m_map = nullptr; // the open block, mapped whole; null for an empty one
    size_t m_mapSize = 0;
};
