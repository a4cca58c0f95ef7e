#include "KXRangeReader.h"

#include "KXBlockStore.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
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
    if (m_fd >= 0) {
        ::close(m_fd);
    }
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
    if (m_fd >= 0) {
        ::close(m_fd);
    }
    m_fd = ::open(m_store.pathOf(m_blocks[index].hash).c_str(), O_RDONLY | O_CLOEXEC);
    m_openIndex = m_fd >= 0 ? index : -1;
    return m_fd >= 0;
}

qint64 CKXRangeReader::read(qint64 offset, char* buffer, qint64 size)
{
    int index = blockAt(offset);
    if (index < 0) {
        return 0;
    }
    if (!openBlock(index)) {
        return -1;
    }
    qint64 inBlock = offset - m_starts[index];
    qint64 want = std::min(size, m_blocks[index].size - inBlock);
    ssize_t n;
    do {
        n = ::pread(m_fd, buffer, static_cast<size_t>(want), static_cast<off_t>(inBlock));
    } while (n < 0 && errno == EINTR);
    return n <= 0 ? -1 : static_cast<qint64>(n);
}
