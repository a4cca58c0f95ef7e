#include "KXTestData.h"
#include "KXUtil.h"

#include <QBuffer>
#include <QCryptographicHash>
#include <QDir>
#include <QFile>
#include <QStorageInfo>
#include <QTemporaryDir>
#include <QtTest>

class TestKXUtil : public QObject
{
    Q_OBJECT

private slots:
    void sha256LargeBufferMatchesReference();

    void existsCreateAndRemove();

    void moveFileKeepsDataOnFailure_data();
    void moveFileKeepsDataOnFailure();
    void tmpFileLiesBesideItsFile();

    void freeBytesFromNearestParent();

    void protection_data();
    void protection();
};

void TestKXUtil::sha256LargeBufferMatchesReference()
{
    const QByteArray block = randomBytes(4 * 1024 * 1024, 20261121);
    const QString reference =
        QString::fromLatin1(QCryptographicHash::hash(block, QCryptographicHash::Sha256).toHex());
    QCOMPARE(KXUtil::SHA256(block), reference);

    // Read from a device in pieces, from where it stands, for exactly the length asked.
    QBuffer device;
    device.setData(QByteArray("head") + block + QByteArray("tail"));
    QVERIFY(device.open(QIODevice::ReadOnly) && device.seek(4));
    QCOMPARE(KXUtil::SHA256(&device, block.size()), reference);
    QVERIFY(device.seek(4));
    QCOMPARE(KXUtil::SHA256(&device, block.size() + 5), QString());

    // Fed in uneven pieces, as a download's answer arrives.
    KXUtil::Sha256Stream stream;
    for (int at = 0, piece = 1; at < block.size(); at += piece, piece = piece * 7 % 65521 + 1)
        stream.add(block.constData() + at, qMin(piece, block.size() - at));
    QCOMPARE(stream.hex(), reference);

    // The fingerprint of a download's pieces tells the same bytes from one changed byte.
    KXUtil::Fingerprint print;
    print.add(block.constData(), 1000);
    print.add(block.constData() + 1000, block.size() - 1000);
    QVERIFY(device.seek(4));
    QCOMPARE(KXUtil::fingerprint(&device, block.size()), print.text());
    QVERIFY(KXUtil::isFingerprint(print.text()) && !KXUtil::isFingerprint(reference));
    QByteArray changed = block;
    changed[int(changed.size() / 2)] = char(changed.at(int(changed.size() / 2)) ^ 1);
    QBuffer other(&changed);
    QVERIFY(other.open(QIODevice::ReadOnly));
    QVERIFY(KXUtil::fingerprint(&other, changed.size()) != print.text());
}

void TestKXUtil::existsCreateAndRemove()
{
    QTemporaryDir dir;
    QVERIFY(dir.isValid());
    const QString path = dir.filePath(QStringLiteral("新建/子目录/文件.txt"));

    QVERIFY(!KXUtil::isExist(path));
    QVERIFY(!KXUtil::isExist(path.toStdString()));
    QVERIFY(KXUtil::createFile(path));
    QVERIFY(KXUtil::isExist(path));
    QVERIFY(KXUtil::isExist(path.toStdString()));
    QCOMPARE(QFileInfo(path).size(), 0);

    // A second create must not empty a file that already holds data.
    QVERIFY(writeFile(path, "kept"));
    QVERIFY(KXUtil::createFile(path));
    QCOMPARE(readFile(path), QByteArray("kept"));
    QVERIFY(!KXUtil::createFile(QString()));

    QCOMPARE(KXUtil::fileName(path), QStringLiteral("文件.txt"));

    QVERIFY(KXUtil::removeFile(path));
    QVERIFY(!KXUtil::isExist(path));
    QVERIFY2(KXUtil::removeFile(path), "removing a missing file leaves no file: success");
    QVERIFY2(!KXUtil::removeFile(dir.filePath(QStringLiteral("新建"))), "folders are not removed");
    QVERIFY(QFileInfo(dir.filePath(QStringLiteral("新建"))).isDir());
}

void TestKXUtil::moveFileKeepsDataOnFailure_data()
{
    QTest::addColumn<QString>("source");         // in a fresh folder ("shm:": in /dev/shm); empty: no path
    QTest::addColumn<QByteArray>("sourceBytes"); // null: no such file
    QTest::addColumn<QString>("target");
    QTest::addColumn<QByteArray>("targetBytes"); // null: no such file; "/": a folder in the way
    QTest::addColumn<bool>("moved");
    const QByteArray none;
    QTest::newRow("into new folders")
        << "a/source.bin" << randomBytes(100000, 1) << "b/c/目标.bin" << none << true;
    // The target must not keep the tail of a longer file.
    QTest::newRow("onto a longer file")
        << "s" << QByteArray("new") << "t" << QByteArray("old and longer") << true;
    // Copied, then the source removed: no temporary file stays beside the target.
    QTest::newRow("across filesystems")
        << "shm:source.bin" << randomBytes(3 * 1024 * 1024 + 17, 2) << "t" << QByteArray("old") << true;
    QTest::newRow("missing source") << "s" << none << "t" << QByteArray("precious") << false;
    QTest::newRow("empty source path") << "" << none << "t" << QByteArray("precious") << false;
    QTest::newRow("folder in the way") << "s" << QByteArray("data") << "t" << QByteArray("/") << false;
}

void TestKXUtil::moveFileKeepsDataOnFailure()
{
    QFETCH(QString, source);
    QFETCH(QByteArray, sourceBytes);
    QFETCH(QString, target);
    QFETCH(QByteArray, targetBytes);
    QFETCH(bool, moved);
    QTemporaryDir dir;
    QTemporaryDir shm(QStringLiteral("/dev/shm/kxutil-test-XXXXXX"));
    const bool across = source.startsWith(QLatin1String("shm:"));
    if (across &&
        (!shm.isValid() || QStorageInfo(shm.path()).rootPath() == QStorageInfo(dir.path()).rootPath()))
        QSKIP("no second filesystem at /dev/shm: the copying path cannot be reached");
    const QString src = source.isEmpty() ? QString()
                        : across         ? shm.filePath(source.mid(4))
                                         : dir.filePath(source);
    const QString dst = dir.filePath(target);
    const auto executable = QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner;
    QVERIFY(sourceBytes.isNull() || (writeFile(src, sourceBytes) && QFile::setPermissions(src, executable)));
    if (targetBytes == "/")
        QVERIFY(QDir().mkpath(dst + "/inside"));
    else if (!targetBytes.isNull())
        QVERIFY(writeFile(dst, targetBytes));

    QCOMPARE(KXUtil::moveFile(src, dst), moved);
    QCOMPARE(QFileInfo::exists(src), !moved && !sourceBytes.isNull());
    if (!sourceBytes.isNull())
        QCOMPARE(readFile(moved ? dst : src), sourceBytes);
    if (!moved && targetBytes != "/")
        QCOMPARE(readFile(dst), targetBytes);
    if (moved) {
        QVERIFY2(QFileInfo(dst).isExecutable(), "permissions travel with the file");
        QCOMPARE(QDir(QFileInfo(dst).path()).entryList(QDir::Files | QDir::Hidden),
                 QStringList{QFileInfo(dst).fileName()});
    }
}

void TestKXUtil::tmpFileLiesBesideItsFile()
{
    QTemporaryDir dir;
    QVERIFY(dir.isValid());
    const QString path = dir.filePath(QStringLiteral("下载/movie.mkv"));
    const QString tmp = KXUtil::tmpFile(path);
    QVERIFY(tmp != path);
    QCOMPARE(QFileInfo(tmp).absolutePath(), QFileInfo(path).absolutePath());
    QVERIFY(KXUtil::fileName(tmp).startsWith(QStringLiteral("movie.mkv")));
    // One per task, and the same one for the same task again.
    const QString mine = KXUtil::tmpFile(path, QStringLiteral("task-a"));
    QCOMPARE(QFileInfo(mine).absolutePath(), QFileInfo(path).absolutePath());
    QVERIFY(mine != KXUtil::tmpFile(path, QStringLiteral("task-b")) && mine != tmp);
    QCOMPARE(KXUtil::tmpFile(path, QStringLiteral("task-a")), mine);
}

void TestKXUtil::freeBytesFromNearestParent()
{
    QTemporaryDir dir;
    for (const QString& path : {dir.path(), dir.filePath(QStringLiteral("not-yet-downloaded.bin")),
                                dir.filePath(QStringLiteral("no/such/tree/../at/all/f.bin")),
                                QStringLiteral("/no-such-root-kx/x/y/z")})
        QVERIFY2(KXUtil::GetDiskAvailableBytes(path) >= 0, qPrintable(path));
    QCOMPARE(KXUtil::GetDiskAvailableBytes(QString()), qint64(-1));
}

// Stored text reads back as what was hidden; text that was never ours, lost its end or had any one
// character changed reads as nothing.
void TestKXUtil::protection_data()
{
    QTest::addColumn<QString>("plain"); // null: `stored` is garbage
    QTest::addColumn<QString>("stored");
    const auto hidden = [](const char* name, const QString& plain) {
        QTest::newRow(name) << plain << KXUtil::simpleEncrypt(plain);
    };
    hidden("ascii", QStringLiteral("p@ssw0rd!"));
    hidden("chinese", QStringLiteral("密码是一二三"));
    hidden("emoji", QString::fromUtf8("\xF0\x9F\x94\x91 key \xF0\x9F\x98\x80"));
    hidden("empty", QStringLiteral(""));
    hidden("json specials", QStringLiteral("quote\" back\\slash \n\t\x01 end"));
    hidden("repeated", QString(300, QLatin1Char('a')));
    QTest::newRow("garbage: empty") << QString() << QString();
    QTest::newRow("abc") << QString() << QStringLiteral("abc");
    QTest::newRow("random bytes") << QString() << QString::fromLatin1(randomBytes(64, 3));
    QTest::newRow("prefix only") << QString() << QStringLiteral("kx1.");
    QTest::newRow("prefix and noise") << QString() << QStringLiteral("kx1.AAAAAAAAAAAA");
    QTest::newRow("bad base64") << QString() << QStringLiteral("kx1.***");
    QTest::newRow("non-latin1") << QString() << QStringLiteral("kx1.密码");
    const QString secret = KXUtil::simpleEncrypt(QStringLiteral("secret text"));
    QTest::newRow("truncated") << QString() << secret.left(secret.size() - 2);
    for (int i = 0; i < secret.size(); ++i) {
        QString altered = secret;
        altered[i] = altered[i] == QLatin1Char('A') ? QLatin1Char('B') : QLatin1Char('A');
        QTest::addRow("altered at %d", i) << QString() << altered;
    }
}

void TestKXUtil::protection()
{
    QFETCH(QString, plain);
    QFETCH(QString, stored);
    QCOMPARE(KXUtil::simpleDecrypt(stored), plain);
    if (plain.isNull())
        return;
    QVERIFY(!stored.isEmpty());
    for (const QChar c : stored) {
        QVERIFY2(c.unicode() >= 0x20 && c.unicode() < 0x7f && c != '"' && c != '\\',
                 qPrintable("not JSON-safe: " + stored));
    }
    if (!plain.isEmpty())
        QVERIFY(!stored.contains(plain));
}

QTEST_GUILESS_MAIN(TestKXUtil)
#include "tst_KXUtil.moc"
