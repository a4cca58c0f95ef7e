#include "KXCollector.h"

#include "ops/KXServerLog.h"
#include "store/KXBlockStore.h"
#include "store/KXMetaStore.h"

#include <algorithm>
#include <chrono>
#include <ctime>

CKXCollector::CKXCollector(CKXMetaStore& meta, CKXBlockStore& blocks, CKXServerLog& log, qint64 expirySeconds)
    : m_meta(meta), m_blocks(blocks), m_log(log), m_expiry(expirySeconds)
{}

CKXCollector::~CKXCollector()
{
    stop();
}

void CKXCollector::start()
{
    m_thread = std::thread([this] { run(); });
}

void CKXCollector::stop()
{
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_stopping = true;
    }
    m_wake.notify_all();
    if (m_thread.joinable()) {
        m_thread.join();
    }
}

void CKXCollector::run()
{
    auto period = std::chrono::milliseconds(std::clamp<qint64>(m_expiry * 1000 / 4, 1000, 3600 * 1000));
    std::unique_lock<std::mutex> lock(m_mutex);
    while (!m_wake.wait_for(lock, period, [this] { return m_stopping; })) {
        lock.unlock();
        collectOnce();
        lock.lock();
    }
}

void CKXCollector::collectOnce()
{
    int sessions = m_meta.expireUploadSessions(static_cast<qint64>(std::time(nullptr)) - m_expiry);
    // Read after the sessions went, so that their blocks are no longer kept.
    int blocks = m_blocks.collect(m_meta.liveBlocks(), m_expiry);
    if (sessions > 0 || blocks > 0) {
        m_log.line("expired " + std::to_string(sessions) + " idle upload sessions, collected " +
                   std::to_string(blocks) + " unreferenced blocks");
    }
}
