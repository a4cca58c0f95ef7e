#include "KXServerStats.h"

namespace {

const char* const kNames[CKXServerStats::CounterCount] = {
    "requests",      "inflight",           "inflight_max",      "block_uploads",
    "block_bytes",   "file_uploads",       "file_upload_bytes", "bytes_received",
    "commits",       "downloads",          "download_bytes",    "hash_queries",
    "blocks_stored", "blocks_deduplicated"};

} // namespace

CKXServerStats::CKXServerStats()
{
    for (auto& value : m_values) {
        value.store(0);
    }
}

void CKXServerStats::add(Counter counter, qint64 amount)
{
    m_values[counter].fetch_add(amount);
}

qint64 CKXServerStats::value(Counter counter) const
{
    return m_values[counter].load();
}

std::shared_ptr<void> CKXServerStats::enterRequest()
{
    qint64 now = m_values[Inflight].fetch_add(1) + 1;
    qint64 seen = m_values[InflightMax].load();
    while (now > seen && !m_values[InflightMax].compare_exchange_weak(seen, now)) {
    }
    return std::shared_ptr<void>(nullptr, [this](void*) { m_values[Inflight].fetch_sub(1); });
}

QJsonObject CKXServerStats::toJson() const
{
    QJsonObject out;
    for (int i = 0; i < CounterCount; ++i) {
        out.insert(QLatin1String(kNames[i]), static_cast<double>(m_values[i].load()));
    }
    return out;
}

void CKXServerStats::reset()
{
    for (int i = 0; i < CounterCount; ++i) {
        if (i != Inflight) {
            m_values[i].store(0);
        }
    }
    m_values[InflightMax].store(m_values[Inflight].load());
}
