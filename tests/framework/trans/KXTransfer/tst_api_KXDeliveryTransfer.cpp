// Whole-file transfers through share links driven through the public API against a real kxserver.

#include "KXApiFixture.h"
#include "KXCannedHttpServer.h"
#include "KXUtil.h"

#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTest>

#include <memory>

namespace {

SubTaskInfo throughLink(SubTaskInfo task, const QString& code, const QString& password = QString())
{
    task.remoteFile.isDeliveryTrans = true;
    task.remoteFile.delivery.code = code;
    task.remoteFile.delivery.token = password;
    return task;
}

} // namespace

class TestApiDeliveryTransfer : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();

    void uploadIntoLink();
    void downloadFromLink();
    void authorisationWithoutSessionKeepsStoredOne();
    void refusedUploads();

private:
    std::unique_ptr<CKXApiFixture> m_env;
};

void TestApiDeliveryTransfer::init()
{
    m_env.reset(new CKXApiFixture);
    QVERIFY2(m_env->setUp(), qPrintable(m_env->errorString()));
}

void TestApiDeliveryTransfer::cleanup()
{
    m_env.reset();
}

void TestApiDeliveryTransfer::uploadIntoLink()
{
    CKXApiFixture& env = *m_env;
    const QString code = env.server().createShare(QStringLiteral("/shared"), true);
    QVERIFY(!code.isEmpty());
    const QByteArray content = randomBytes(200 * 1024);
    const QString local = env.localPath(QStringLiteral("up.bin"));
    QVERIFY(writeFile(local, content));

    const SubTaskInfo task =
        throughLink(CKXApiFixture::uploadTask(local, QStringLiteral("/in/up.bin")), code);
    ApiTaskRecord record;
    KX_RUN_TO_END(env, task, &record, false);
    QCOMPARE(record.code, NoError);
    QByteArray stored;
    QVERIFY(env.readRemoteFile(QStringLiteral("/shared/in/up.bin"), &stored));
    QCOMPARE(sha256(stored), sha256(content));
    QVERIFY(!record.task.remoteFile.delivery.sessionId.isEmpty());
    QCOMPARE(QJsonDocument::fromJson(record.task.newMetadata.toUtf8()).object().value("bytes").toInt(),
             content.size());
    env.checkReadOnce(task.subTaskId, content.size());
}

void TestApiDeliveryTransfer::downloadFromLink()
{
    CKXApiFixture& env = *m_env;
    const QByteArray content = randomBytes(100 * 1024, 2);
    QVERIFY(env.putRemoteFile(QStringLiteral("/pub/doc.bin"), content));
    const QString code = env.server().createShare(QStringLiteral("/pub"), false, QStringLiteral("secret"));
    QVERIFY(!code.isEmpty());
    QVERIFY(env.server().resetStats());

    // Into a folder that does not exist yet.
    const QString local = env.localPath(QStringLiteral("got/doc.bin"));
    const SubTaskInfo task =
        throughLink(CKXApiFixture::downloadTask(QStringLiteral("/doc.bin"), content.size(), local), code,
                    QStringLiteral("secret"));
    ApiTaskRecord record;
    KX_RUN_TO_END(env, task, &record, false);
    QCOMPARE(record.code, NoError);
    QCOMPARE(sha256(fileContent(local)), sha256(content));
    QVERIFY(!QFile::exists(KXUtil::tmpFile(local, task.subTaskId)));
    // The download alone: a download never asks for an upload authorisation.
    QCOMPARE(env.server().stats().value("requests").toInt(), 1);
    env.checkReadOnce(task.subTaskId, content.size());
    if (QTest::currentTestFailed()) {
        return;
    }

    const QString refusedPath = env.localPath(QStringLiteral("refused.bin"));
    ApiTaskRecord refused;
    KX_RUN_TO_END(
        env,
        throughLink(CKXApiFixture::downloadTask(QStringLiteral("/doc.bin"), content.size(), refusedPath),
                    code, QStringLiteral("wrong")),
        &refused, false);
    QCOMPARE(refused.code, SessionInvalid);
    QCOMPARE(refused.task.httpCode, 401);
    QVERIFY(!QFile::exists(refusedPath));
}

// kxserver always answers a share session, so the answer without one comes from a canned server
// standing in for the link's host; the file itself still goes to kxserver, with the stored session.
void TestApiDeliveryTransfer::authorisationWithoutSessionKeepsStoredOne()
{
    CKXApiFixture& env = *m_env;
    const QString code = env.server().createShare(QStringLiteral("/shared"), true);
    QVERIFY(!code.isEmpty());
    const QString first = env.localPath(QStringLiteral("first.bin"));
    QVERIFY(writeFile(first, randomBytes(1000)));
    ApiTaskRecord opened;
    KX_RUN_TO_END(env, throughLink(CKXApiFixture::uploadTask(first, QStringLiteral("/first.bin")), code),
                  &opened, false);
    QCOMPARE(opened.code, NoError);
    const QString session = opened.task.remoteFile.delivery.sessionId;
    QVERIFY(!session.isEmpty());

    const QJsonObject answer{{"result", true}, {"upload_url", env.server().baseUrl()}, {"LBC", "canned"}};
    CKXCannedHttpServer canned(200, QJsonDocument(answer).toJson(QJsonDocument::Compact));
    QVERIFY(canned.listen());
    const QByteArray content = randomBytes(2000, 5);
    const QString second = env.localPath(QStringLiteral("second.bin"));
    QVERIFY(writeFile(second, content));
    SubTaskInfo task = throughLink(CKXApiFixture::uploadTask(second, QStringLiteral("/second.bin")), code);
    task.remoteFile.delivery.host = canned.baseUrl();
    task.remoteFile.delivery.sessionId = session;

    ApiTaskRecord record;
    KX_RUN_TO_END(env, task, &record, false);
    QCOMPARE(canned.requests(), 1);
    QCOMPARE(record.code, NoError);
    QCOMPARE(record.task.remoteFile.delivery.sessionId, session);
    QCOMPARE(record.task.remoteFile.delivery.lbc, QStringLiteral("canned"));
    QByteArray stored;
    QVERIFY(env.readRemoteFile(QStringLiteral("/shared/second.bin"), &stored));
    QCOMPARE(stored, content);
}

void TestApiDeliveryTransfer::refusedUploads()
{
    CKXApiFixture& env = *m_env;
    const QString readOnly = env.server().createShare(QStringLiteral("/ro"), false);
    QVERIFY(!readOnly.isEmpty());
    const QString local = env.localPath(QStringLiteral("a.bin"));
    QVERIFY(writeFile(local, randomBytes(500)));

    ApiTaskRecord unknown;
    KX_RUN_TO_END(env, throughLink(CKXApiFixture::uploadTask(local, QStringLiteral("/a.bin")), "nosuchcode"),
                  &unknown, false);
    QCOMPARE(unknown.code, SourceNotFound);
    QCOMPARE(unknown.task.state, StateError);

    ApiTaskRecord refused;
    KX_RUN_TO_END(env, throughLink(CKXApiFixture::uploadTask(local, QStringLiteral("/a.bin")), readOnly),
                  &refused, false);
    QCOMPARE(refused.code, Forbidden);
    QByteArray stored;
    QVERIFY(!env.readRemoteFile(QStringLiteral("/ro/a.bin"), &stored));
}

QTEST_GUILESS_MAIN(TestApiDeliveryTransfer)
#include "tst_api_KXDeliveryTransfer.moc"
