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
        m_state.push_back(block->hash().isEmpty() ? State::Free : State::Done);
    }
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
    const int count = qMin(workers, int(std::count(m_state.begin(), m_state.end(), State::Free)));
    for (int i = 0; i < count; ++i) {
        m_workers.emplace_back(&CKXBlockHasher::work, this);
    }
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
        locker.unlock();
        CKXBlockTask* block = m_blocks[i];
        const QString hash = file.seek(block->loc()) ? KXUtil::SHA256(&file, block->length()) : QString();
        if (!hash.isEmpty()) {
            block->setHash(hash);
        }
        locker.lock();
        m_state[i] = State::Done;
        m_changed.notify_all();
    }
}
