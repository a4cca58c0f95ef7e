// Share-link transfers end to end through the public API against kxserver over real HTTP: a file
// of exactly 4 MiB travels whole, a larger one in blocks, into a folder link and out of folder and
// file links. Content is compared by SHA-256; the server's counters show which requests were made.

#include "IKXTransfer.h"
#include "KXE2eTest.h"
#include "KXUtil.h"

#include <QtTest>

using namespace KXChunkedE2e;

namespace {

const qint64 kWhole = kBlock;            // the largest file that travels in one request
const qint64 kChunked = 2 * kBlock + 10; // three blocks, the last one short

void sizes()
{
    QTest::addColumn<qint64>("size");
    QTest::newRow("whole, 4 MiB") << kWhole;
    QTest::newRow("blocks, over 4 MiB") << kChunked;
}

} // namespace

class TestShareLinks : public KXE2eTest
{
    Q_OBJECT

private slots:
    void uploadIntoFolderLink_data() { sizes(); }
    void uploadIntoFolderLink();
    void downloadFromFolderAndFileLinks_data();
    void downloadFromFolderAndFileLinks();
    void refusedLinksFailWithMappedCodes_data() { sizes(); }
    void refusedLinksFailWithMappedCodes();

private:
    // Runs an upload of `source` into the link under a new id; what its final callback reported.
    KXOutcomes::Outcome uploadThrough(const QString& code, const QString& source, const QString& path,
                                      qint64 size, const QString& password = {},
                                      const QString& overwrite = {});
};

KXOutcomes::Outcome TestShareLinks::uploadThrough(const QString& code, const QString& source,
                                                  const QString& path, qint64 size, const QString& password,
                                                  const QString& overwrite)
{
    SubTaskInfo task = throughLink(uploadTask(newId(), source, path, size), code, password);
    task.remoteFile.delivery.overwrite = overwrite;
    return run(task);
}

// A new file; then one whose authorisation kxserver's "no_session" hook answers without
// "session_id" (and without the cookie): the task goes on with the session it holds, and without
// one the link refuses its data; then a replacement that the link's overwrite flag allows, then one
// it does not.
void TestShareLinks::uploadIntoFolderLink()
{
    QFETCH(qint64, size);
    const bool chunked = size > kBlock;
    const QString folder = QStringLiteral("/drop/%1").arg(size);
    const QString code = m_server.createShare(folder, true, QStringLiteral("pw"));
    QVERIFY(!code.isEmpty());
    const QString source = m_dir->filePath(QStringLiteral("up.bin"));
    const QString remote = folder + QStringLiteral("/in/up.bin");
    QString sha = writeRandomFile(source, size, quint32(size) + 21);
    const KXOutcomes::Outcome outcome = uploadThrough(code, source, "/in/up.bin", size, "pw");
    QCOMPARE(int(outcome.code), int(NoError));
    QCOMPARE(outcome.record.state, StateCompleted);
    const QString session = outcome.record.remoteFile.delivery.sessionId;
    QVERIFY(!session.isEmpty());
    QCOMPARE(serverSha256(remote), sha);
    QCOMPARE(stat("file_uploads"), chunked ? 0 : 1);
    QCOMPARE(stat("block_uploads"), chunked ? 3 : 0);
    QCOMPARE(stat("commits"), chunked ? 1 : 0);

    // The same bytes at both sizes: the first block of the chunked row's file is the whole row's file,
    // which lies outside this link's folder.
    const QString keptSha = writeRandomFile(source, size, 42);
    QVERIFY(m_server.armFault({{"op", "share_auth"}, {"action", "no_session"}, {"count", 2}}));
    SubTaskInfo task =
        throughLink(uploadTask(newId(), source, "/kept.bin", size), code, QStringLiteral("pw"));
    task.remoteFile.delivery.sessionId = session;
    const KXOutcomes::Outcome kept = run(task);
    QCOMPARE(int(kept.code), int(NoError));
    QCOMPARE(kept.record.remoteFile.delivery.sessionId, session);
    QCOMPARE(kept.record.remoteFile.delivery.lbc, QStringLiteral("kxserver"));
    QCOMPARE(serverSha256(folder + QStringLiteral("/kept.bin")), keptSha);
    QCOMPARE(int(uploadThrough(code, source, "/none.bin", size, "pw").code), int(SessionInvalid));
    QVERIFY(serverSha256(folder + QStringLiteral("/none.bin")).startsWith(QLatin1String("status 404")));

    sha = writeRandomFile(source, size, quint32(size) + 22);
    QCOMPARE(int(uploadThrough(code, source, "/in/up.bin", size, "pw", "true").code), int(NoError));
    QCOMPARE(serverSha256(remote), sha);
    writeRandomFile(source, size, quint32(size) + 23);
    QCOMPARE(int(uploadThrough(code, source, "/in/up.bin", size, "pw", "false").code), int(TargetExists));
    QCOMPARE(serverSha256(remote), sha);
}

void TestShareLinks::downloadFromFolderAndFileLinks_data()
{
    QTest::addColumn<qint64>("size");
    QTest::addColumn<bool>("fileLink");
    QTest::newRow("folder link, whole") << kWhole << false;
    QTest::newRow("folder link, blocks") << kChunked << false;
    QTest::newRow("file link, whole") << kWhole << true;
    QTest::newRow("file link, blocks") << kChunked << true;
}

void TestShareLinks::downloadFromFolderAndFileLinks()
{
    QFETCH(qint64, size);
    QFETCH(bool, fileLink);
    const bool chunked = size > kBlock;
    const QByteArray content = randomBytes(size, 31);
    QVERIFY(m_server.putFile(QStringLiteral("/pub/sub/doc.bin"), content));
    const QString code = m_server.createShare(
        fileLink ? QStringLiteral("/pub/sub/doc.bin") : QStringLiteral("/pub"), false, QStringLiteral("pw"));
    QVERIFY(!code.isEmpty());
    QVERIFY(m_server.resetStats());

    // Into a folder that does not exist yet.
    const QString target = m_dir->filePath(QStringLiteral("got/doc.bin"));
    const QString inShare = fileLink ? QString() : QStringLiteral("/sub/doc.bin");
    const SubTaskInfo task =
        throughLink(downloadTask(newId(), inShare, target, size), code, QStringLiteral("pw"));
    const KXOutcomes::Outcome outcome = run(task);
    QCOMPARE(int(outcome.code), int(NoError));
    QCOMPARE(readFile(target), content);
    QVERIFY(!QFile::exists(KXUtil::tmpFile(target, task.subTaskId)));
    // Only the file's own requests (and, after blocks, the transfer's event report): a download
    // never asks the link for an upload session.
    QCOMPARE(stat("downloads"), chunked ? 3 : 1);
    QCOMPARE(stat("requests"), stat("downloads") + (chunked ? 1 : 0));
}

void TestShareLinks::refusedLinksFailWithMappedCodes()
{
    QFETCH(qint64, size);
    const QString readOnly = m_server.createShare(QStringLiteral("/ro"), false, QStringLiteral("pw"));
    const QString open = m_server.createShare(QStringLiteral("/rw"), true, QStringLiteral("pw"));
    QVERIFY(!readOnly.isEmpty() && !open.isEmpty());
    const QString source = m_dir->filePath(QStringLiteral("refused.bin"));
    writeRandomFile(source, size, 51);
    QVERIFY(m_server.resetStats());

    struct Case
    {
        QString code;
        QString password;
        ErrorCode expected;
    };
    const QList<Case> uploads = {
        {"nosuchcode", "pw", SourceNotFound}, {readOnly, "pw", Forbidden}, {open, "wrong", SessionInvalid}};
    for (const Case& c : uploads) {
        QCOMPARE(int(uploadThrough(c.code, source, "/refused.bin", size, c.password).code), int(c.expected));
    }
    // Refused at the authorisation: no hash was offered, no byte was sent.
    for (const char* counter : {"hash_queries", "block_uploads", "file_uploads", "file_upload_bytes"}) {
        QCOMPARE(stat(counter), 0);
    }
    QVERIFY(serverSha256(QStringLiteral("/ro/refused.bin")).startsWith(QLatin1String("status 404")));

    QVERIFY(m_server.putFile(QStringLiteral("/ro/doc.bin"), readFile(source)));
    const QList<Case> downloads = {{"nosuchcode", "pw", SourceNotFound}, {readOnly, "wrong", SessionInvalid}};
    for (const Case& c : downloads) {
        const QString target = m_dir->filePath(QStringLiteral("refused.copy"));
        const SubTaskInfo task = downloadTask(newId(), QStringLiteral("/doc.bin"), target, size);
        QCOMPARE(int(run(throughLink(task, c.code, c.password)).code), int(c.expected));
        QVERIFY(!QFile::exists(target));
    }
}

QTEST_GUILESS_MAIN(TestShareLinks)
#include "tst_ShareLinks.moc"
