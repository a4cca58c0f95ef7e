#include "KXBlockVerifier.h"

#include "KXBlockTask.h"
#include "KXUtil.h"

#include <QFile>
#include <QThread>
#include <QVector>

#include <atomic>
#include <thread>
#include <vector>

namespace {

// What the block recorded: the SHA-256 an upload offered, or the fingerprint of what a download
// wrote.
QString hashAt(QFile& file, const CKXBlockTask& block)
{
    if (!file.seek(block.loc())) {
        return QString();
    }
    return KXUtil::isFingerprint(block.hash()) ? KXUtil::fingerprint(&file, block.length())
                                               : KXUtil::SHA256(&file, block.length());
}

} // namespace

QList<CKXBlockTask*> CKXBlockVerifier::changedBlocks(const QList<CKXBlockTask*>& blocks, const QString& path,
                                                     bool upload)
{
    QVector<CKXBlockTask*> recorded;
    for (CKXBlockTask* block : blocks) {
        if (!block->hash().isEmpty() && (upload || block->state() == BlockTaskStateCompleted)) {
            recorded << block;
        }
    }
    // Each worker writes only the slots of the indices it took; they are read after the join.
    QVector<char> changed(recorded.size(), 0);
    std::atomic<int> next{0};
    const auto work = [&] {
        QFile file(path);
        const bool readable = file.open(QIODevice::ReadOnly);
        for (int i = next++; i < recorded.size(); i = next++) {
            const CKXBlockTask* block = recorded[i];
            changed[i] = !readable || hashAt(file, *block) != block->hash();
        }
    };
    const int workers = qMin(QThread::idealThreadCount(), recorded.size());
    std::vector<std::thread> helpers;
    for (int i = 1; i < workers; ++i) {
        helpers.emplace_back(work);
    }
    work();
    for (std::thread& helper : helpers) {
        helper.join();
    }
    QList<CKXBlockTask*> out;
    for (int i = 0; i < recorded.size(); ++i) {
        if (changed[i]) {
            out << recorded[i];
        }
    }
    return out;
}
