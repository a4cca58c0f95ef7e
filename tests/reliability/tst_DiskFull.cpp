// Downloads into a small tmpfs that runs out of space: refused before any byte when the free space
// is known to be short, failed with NoSpace when the disk fills up while the file is written, and in
// both cases no partial file at the destination. Mounting needs root (CAP_SYS_ADMIN); elsewhere the
// tests skip.

#include "KXApiFixture.h"
#include "KXUtil.h"

#include <QDir>
#include <QFile>
#include <QTest>

#include <sys/mount.h>
#include <sys/statvfs.h>

#include <cerrno>
#include <cstring>
#include <memory>

namespace {

const qint64 kKiB = 1024;
const qint64 kMiB = 1024 * kKiB;

// A tmpfs of a given size on an empty folder, unmounted again by the destructor.
class TmpfsMount
{
public:
    TmpfsMount(const QString& folder, qint64 bytes, unsigned long flags) : m_folder(folder)
    {
        QDir().mkpath(folder);
        const QByteArray options = "size=" + QByteArray::number(bytes);
        m_mounted =
            ::mount("tmpfs", QFile::encodeName(folder).constData(), "tmpfs", flags, options.constData()) == 0;
        if (!m_mounted) {
            m_error = QString::fromLocal8Bit(std::strerror(errno));
        }
    }
    ~TmpfsMount()
    {
        if (m_mounted) {
            ::umount2(QFile::encodeName(m_folder).constData(), MNT_DETACH);
        }
    }
    bool mounted() const { return m_mounted; }
    QString error() const { return m_error; }

    qint64 available() const
    {
        struct statvfs info;
        if (::statvfs(QFile::encodeName(m_folder).constData(), &info) != 0) {
            return -1;
        }
        return qint64(info.f_bavail) * qint64(info.f_frsize);
    }

    // Takes all but `leave` bytes of the free space with a file of its own.
    bool fillLeaving(qint64 leave)
    {
        QFile filler(m_folder + QStringLiteral("/filler"));
        if (!filler.open(QIODevice::WriteOnly | QIODevice::Append)) {
            return false;
        }
        const QByteArray piece(int(64 * kKiB), 'f');
        for (qint64 want = available() - leave; want > 0; want -= piece.size()) {
            if (filler.write(piece.constData(), qMin<qint64>(want, piece.size())) < 0) {
                return false;
            }
        }
        return filler.flush();
    }
    bool removeFiller() { return QFile::remove(m_folder + QStringLiteral("/filler")); }

private:
    QString m_folder;
    bool m_mounted = false;
    QString m_error;
};

QStringList filesIn(const QString& folder)
{
    return QDir(folder).entryList(QDir::Files | QDir::Hidden, QDir::Name);
}

} // namespace

class TestDiskFull : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();

    void refusedBeforeAnyByte_data();
    void refusedBeforeAnyByte();
    void diskFillsWhileWriting_data();
    void diskFillsWhileWriting();

private:
    // Mounts a tmpfs of `bytes` on a folder of the test, or skips the test.
    bool mountDisk(qint64 bytes, unsigned long flags = 0);

    std::unique_ptr<CKXApiFixture> m_env;
    std::unique_ptr<TmpfsMount> m_disk;
    QString m_folder;
};

void TestDiskFull::init()
{
    m_env = std::make_unique<CKXApiFixture>();
    QVERIFY2(m_env->setUp(), qPrintable(m_env->errorString()));
    m_folder = m_env->localPath(QStringLiteral("small-disk"));
}

void TestDiskFull::cleanup()
{
    m_disk.reset();
    m_env.reset();
}

bool TestDiskFull::mountDisk(qint64 bytes, unsigned long flags)
{
    m_disk = std::make_unique<TmpfsMount>(m_folder, bytes, flags);
    return m_disk->mounted();
}

#define KX_MOUNT_OR_SKIP(bytes, flags)                                                                       \
    do {                                                                                                     \
        if (!mountDisk(bytes, flags)) {                                                                      \
            QSKIP(qPrintable(QStringLiteral("cannot mount a tmpfs here (%1); the disk-full tests need root " \
                                            "or CAP_SYS_ADMIN")                                              \
                                 .arg(m_disk->error())));                                                    \
        }                                                                                                    \
    } while (0)

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
    KX_MOUNT_OR_SKIP(2 * kMiB, readOnly ? MS_RDONLY : 0);
    CKXApiFixture& env = *m_env;
    QVERIFY(env.putRemoteFile(QStringLiteral("/big.bin"), randomBytes(size, 3)));
    QVERIFY(env.server().resetStats());

    const QString local = m_folder + QStringLiteral("/big.bin");
    ApiTaskRecord record;
    KX_RUN_TO_END(env, CKXApiFixture::downloadTask(QStringLiteral("/big.bin"), size, local), &record, false);
    QCOMPARE(int(record.code), code);
    QCOMPARE(record.task.state, StateError);
    QCOMPARE(record.task.errorInfo, text);
    QCOMPARE(filesIn(m_folder), QStringList());
    QCOMPARE(env.server().stats().value(QLatin1String("downloads")).toInt(), 0);
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
    KX_MOUNT_OR_SKIP(disk, 0);
    CKXApiFixture& env = *m_env;
    const QByteArray content = randomBytes(size, int(size));
    QVERIFY(env.putRemoteFile(QStringLiteral("/big.bin"), content));
    QVERIFY(env.server().resetStats());
    // The answers are held until the filler has taken the space the checks saw.
    QVERIFY(
        env.server().armFault({{"op", "download"}, {"action", "delay"}, {"ms", 1500}, {"count", requests}}));

    const QString local = m_folder + QStringLiteral("/big.bin");
    const SubTaskInfo task = CKXApiFixture::downloadTask(QStringLiteral("/big.bin"), size, local);
    const long long handle = CKXApiFixture::start(task);
    QVERIFY(handle != 0);
    // Every request has passed its space check once the server holds all of them.
    QTRY_VERIFY_WITH_TIMEOUT(env.server().stats().value(QLatin1String("requests")).toInt() >= requests,
                             kFinishMs);
    QVERIFY(QFile::exists(KXUtil::tmpFile(local, task.subTaskId)));
    QVERIFY(m_disk->fillLeaving(kMiB));

    QTRY_VERIFY_WITH_TIMEOUT(CKXApiFixture::record(handle).finals > 0, kFinishMs);
    QTRY_COMPARE_WITH_TIMEOUT(Transfer::transferCount(), 0, kFinishMs);
    const ApiTaskRecord failed = CKXApiFixture::record(handle);
    QCOMPARE(failed.finals, 1);
    QVERIFY2(
        failed.code == NoSpace,
        qPrintable(QStringLiteral("code %1: %2").arg(QString::number(failed.code), failed.task.errorInfo)));
    QCOMPARE(failed.task.errorInfo, QStringLiteral("空间不足 请释放空间后再尝试下载"));
    QVERIFY(!QFile::exists(local));

    // With the space back the same task completes the file.
    QVERIFY(m_disk->removeFiller());
    ApiTaskRecord resumed;
    KX_RUN_TO_END(env, task, &resumed, false);
    QVERIFY2(
        resumed.code == NoError,
        qPrintable(QStringLiteral("code %1: %2").arg(QString::number(resumed.code), resumed.task.errorInfo)));
    const QByteArray got = readFile(local);
    QCOMPARE(got.size(), content.size());
    QCOMPARE(sha256Hex(got), sha256Hex(content));
    QCOMPARE(filesIn(m_folder).join(QLatin1Char(' ')), QStringLiteral("big.bin"));
}

QTEST_GUILESS_MAIN(TestDiskFull)
#include "tst_DiskFull.moc"
