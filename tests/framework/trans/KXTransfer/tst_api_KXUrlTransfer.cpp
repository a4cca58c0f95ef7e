// Downloads from plain addresses (a real nginx) driven through the public API.

#include "KXApiFixture.h"
#include "KXNginxProcess.h"
#include "KXUtil.h"

#include <QDir>
#include <QFile>
#include <QJsonObject>
#include <QTemporaryDir>
#include <QTest>

#include <memory>

class TestApiUrlTransfer : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();

    void downloadsAddress();
    void failedAddressLeavesNothing_data();
    void failedAddressLeavesNothing();
    void uploadMarkedTaskStillDownloads();
    void addressLargerThanDisk();

private:
    QString publish(const QString& name, const QByteArray& content);

    std::unique_ptr<QTemporaryDir> m_www;
    std::unique_ptr<KXNginxProcess> m_nginx;
    std::unique_ptr<CKXApiFixture> m_env;
};

void TestApiUrlTransfer::init()
{
    m_www.reset(new QTemporaryDir);
    m_nginx.reset(new KXNginxProcess);
    QVERIFY2(m_nginx->start(m_www->path()), qPrintable(m_nginx->errorString()));
    QStringList serverArgs;
    if (QByteArray(QTest::currentTestFunction()) == "uploadMarkedTaskStillDownloads") {
        // The authorisation answers this address as the data server of the upload.
        serverArgs << QStringLiteral("--public-url") << m_nginx->baseUrl() + QStringLiteral("/files/a.bin");
    }
    m_env.reset(new CKXApiFixture(serverArgs));
    QVERIFY2(m_env->setUp(), qPrintable(m_env->errorString()));
}

void TestApiUrlTransfer::cleanup()
{
    m_env.reset();
    m_nginx.reset();
    m_www.reset();
}

QString TestApiUrlTransfer::publish(const QString& name, const QByteArray& content)
{
    return writeFile(m_www->filePath(name), content) ? m_nginx->baseUrl() + QLatin1Char('/') + name
                                                     : QString();
}

void TestApiUrlTransfer::downloadsAddress()
{
    const QByteArray content = randomBytes(300 * 1024);
    const QString url = publish(QStringLiteral("files/a.bin"), content);
    QVERIFY(!url.isEmpty());
    const QString local = m_env->localPath(QStringLiteral("a.bin"));
    SubTaskInfo task = CKXApiFixture::downloadTask(QString(), 0, local);
    task.dataServerHost = url;
    // Left over from an earlier attempt and longer than the file: it must be rewritten, not appended to.
    QVERIFY(writeFile(KXUtil::tmpFile(local, task.subTaskId), randomBytes(512 * 1024, 7)));

    ApiTaskRecord record;
    KX_RUN_TO_END(*m_env, task, &record, true);
    QCOMPARE(record.code, NoError);
    QCOMPARE(sha256Hex(readFile(local)), sha256Hex(content));
    QVERIFY(!QFile::exists(KXUtil::tmpFile(local, task.subTaskId)));
    // The size is learnt from the download itself.
    QCOMPARE(record.task.size, qint64(content.size()));
    QVERIFY(record.progress > 0);
    m_env->checkReadOnce(record.task.subTaskId, content.size());
}

void TestApiUrlTransfer::failedAddressLeavesNothing_data()
{
    QTest::addColumn<QString>("address"); // "nginx" stands for that server's base
    QTest::addColumn<int>("httpCode");
    QTest::newRow("not found") << QStringLiteral("nginx/nope.bin") << 404;
    QTest::newRow("unsupported scheme") << QStringLiteral("gopher://127.0.0.1/f.bin") << 0;
}

// Nothing of a failed download stays on disk: a failed download starts from byte 0 again anyway.
void TestApiUrlTransfer::failedAddressLeavesNothing()
{
    QFETCH(QString, address);
    QFETCH(int, httpCode);
    address.replace(QStringLiteral("nginx"), m_nginx->baseUrl());
    const QString folder = m_env->localPath(QStringLiteral("got"));
    QVERIFY(QDir().mkpath(folder));

    ApiTaskRecord record;
    KX_RUN_ADDRESS_TO_END(*m_env, address, folder + QStringLiteral("/f.bin"), &record);
    // A plain address answers without a server error code: the failure is in the record.
    QCOMPARE(record.task.state, StateError);
    QCOMPARE(record.task.httpCode, httpCode);
    QCOMPARE(QDir(folder).entryList(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot), QStringList());
    QCOMPARE(record.task.subTaskId.size(), 38); // the address form draws an id of its own
    QCOMPARE(m_env->dbRowState(record.task.subTaskId), int(StateError));
}

// An upload flag on a URL task still runs the upload checks (local file, authorisation), and the
// authorisation's data server becomes the address; then the address is downloaded.
void TestApiUrlTransfer::uploadMarkedTaskStillDownloads()
{
    const QByteArray content = randomBytes(100 * 1024, 3);
    QVERIFY(!publish(QStringLiteral("files/a.bin"), content).isEmpty());
    const QString local = m_env->localPath(QStringLiteral("a.bin"));
    QVERIFY(writeFile(local, "older local copy"));
    SubTaskInfo task = CKXApiFixture::uploadTask(local, QStringLiteral("/u/a.bin"));
    task.remoteFile.syncOverwrite = true;
    QVERIFY(m_env->server().resetStats());

    ApiTaskRecord record;
    KX_RUN_TO_END(*m_env, task, &record, true);
    QCOMPARE(record.code, NoError);
    QCOMPARE(sha256Hex(readFile(local)), sha256Hex(content));
    const QJsonObject stats = m_env->server().stats();
    QCOMPARE(stats.value("requests").toInt(), 1);
    QCOMPARE(stats.value("file_upload_bytes").toInt(), 0);
}

void TestApiUrlTransfer::addressLargerThanDisk()
{
    const QString url = publish(QStringLiteral("files/small.bin"), randomBytes(10));
    const QString local = m_env->localPath(QStringLiteral("small.bin"));
    SubTaskInfo task = CKXApiFixture::downloadTask(QString(), 0, local);
    task.dataServerHost = url;
    task.size = qint64(1) << 50;

    ApiTaskRecord record;
    KX_RUN_TO_END(*m_env, task, &record, true);
    QCOMPARE(record.code, NoSpace);
    QVERIFY(!QFile::exists(local));
    QVERIFY(!QFile::exists(KXUtil::tmpFile(local, task.subTaskId)));
}

QTEST_GUILESS_MAIN(TestApiUrlTransfer)
#include "tst_api_KXUrlTransfer.moc"
