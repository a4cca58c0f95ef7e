#pragma once

// Hashes the blocks of an upload ahead of their block threads, one worker per core. A block thread
// spends part of its turn waiting for the hash query's answer and for its report to be filed; the
// workers keep every core hashing meanwhile, so a block usually finds its hash made when it
// starts. They run at most `lookahead` blocks beyond the last one started, so the bytes they read
// are still cached when the block sends them.
//
//   Free ---- worker takes it ----> Hashing ---- hash stored ----> Done
//     \                                                              ^
//      `---- its block thread claims it first (hashes it itself) ----'
//
// Created, started and deleted by the op queue (on its thread); claim() is called by block threads,
// noteStarted() by the dispatch loop. m_lock guards m_state, m_next, m_started and m_stopped; it is
// never held while hashing or while calling a block. The blocks are not owned and must outlive the
// hasher; a worker that could not read a block leaves its hash empty, and the block thread then
// reads it itself and reports the failure.

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
    ~CKXBlockHasher();
    CKXBlockHasher(const CKXBlockHasher&) = delete;
    CKXBlockHasher& operator=(const CKXBlockHasher&) = delete;

    void start(int workers);
    // Stops the workers after the block each is hashing; returns once they have ended.
    void stop();
    // A block was started: the workers may go one block further.
    void noteStarted();
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

    void work();
    // The index of the next block a worker may take, or -1 when none may be taken now; with
    // m_lock held.
    int nextFree();

    const QString m_path;
    const int m_lookahead;
    std::vector<CKXBlockTask*> m_blocks;
    QHash<const CKXBlockTask*, int> m_index;

    std::mutex m_lock;
    std::condition_variable m_changed;
    std::vector<State> m_state;
    size_t m_next = 0;
    size_t m_started = 0;
    bool m_stopped = false;

    std::vector<std::thread> m_workers;
};
