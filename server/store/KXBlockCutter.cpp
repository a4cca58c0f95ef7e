#include "KXBlockCutter.h"

#include "core/KXSha256.h"
#include "store/KXBlockStore.h"

#include <algorithm>

CKXBlockCutter::CKXBlockCutter(CKXBlockStore& store) : m_store(store)
{
    m_buffer.reserve(static_cast<size_t>(kBlockSize));
}

bool CKXBlockCutter::feed(const char* data, size_t size)
{
    while (size > 0) {
        size_t room = static_cast<size_t>(kBlockSize) - m_buffer.size();
        size_t take = std::min(room, size);
        m_buffer.append(data, take);
        m_total += static_cast<qint64>(take);
        data += take;
        size -= take;
        if (m_buffer.size() == static_cast<size_t>(kBlockSize) && !flush()) {
            return false;
        }
    }
    return true;
}

bool CKXBlockCutter::finish()
{
    return m_buffer.empty() || flush();
}

bool CKXBlockCutter::flush()
{
    BlockRef block{CKXSha256::hex(m_buffer), static_cast<qint64>(m_buffer.size())};
    switch (m_store.put(block.hash, m_buffer.data(), m_buffer.size(), &m_error)) {
    case CKXBlockStore::PutResult::Stored:
        ++m_stored;
        break;
    case CKXBlockStore::PutResult::AlreadyPresent:
        ++m_dedup;
        break;
    case CKXBlockStore::PutResult::Failed:
        return false;
    }
    m_blocks.push_back(block);
    m_buffer.clear();
    return true;
}
