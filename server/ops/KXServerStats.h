#pragma once

// Counters of the test hooks (GET /admin/stats). Lock-free: every counter is an atomic that any
// connection thread may bump. Created once by the server.

#include <QJsonObject>

#include <array>
#include <atomic>
#include <memory>

class CKXServerStats
{
public:
    enum Counter
    {
        Requests,
        Inflight,
        InflightMax,
        BlockUploads,
        BlockBytes,
        FileUploads,
        FileUploadBytes,
        BytesReceived,
        Commits,
        Downloads,
        DownloadBytes,
        HashQueries,
        BlocksStored,
        BlocksDeduplicated,
        CounterCount
    };

    CKXServerStats();

    void add(Counter counter, qint64 amount = 1);
    qint64 value(Counter counter) const;
    // Counts one request as in flight until the returned token (held by the request, and by its
    // streamed response body) is released.
    std::shared_ptr<void> enterRequest();
    QJsonObject toJson() const;
    // Zeroes every counter; the in-flight count stays true and becomes the new high-water mark.
    void reset();

private:
    std::array<std::atomic<qint64>, CounterCount> m_values;
};
