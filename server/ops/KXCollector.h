#pragma once

// Reclaims what abandoned uploads hold: on a thread of its own it drops the upload sessions idle
// longer than the upload expiry, then the blocks that neither a file nor an open session refers
// to and that nobody wrote or offered again for as long (see CKXBlockStore::collect). It runs
// every quarter of the expiry (at least every second, at most every hour).
//
// Created and owned by the server; start() and stop() on the server's thread. m_mutex guards
// m_stopping, which stop() sets to end the wait between two rounds.

#include <QtGlobal>

#include <condition_variable>
#include <mutex>
#include <thread>

class CKXBlockStore;
class CKXMetaStore;
class CKXServerLog;

class CKXCollector
{
public:
    CKXCollector(CKXMetaStore& meta, CKXBlockStore& blocks, CKXServerLog& log, qint64 expirySeconds);
    ~CKXCollector();
    CKXCollector(const CKXCollector&) = delete;
    CKXCollector& operator=(const CKXCollector&) = delete;

    void start();
    void stop();

private:
    void run();
    void collectOnce();

    CKXMetaStore& m_meta;
    CKXBlockStore& m_blocks;
    CKXServerLog& m_log;
    const qint64 m_expiry;
    std::mutex m_mutex;
    std::condition_variable m_wake;
    bool m_stopping = false; // guarded by m_mutex
    std::thread m_thread;
};
