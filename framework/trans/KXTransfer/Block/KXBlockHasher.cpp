#include "KXBlockHasher.h"

#include "KXBlockTask.h"
#include "KXUtil.h"

#include <QFile>

#include <algorithm>

CKXBlockHasher::CKXBlockHasher(const QList<CKXBlockTask*>& blocks, const QString& path, int lookahead)
    : m_path(path), m_lookahead(qMax(lookahead, 0))
{
    // Every block keeps its place, so that the window counts starts of blocks that need no hash too.
    for (CKXBlockTask* block : blocks) {
        m_index.insert(block, int(m_blocks.size()));
        m_blocks.push_back(block);
        m_spans.push_back(Span{block->loc(), block->length()});
        m_state.push_back(block->hash().isEmpty() ? State::Free : State::Done);
    }
    m_made.resize(m_blocks.size());
}

CKXBlockHasher::CKXBlockHasher(const QString& path, long long size, long long blockSize, int lookahead)
    : m_path(path), m_lookahead(qMax(lookahead, 0))
{
    for (long long loc = 0; blockSize > 0 && loc < size; loc += blockSize) {
        m_spans.push_back(Span{loc, qMin(blockSize, size - loc)});
    }
    m_blocks.assign(m_spans.size(), nullptr);
    m_made.resize(m_spans.size());
    m_state.assign(m_spans.size(), State::Free);
}

CKXBlockHasher::~CKXBlockHasher()
{
    stop();
    for (std::thread& worker : m_workers) {
        worker.join();
    }
}

void CKXBlockHasher::start(int workers)
{
    int free = 0;
    {
        std::lock_guard<std::mutex> locker(m_lock);
        free = int(std::count(m_state.begin(), m_state.end(), State::Free));
    }
    const int count = qMin(workers, int(m_workers.size()) + free);
    for (int i = int(m_workers.size()); i < count; ++i) {
        m_workers.emplace_back(&CKXBlockHasher::work, this);
    }
}

bool CKXBlockHasher::adopt(const QList<CKXBlockTask*>& blocks)
{
    if (size_t(blocks.size()) != m_spans.size()) {
        return false;
    }
    for (int i = 0; i < blocks.size(); ++i) {
        const Span& span = m_spans[size_t(i)];
        if (blocks[i]->loc() != span.loc || blocks[i]->length() != span.length ||
            !blocks[i]->hash().isEmpty()) {
            return false;
        }
    }
    std::vector<QString> made;
    {
        std::lock_guard<std::mutex> locker(m_lock);
        if (!m_index.isEmpty()) {
            return false;
        }
        for (int i = 0; i < blocks.size(); ++i) {
            m_index.insert(blocks[i], i);
            m_blocks[size_t(i)] = blocks[i];
        }
        made = std::move(m_made);
        m_made.assign(made.size(), QString());
    }
    // No block thread runs yet, and the workers leave blocks that are Done alone.
    for (size_t i = 0; i < made.size(); ++i) {
        if (!made[i].isEmpty()) {
            m_blocks[i]->setHash(made[i]);
        }
    }
    return true;
}

void CKXBlockHasher::stop()
{
    std::lock_guard<std::mutex> locker(m_lock);
    m_stopped = true;
    m_changed.notify_all();
}

void CKXBlockHasher::noteStarted()
{
    std::lock_guard<std::mutex> locker(m_lock);
    ++m_started;
    m_changed.notify_all();
}

int CKXBlockHasher::madeCount()
{
    std::lock_guard<std::mutex> locker(m_lock);
    return m_madeCount;
}

void CKXBlockHasher::claim(CKXBlockTask* block)
{
    const int i = m_index.value(block, -1);
    if (i < 0) {
        return;
    }
    std::unique_lock<std::mutex> locker(m_lock);
    if (m_state[i] == State::Free) {
        m_state[i] = State::Done;
        return;
    }
    // A worker that took the block always finishes it, stopped or not: the caller must not read
    // the hash while it may still be stored.
    m_changed.wait(locker, [this, i] { return m_state[i] != State::Hashing; });
}

int CKXBlockHasher::nextFree()
{
    while (m_next < m_blocks.size() && m_state[m_next] != State::Free) {
        ++m_next;
    }
    if (m_next >= m_blocks.size() || m_next >= m_started + size_t(m_lookahead)) {
        return -1;
    }
    return int(m_next++);
}

void CKXBlockHasher::work()
{
    // One handle per worker: reads of different blocks never share a file position.
    QFile file(m_path);
    if (!file.open(QIODevice::ReadOnly | QIODevice::Unbuffered)) {
        return; // each block thread then opens the file itself and reports why it cannot
    }
    std::unique_lock<std::mutex> locker(m_lock);
    while (!m_stopped) {
        const int i = nextFree();
        if (i < 0) {
            if (m_next >= m_blocks.size()) {
                return;
            }
            m_changed.wait(locker);
            continue;
        }
        m_state[i] = State::Hashing;
        const Span span = m_spans[size_t(i)];
        locker.unlock();
        const QString hash = file.seek(span.loc) ? KXUtil::SHA256(&file, span.length) : QString();
        locker.lock();
        store(locker, i, hash);
        m_state[i] = State::Done;
        m_changed.notify_all();
    }
}

void CKXBlockHasher::store(std::unique_lock<std::mutex>& locker, int i, const QString& hash)
{
    if (hash.isEmpty()) {
        return;
    }
    ++m_madeCount;
    CKXBlockTask* block = m_blocks[size_t(i)];
    if (!block) {
        m_made[size_t(i)] = hash;
        return;
    }
    // Still Hashing: a claim waits, and adopt() has passed this block, until the hash is stored.
    locker.unlock();
    block->setHash(hash);
    locker.lock();
}
