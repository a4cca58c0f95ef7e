#include "KXConfigStore.h"

CKXConfigStore& CKXConfigStore::inst()
{
    static CKXConfigStore store;
    return store;
}

void CKXConfigStore::set(const ServerApi::Config& config)
{
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_config = config;
    }
    ++m_generation;
}

ServerApi::Config CKXConfigStore::get() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_config;
}
