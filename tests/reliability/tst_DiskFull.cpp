// Downloads into a small tmpfs that runs out of space: refused before any byte when the free space
// is known to be short or the disk is read-only, failed with NoSpace when the disk fills up while
// the file is written, and in all cases no partial file at the destination. Mounting needs root
// (CAP_SYS_ADMIN); elsewhere the tests skip.

#include "KXReliabilityTest.h"
#include "KXUtil.h"

#include <QDir>
#include <QFile>
#include <QStorageInfo>
#include <QTest>

#include <fcntl.h>
#include <sys/mount.h>

#include <cerrno>
#include <cstring>

namespace {

const qint64 kMiB = 1024 * 1024;

// A tmpfs of a given size on an empty folder, unmounted again by the destructor.
class TmpfsMount
{
public:
    TmpfsMount(const QString& folder, qint64 bytes, unsigned long flags) : m_folder(folder)
    {
        QDir().mkpath(folder);
        const QByteArray options = "size=" + QByteArray::number(bytes);
        if (::mount("tmpfs", QFile::encodeName(folder).constData(), "tmpfs", flags, options.constData()) !=
            0) {
            const QString reason = QString::fromLocal8Bit(std::strerror(errno));
            m_error = QStringLiteral("cannot mount a tmpfs (%1): needs root or CAP_SYS_ADMIN").arg(reason);
        }
    }
    ~TmpfsMount()
    {
        if (mounted()) {
            ::umount2(QFile::encodeName(m_folder).constData(), MNT_DETACH);
        }
    }
    bool mounted() const { return m_error.isEmpty(); }
    QString error() const { return m_error; }

    // Takes all but `leave` bytes of the free space with a file of its own.
    bool fillLeaving(qint64 leave)
    {
        QFile filler(m_folder + QStringLiteral("/filler"));
        const qint64 take = QStorageInfo(m_folder).bytesAvailable() - leave;
        return filler.open(QIODevice::WriteOnly) && ::posix_fallocate(filler.handle(), 0, take) == 0;
    }
    bool removeFiller() { return QFile::remove(m_folder + QStringLiteral("/filler")); }

private:
    QString m_folder;
    QString m_error;
};

} // namespace

class TestDiskFull : public CKXReliabilityTest
{
    Q_OBJECT

private slots:
    void download_data();
    void download();

private:
    QString folder() { return env().localPath(QStringLiteral("small-disk")); }
};

void TestDiskFull::download_data()
{
    QTest::addColumn<qint64>("disk");
    QTest::addColumn<bool>("readOnly");
    QTest::addColumn<qint64>("size");
    QTest::addColumn<int>("held"); // 0, or the requests held while another writer fills the disk
    QTest::addColumn<int>("code"); // with its message
    QTest::newRow("refused, whole file") << 2 * kMiB << false << 3 * kMiB << 0 << int(NoSpace);
    QTest::newRow("refused, chunked") << 2 * kMiB << false << 6 * kMiB + 17 << 0 << int(NoSpace);
    // Too small as well, but what stops the download is that nothing can be written there.
    QTest::newRow("read-only, whole file") << 2 * kMiB << true << 3 * kMiB << 0 << int(LocalFileError);
    QTest::newRow("read-only, chunked") << 2 * kMiB << true << 6 * kMiB + 17 << 0 << int(LocalFileError);
    // The space check before the download passes; then another writer takes the disk. The disk is
    // large enough for the resume to pass the check beside what the failed attempt left in the
    // temporary file, which the check counts as taken.
    QTest::newRow("filled, whole file") << 5 * kMiB << false << 3 * kMiB + 5 << 1 << int(NoSpace);
    // The last block is smaller than the file's write buffer: none of it reaches the disk before the
    // block's final flush.
    QTest::newRow("filled, chunked") << 12 * kMiB << false << 8 * kMiB + 3000 << 3 << int(NoSpace);
}

void TestDiskFull::download()
{
    QFETCH(qint64, disk);
    QFETCH(bool, readOnly);
    QFETCH(qint64, size);
    QFETCH(int, held);
    QFETCH(int, code);
    TmpfsMount small(folder(), disk, readOnly ? MS_RDONLY : 0);
    if (!small.mounted()) {
        QSKIP(qPrintable(small.error()));
    }
    CKXServerProcess& server = env().server();
    const QByteArray content = randomBytes(size, int(size));
    QVERIFY(env().putRemoteFile(QStringLiteral("/big.bin"), content));
    QVERIFY(server.resetStats());
    const QString local = folder() + QStringLiteral("/big.bin");
    const SubTaskInfo task = CKXApiFixture::downloadTask(QStringLiteral("/big.bin"), size, local);
    ApiTaskRecord record;
    if (held == 0) {
        KX_RUN_TO_END(env(), task, &record, false);
    } else {
        // The answers are held until the filler has taken the space the checks saw.
        QVERIFY(server.armFault({{"op", "download"}, {"action", "delay"}, {"ms", 1500}, {"count", held}}));
        const long long handle = CKXApiFixture::start(task);
        // Every request has passed its space check once the server holds all of them.
        QTRY_VERIFY_WITH_TIMEOUT(server.stats().value(QLatin1String("requests")).toInt() >= held, kFinishMs);
        QVERIFY(QFile::exists(KXUtil::tmpFile(local, task.subTaskId)));
        QVERIFY(small.fillLeaving(kMiB));
        waitForEnd(handle, &record);
        if (QTest::currentTestFailed()) {
            return;
        }
    }
    checkCode(record, code);
    QCOMPARE(record.task.errorInfo, code == NoSpace ? QStringLiteral("空间不足 请释放空间后再尝试下载")
                                                    : QStringLiteral("创建文件失败"));
    if (held == 0) {
        QCOMPARE(filesIn(folder()), QStringList());
        QCOMPARE(server.stats().value(QLatin1String("downloads")).toInt(), 0);
        return;
    }
    QVERIFY(!QFile::exists(local));

    // With the space back the same task completes the file.
    QVERIFY(small.removeFiller());
    KX_RUN_TO_END(env(), task, &record, false);
    checkCode(record, NoError);
    const QByteArray got = readFile(local);
    QCOMPARE(got.size(), content.size());
    QCOMPARE(sha256Hex(got), sha256Hex(content));
    QCOMPARE(filesIn(folder()), QStringList{QStringLiteral("big.bin")});
}

QTEST_GUILESS_MAIN(TestDiskFull)
#include "tst_DiskFull.moc"
