// Downloads into a small tmpfs that runs out of space: refused before any byte when the free space
// is known to be short, failed with NoSpace when the disk fills up while the file is written, and in
// both cases no partial file at the destination. Mounting needs root (CAP_SYS_ADMIN); elsewhere the
// tests skip.

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
            m_error = QStringLiteral("cannot mount a tmpfs here (%1); the disk-full tests need root or "
                                     "CAP_SYS_ADMIN")
                          .arg(QString::fromLocal8Bit(std::strerror(errno)));
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
    void refusedBeforeAnyByte_data();
    void refusedBeforeAnyByte();
    void diskFillsWhileWriting_data();
    void diskFillsWhileWriting();

private:
    QString folder() { return env().localPath(QStringLiteral("small-disk")); }
};

void TestDiskFull::refusedBeforeAnyByte_data()
{
    QTest::addColumn<qint64>("size");
    QTest::addColumn<bool>("readOnly");
    QTest::addColumn<int>("code");
    QTest::addColumn<QString>("text");
    const QString noSpace = QStringLiteral("空间不足 请释放空间后再尝试下载");
    QTest::newRow("whole file") << 3 * kMiB << false << int(NoSpace) << noSpace;
    QTest::newRow("chunked") << 6 * kMiB + 17 << false << int(NoSpace) << noSpace;
    // Too small as well, but what stops the download is that nothing can be written there.
    const QString cannotCreate = QStringLiteral("创建文件失败");
    QTest::newRow("read-only, whole file") << 3 * kMiB << true << int(LocalFileError) << cannotCreate;
    QTest::newRow("read-only, chunked") << 6 * kMiB + 17 << true << int(LocalFileError) << cannotCreate;
}

void TestDiskFull::refusedBeforeAnyByte()
{
    QFETCH(qint64, size);
    QFETCH(bool, readOnly);
    QFETCH(int, code);
    QFETCH(QString, text);
    TmpfsMount disk(folder(), 2 * kMiB, readOnly ? MS_RDONLY : 0);
    if (!disk.mounted()) {
        QSKIP(qPrintable(disk.error()));
    }
    QVERIFY(env().putRemoteFile(QStringLiteral("/big.bin"), randomBytes(size, 3)));
    QVERIFY(env().server().resetStats());

    const QString local = folder() + QStringLiteral("/big.bin");
    ApiTaskRecord record;
    KX_RUN_TO_END(env(), CKXApiFixture::downloadTask(QStringLiteral("/big.bin"), size, local), &record,
                  false);
    checkCode(record, code);
    QCOMPARE(record.task.errorInfo, text);
    QCOMPARE(filesIn(folder()), QStringList());
    QCOMPARE(env().server().stats().value(QLatin1String("downloads")).toInt(), 0);
}

void TestDiskFull::diskFillsWhileWriting_data()
{
    QTest::addColumn<qint64>("disk");
    QTest::addColumn<qint64>("size");
    QTest::addColumn<int>("requests");
    // The space check before the download passes; then another writer takes the disk. The disk is
    // large enough for the resume to pass the check beside what the failed attempt left in the
    // temporary file, which the check counts as taken.
    QTest::newRow("whole file") << 5 * kMiB << 3 * kMiB + 5 << 1;
    // The last block is smaller than the file's write buffer: none of it reaches the disk before the
    // block's final flush.
    QTest::newRow("chunked") << 12 * kMiB << 8 * kMiB + 3000 << 3;
}

void TestDiskFull::diskFillsWhileWriting()
{
    QFETCH(qint64, disk);
    QFETCH(qint64, size);
    QFETCH(int, requests);
    TmpfsMount small(folder(), disk, 0);
    if (!small.mounted()) {
        QSKIP(qPrintable(small.error()));
    }
    CKXServerProcess& server = env().server();
    const QByteArray content = randomBytes(size, int(size));
    QVERIFY(env().putRemoteFile(QStringLiteral("/big.bin"), content));
    QVERIFY(server.resetStats());
    // The answers are held until the filler has taken the space the checks saw.
    QVERIFY(server.armFault({{"op", "download"}, {"action", "delay"}, {"ms", 1500}, {"count", requests}}));

    const QString local = folder() + QStringLiteral("/big.bin");
    const SubTaskInfo task = CKXApiFixture::downloadTask(QStringLiteral("/big.bin"), size, local);
    const long long handle = CKXApiFixture::start(task);
    // Every request has passed its space check once the server holds all of them.
    QTRY_VERIFY_WITH_TIMEOUT(server.stats().value(QLatin1String("requests")).toInt() >= requests, kFinishMs);
    QVERIFY(QFile::exists(KXUtil::tmpFile(local, task.subTaskId)));
    QVERIFY(small.fillLeaving(kMiB));
    ApiTaskRecord record;
    waitForEnd(handle, &record);
    checkCode(record, NoSpace);
    QCOMPARE(record.task.errorInfo, QStringLiteral("空间不足 请释放空间后再尝试下载"));
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
