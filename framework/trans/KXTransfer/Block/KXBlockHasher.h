#pragma once

// Hashes the blocks of an upload ahead of their block threads, one worker per core. A block thread
// spends part of its turn waiting for the hash query's answer and for its report to be filed; the
// workers keep every core hashing meanwhile, so a block usually finds its hash made when it
// starts. They run at most `lookahead` blocks beyond the last one started, so the bytes they read
// are still cached when the block sends them.
//
// A new upload's hasher can start from the file's size alone, before its blocks exist: the chunked
// transfer starts it while the server authorises the upload and the blocks are built and stored,
// time in which the cores would otherwise wait. adopt() then hands it the blocks; a hash made
// before is stored into its block there, one made after goes straight into the block.
//
//   Free ---- worker takes it ----> Hashing ---- hash stored ----> Done
//     \                                                              ^
//      `---- its block thread claims it first (hashes it itself) ----'
//
// Created, started and deleted by the op queue (on its thread), or created and started by the
// chunked transfer and handed to the op queue, which adopts the blocks before any block thread
// runs; claim() is called by block threads, noteStarted() by the dispatch loop. m_lock guards
// m_blocks, m_made, m_madeCount, m_state, m_next, m_started and m_stopped; it is never held while
// hashing or while calling a block. The blocks are not owned and must outlive the hasher; a worker
// that could not read a block leaves its hash empty, and the block thread then reads it itself and
// reports the failure.

#include <QHash>
#include <QList>
#include <QString>

#include <condition_variable>
#include <mutex>
#include <thread>
#include <vector>

class CKXBlockTask;

class CKXBlockHasher
{
public:
    // `blocks` in the order they will be started; those that already hold a hash are left alone.
    CKXBlockHasher(const QList<CKXBlockTask*>& blocks, const QString& path, int lookahead);
    // Every block of a file of `size` bytes cut into `blockSize`, in file order, none yet made.
    CKXBlockHasher(const QString& path, long long size, long long blockSize, int lookahead);
    ~CKXBlockHasher();
    CKXBlockHasher(const CKXBlockHasher&) = delete;
    CKXBlockHasher& operator=(const CKXBlockHasher&) = delete;

    // Brings the number of workers up to `workers` (no more than there are blocks to hash).
    void start(int workers);
    // For a hasher made from the file's size: takes `blocks` (in start order, as cut from that
    // file, none holding a hash) as its own and stores each hash made so far into its block.
    // Called before any of them starts; false, and nothing taken, when they are not those blocks.
    bool adopt(const QList<CKXBlockTask*>& blocks);
    // Stops the workers after the block each is hashing; the destructor waits for them.
    void stop();
    // A block was started: the workers may go one block further.
    void noteStarted();
    // How many blocks the workers have hashed so far.
    int madeCount();
    // Called by a block thread before it hashes its block: waits while a worker hashes it, and
    // otherwise keeps the workers off it. Afterwards the block holds its hash unless the caller
    // must make it (a block no worker took, or one a worker could not read).
    void claim(CKXBlockTask* block);

private:
    enum class State
    {
        Free,
        Hashing,
        Done
    };

    struct Span
    {
        long long loc;
        long long length;
    };

    void work();
    // Stores the hash of block i: into the block when it has one, else until adopt().
    void store(std::unique_lock<std::mutex>& locker, int i, const QString& hash);
    // The index of the next block a worker may take, or -1 when none may be taken now; with
    // m_lock held.
    int nextFree();

    const QString m_path;
    const int m_lookahead;
    std::vector<Span> m_spans;
    QHash<const CKXBlockTask*, int> m_index; // written only before any block thread runs

    std::mutex m_lock;
    std::condition_variable m_changed;
    std::vector<CKXBlockTask*> m_blocks; // null until adopt() for a hasher made from the size
    std::vector<QString> m_made;         // hashes made before adopt()
    std::vector<State> m_state;
    int m_madeCount = 0;
    size_t m_next = 0;
    size_t m_started = 0;
    bool m_stopped = false;

    std::vector<std::thread> m_workers;
};
