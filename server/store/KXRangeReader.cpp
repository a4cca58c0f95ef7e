#include "KXRangeReader.h"

#include "store/KXBlockStore.h"

#include <algorithm>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

CKXRangeReader::CKXRangeReader(const CKXBlockStore& store, std::vector<BlockRef> blocks)
    : m_store(store), m_blocks(std::move(blocks))
{
    qint64 start = 0;
    for (const BlockRef& block : m_blocks) {
        m_starts.push_back(start);
        start += block.size;
    }
}

CKXRangeReader::~CKXRangeReader()
{
    closeBlock();
}

void CKXRangeReader::closeBlock()
{
    if (m_map) {
        ::munmap(const_cast<char*>(m_map), m_mapSize);
    }
    if (m_fd >= 0) {
        ::close(m_fd);
    }
    m_map = nullptr;
    m_mapSize = 0;
    m_fd = -1;
    m_openIndex = -1;
}

int CKXRangeReader::blockAt(qint64 offset) const
{
    auto it = std::upper_bound(m_starts.begin(), m_starts.end(), offset);
    int index = static_cast<int>(it - m_starts.begin()) - 1;
    if (index < 0 || offset >= m_starts[index] + m_blocks[index].size) {
        return -1;
    }
    return index;
}

bool CKXRangeReader::openBlock(int index)
{
    if (index == m_openIndex) {
        return true;
    }
    closeBlock();
    m_fd = ::open(m_store.pathOf(m_blocks[index].hash).c_str(), O_RDONLY | O_CLOEXEC);
    if (m_fd < 0) {
        return false;
    }
    struct stat info;
    const qint64 size = m_blocks[index].size;
    // A block file shorter than its record would fault when read through the mapping.
    if (::fstat(m_fd, &info) != 0 || info.st_size < size) {
        closeBlock();
        return false;
    }
    if (size > 0) {
        void* map = ::mmap(nullptr, static_cast<size_t>(size), PROT_READ, MAP_SHARED, m_fd, 0);
        if (map == MAP_FAILED) {
            closeBlock();
            return false;
        }
        ::madvise(map, static_cast<size_t>(size), MADV_SEQUENTIAL);
        m_map = static_cast<const char*>(map);
        m_mapSize = static_cast<size_t>(size);
    }
    m_openIndex = index;
    return true;
}

const char* CKXRangeReader::view(qint64 offset, qint64 size, qint64* got)
{
    *got = 0;
    int index = blockAt(offset);
    if (index < 0) {
        return nullptr;
    }
    if (!openBlock(index) || !m_map) {
        *got = -1;
        return nullptr;
    }
    qint64 inBlock = offset - m_starts[index];
    *got = std::min(size, m_blocks[index].size - inBlock);
    return m_map + inBlock;
}
