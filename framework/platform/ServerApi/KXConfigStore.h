#pragma once

// The library's current configuration, readable from any thread. Each change bumps a generation
// number so that the library thread can notice it without copying the whole record every turn.
//
// A process-wide singleton (inst()), never destroyed before the library's own threads stop.

#include "ServerApiConfig.h"

#include <atomic>
#include <mutex>

class CKXConfigStore
{
public:
    static CKXConfigStore& inst();

    void set(const ServerApi::Config& config);
    ServerApi::Config get() const;
    quint64 generation() const { return m_generation.load(); }

private:
    CKXConfigStore() = default;

    mutable std::mutex m_mutex; // guards m_config
    ServerApi::Config m_config;
    std::atomic<quint64> m_generation{1};
};
