// Stores the block rows of a 100 GiB upload (25,600 blocks of 4 MiB) into a fresh database and
// reads them back, printing the times. The rows are the ones a chunked transfer writes when it
// first cuts its file, so this is the pause a user sees before a large upload starts.

#include "KXBlockTask.h"
#include "KXTransferDB.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QTemporaryDir>
#include <QUuid>

#include <cstdio>

namespace {

const qint64 kBlockSize = 4194304;
const qint64 kFileSize = 100LL * 1024 * 1024 * 1024;

SubTaskInfo bigUpload()
{
    SubTaskInfo info;
    info.subTaskId = QUuid::createUuid().toString();
    info.taskId = QUuid::createUuid().toString();
    info.size = kFileSize;
    info.isUpload = true;
    info.state = StateWorking;
    info.localFile.size = kFileSize;
    info.localFile.path = QStringLiteral("/Users/someone/Movies/备份 2024/disk-image-100G.dmg");
    info.localFile.time = QStringLiteral("1714979289");
    info.remoteFile.path = QStringLiteral("/个人空间/备份/disk-image-100G.dmg");
    info.remoteFile.neid = QStringLiteral("4000123");
    info.remoteFile.pathType = QStringLiteral("self");
    info.dataServerHost = QStringLiteral("dc1.example.net");
    info.fingerMark = QStringLiteral("fp-100g");
    return info;
}

// The blocks as the block builder cuts them.
QList<CKXBlockTask*> cutIntoBlocks(const SubTaskInfo& info)
{
    QList<CKXBlockTask*> blocks;
    const int count = int((kFileSize + kBlockSize - 1) / kBlockSize);
    blocks.reserve(count);
    for (int i = 0; i < count; ++i) {
        auto* block = new CKXBlockTask();
        block->setTaskId(QUuid::createUuid().toString());
        block->setSubTaskId(info.subTaskId);
        block->setIdx(i);
        block->setLoc(qint64(i) * kBlockSize);
        block->setLength(qMin(kBlockSize, kFileSize - qint64(i) * kBlockSize));
        block->setTotal(block->length());
        block->setIsUpload(true);
        block->setState(BlockTaskStateNone);
        block->setSubTaskInfo(info);
        blocks.append(block);
    }
    return blocks;
}

void report(const char* what, qint64 nanoseconds, int blocks)
{
    const double ms = double(nanoseconds) / 1e6;
    std::printf("%-34s %6d blocks  %9.1f ms total  %7.2f ms per 1000 blocks\n", what, blocks, ms,
                ms * 1000.0 / blocks);
}

} // namespace

int main(int argc, char** argv)
{
    QTemporaryDir home;
    if (!home.isValid()) {
        std::fprintf(stderr, "cannot create a temporary folder\n");
        return 1;
    }
    // Logs of the run go to the temporary folder, not into the user's.
    qputenv("XDG_DATA_HOME", home.path().toUtf8());
    qputenv("HOME", home.path().toUtf8());
    QCoreApplication app(argc, argv);

    CKXTransferDB db(home.filePath(QStringLiteral("data/transfer.db")));
    if (!db.init()) {
        std::fprintf(stderr, "cannot create the database\n");
        return 1;
    }
    const SubTaskInfo info = bigUpload();
    QList<CKXBlockTask*> blocks = cutIntoBlocks(info);

    QElapsedTimer timer;
    timer.start();
    const bool stored = db.AddBlockTaskFormList(blocks);
    report("AddBlockTaskFormList", timer.nsecsElapsed(), blocks.size());

    QList<CKXBlockTask*> loaded;
    timer.restart();
    const bool read = db.LoadBlockTasks(info.subTaskId, loaded);
    report("LoadBlockTasks", timer.nsecsElapsed(), loaded.size());

    bool ordered = loaded.size() == blocks.size();
    for (int i = 0; ordered && i < loaded.size(); ++i) {
        ordered = loaded.at(i)->idx() == i && loaded.at(i)->loc() == blocks.at(i)->loc();
    }

    // For scale: the same rows one statement (and one transaction) each, on a sample.
    const int sample = 500;
    timer.restart();
    bool singleStored = true;
    for (int i = 0; i < sample; ++i) {
        blocks.at(i)->setState(BlockTaskStateCompleted);
        singleStored = db.AddBlockTask(*blocks.at(i)) && singleStored;
    }
    report("AddBlockTask one by one (sample)", timer.nsecsElapsed(), sample);

    qDeleteAll(blocks);
    qDeleteAll(loaded);
    if (!stored || !read || !ordered || !singleStored) {
        std::fprintf(stderr, "FAILED: stored=%d read=%d ordered=%d single=%d\n", stored, read, ordered,
                     singleStored);
        return 1;
    }
    return 0;
}
