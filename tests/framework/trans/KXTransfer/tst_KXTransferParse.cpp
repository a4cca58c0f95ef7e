#include "KXLoggerWrapper.h"
#include "KXTestData.h"
#include "KXTransferParse.h"

#include <QJsonDocument>
#include <QJsonParseError>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QtTest>

namespace {

ResponseData response(int status, const QString& body, int libraryError = 0,
                      const QString& errorString = QString())
{
    return {body, errorString, status, libraryError, {}};
}

QString codeBody(const QString& code)
{
    return QStringLiteral("{\"code\":\"%1\",\"message\":\"m\",\"state\":409}").arg(code);
}

// Answers as the storage server sends them.
const QString kSha0 = QStringLiteral("5f70bf18a086007016e948b04aed3b82103a36bea41755b6cddfaf10ace3c6ef");
const QString kSha1 = QStringLiteral("9f86d081884c7d659a2feaa0c55ad015a3bf4f1b2b0b822cd15d6c15b0f00a08");
const QString kUploadId = QStringLiteral("6f1c0d2a9e8b47d5a1c3e5f7a9b1c3d5");
const QString kCommitMeta =
    QStringLiteral("{\"path\":\"/big.bin\",\"is_dir\":false,\"bytes\":8388609,\"rev\":\"1\","
                   "\"neid\":\"18\",\"modified\":1763766000,\"blocks\":3,"
                   "\"owner\":{\"id\":\"7\",\"quota\":{\"used\":1}}}");
const QString kFileMeta =
    QStringLiteral("{\"path\":\"/docs/a.txt\",\"is_dir\":false,\"bytes\":5,\"rev\":\"1\","
                   "\"neid\":\"17\",\"modified\":1763766000,\"blocks\":1}");

} // namespace

class TestKXTransferParse : public QObject
{
    Q_OBJECT

private:
    QTemporaryDir m_home;

    // Lines of the engine log written by `function` with `text` as their message.
    static int logCount(const QString& function, const QString& text)
    {
        const QRegularExpression line(
            QStringLiteral("\\[%1\\]\\[\\d+\\]: %2$").arg(function, QRegularExpression::escape(text)),
            QRegularExpression::MultilineOption);
        return QString::fromUtf8(readFile(CKXLoggerWrapper::getLogPathName(CKXLoggerWrapper::Transfer)))
            .count(line);
    }

private slots:
    void initTestCase()
    {
        QVERIFY(m_home.isValid());
        qputenv("XDG_DATA_HOME", m_home.path().toUtf8());
    }

    void errorMapping_data()
    {
        QTest::addColumn<QString>("body");
        QTest::addColumn<int>("expected");
        const auto row = [](const char* name, const QString& code, int expected) {
            QTest::newRow(name) << codeBody(code) << expected;
        };
        row("invalid session", "Invalid session", SessionInvalid);
        row("token missing", "share token is not exist!", SessionInvalid);
        row("target exists", "target name exists", TargetExists);
        row("folder exists", "folder_already_existed", TargetExists);
        row("source not found", "source not found", SourceNotFound);
        row("nameentry", "nameentry_not_exist", SourceNotFound);
        row("file/folder", "file/folder not found", SourceNotFound);
        row("forbidden", "forbidden", Forbidden);
        row("path too long", "path_too_long", PathTooLong);
        row("space limit", "user space limit reached", NoSpace);
        row("locked", "the file is locked now", FileLocked);
        row("private dc", "private dc not allowed", PrivateDcNotAllowed);
        row("invalid hash", "invalid.hash", ContentHashError);
        row("content hash", "content_hash_error", ContentHashError);
        row("root parent file", "root parent folder conflict with file", RootParentConflictWithFile);
        row("root parent folder", "root parent folder conflict with folder", RootParentConflictWithFolder);
        row("parent folder", "parent folder conflict with folder", ParentConflictWithFolder);
        row("parent file", "parent folder conflict with file", ParentConflictWithFile);
        row("conflict folder", "conflict with folder", ConflictWithFolder);
        row("conflict file", "conflict with file", ConflictWithFile);
        row("type limit", "file type limit", FileTypeLimit);
        row("virus", "download_file_VirusF", VirusFile);
        row("empty code", "", ServerError);
        // Equality rows refuse extra words, containment rows accept them.
        row("source not found+", "source not found in store", ServerError);
        row("+conflict with file", "target conflict with file here", ConflictWithFile);
        // Case matters everywhere.
        row("lower session", "invalid session", ServerError);
        row("capital conflict", "Conflict with file", ServerError);
        QTest::newRow("number code") << QStringLiteral("{\"code\":20004,\"message\":\"m\"}") << 0;
    }

    void errorMapping()
    {
        QFETCH(QString, body);
        QFETCH(int, expected);
        CKXParseProcessor parser;
        parser.ParseResp(response(409, body));
        QCOMPARE(parser.errorCode(), expected);
        QVERIFY(parser.hasError());
    }

    void statusSplit_data()
    {
        QTest::addColumn<int>("status");
        QTest::addColumn<bool>("completed");
        QTest::newRow("0") << 0 << false;
        QTest::newRow("199") << 199 << false;
        QTest::newRow("200") << 200 << true;
        QTest::newRow("399") << 399 << true;
        QTest::newRow("400") << 400 << false;
        QTest::newRow("min") << std::numeric_limits<int>::min() << false;
    }

    void statusSplit()
    {
        QFETCH(int, status);
        QFETCH(bool, completed);
        // One body readable by both paths shows which one ran.
        const QString body = QStringLiteral("{\"upload_id\":\"u1\",\"hash\":\"h\",\"status\":\"ok\","
                                            "\"code\":\"forbidden\",\"message\":\"denied\"}");
        CKXChunkedUploadParse parser;
        parser.ParseResp(response(status, body, 0, QStringLiteral("transport")));
        QCOMPARE(parser.statusCode(), status);
        QCOMPARE(parser.body(), body);
        QCOMPARE(parser.hasError(), !completed);
        QCOMPARE(parser.uploadId(), completed ? QStringLiteral("u1") : QString());
        QCOMPARE(parser.status(), completed ? QStringLiteral("ok") : QString());
        QCOMPARE(parser.errorCode(), completed ? 0 : int(Forbidden));
        QCOMPARE(parser.errorMsg().code, completed ? QString() : QStringLiteral("forbidden"));
        QCOMPARE(parser.errorMsg().message,
                 completed ? QStringLiteral("transport") : QStringLiteral("denied"));
    }

    void errorAnswer_data()
    {
        QTest::addColumn<int>("status");
        QTest::addColumn<QString>("body");
        QTest::addColumn<int>("libraryError");
        QTest::addColumn<QString>("transport");
        QTest::addColumn<int>("code");
        QTest::addColumn<QString>("message");
        QTest::addColumn<int>("state");
        QTest::addColumn<QString>("msgcodeAndType");
        QTest::newRow("every field")
            << 404
            << R"({"code":"nameentry_not_exist","message":"no such file: /docs/a.txt","msgcode":"E404",)"
               R"("state":404,"type":"error"})"
            << 0 << "Not Found" << int(SourceNotFound) << "no such file: /docs/a.txt" << 404 << "E404/error";
        // Mistyped keys are skipped; a fractional state is truncated.
        QTest::newRow("mistyped fields")
            << 500 << R"({"message":5,"msgcode":1,"state":503.9,"type":[]})" << 0 << "Internal Server Error"
            << 0 << "Internal Server Error" << 503 << "/";
        // Only the transport text and the library code remain.
        QTest::newRow("empty body") << 404 << "" << 0 << "Not Found" << 0 << "Not Found" << 0 << "/";
        QTest::newRow("json array") << 500 << R"(["internal"])" << 0 << "Server Error" << 0 << "Server Error"
                                    << 0 << "/";
        QTest::newRow("transport failure")
            << 0 << "" << 7 << "Couldn't connect" << 7 << "Couldn't connect" << 0 << "/";
        QTest::newRow("library error on success")
            << 200 << R"({"upload_id":"u9"})" << 1001 << "cancelled" << 1001 << "cancelled" << 0 << "/";
        // A body that is not JSON: the parse error wins over the transport text.
        const QString html = QStringLiteral("<html>Bad Gateway</html>");
        QJsonParseError qtError{};
        QJsonDocument::fromJson(html.toUtf8(), &qtError);
        QTest::newRow("not json") << 502 << html << 0 << "Bad Gateway" << 0 << qtError.errorString()
                                  << int(qtError.error) << "/";
    }

    void errorAnswer()
    {
        QFETCH(int, status);
        QFETCH(QString, body);
        QFETCH(int, libraryError);
        QFETCH(QString, transport);
        CKXParseProcessor parser;
        parser.ParseResp(response(status, body, libraryError, transport));
        QVERIFY(parser.hasError());
        QTEST(parser.errorCode(), "code");
        QTEST(parser.errorMsg().message, "message");
        QTEST(parser.errorMsg().state, "state");
        QTEST(parser.errorMsg().msgcode + QLatin1Char('/') + parser.errorMsg().type, "msgcodeAndType");
    }

    // The session renewed by an answer comes from its body, never from a header
    // of that name.
    void authAnswer()
    {
        const QString body = QStringLiteral("{\"region\":\"http://"
                                            "127.0.0.1:8080\",\"X-ORBALA-SESS-ID\":"
                                            "\"tok\",\"path\":\"/docs/a.txt\"}");
        ResponseData r = response(200, body);
        r.headers.insert(QByteArrayLiteral("X-ORBALA-SESS-ID"), QByteArrayLiteral("header-tok"));
        KXBaseParse base;
        base.ParseResp(r);
        QCOMPARE(base.sessiondId(), QStringLiteral("tok"));
        CKXAuthUplaodParse auth;
        auth.ParseResp(r);
        QCOMPARE(auth.getDataServerHost(), QStringLiteral("http://127.0.0.1:8080"));
        QCOMPARE(auth.errorMsg().state, 0);

        KXBaseParse numeric;
        numeric.ParseResp(response(200, QStringLiteral("{\"X-ORBALA-SESS-ID\":42}")));
        QVERIFY(numeric.sessiondId().isEmpty());
        // The hash query does not look for a renewed session.
        CKXQueryHashParse query;
        query.ParseResp(response(200, QStringLiteral("{\"X-ORBALA-SESS-ID\":\"tok\",\"needed_block\":[]}")));
        QVERIFY(query.sessiondId().isEmpty());
    }

    void cookie_data()
    {
        QTest::addColumn<QByteArray>("setCookie");
        QTest::addColumn<QString>("expected");
        QTest::newRow("share answer") << QByteArray("S=sess1; Path=/; HttpOnly") << "sess1";
        QTest::newRow("last wins") << QByteArray("S=first; Path=/\nS=second; Path=/") << "second";
        QTest::newRow("last empty") << QByteArray("S=first\nS=") << "";
        QTest::newRow("after last =") << QByteArray("S=a=b; Path=/") << "b";
        QTest::newRow("blank before") << QByteArray("Path=/; S=x") << "";
        QTest::newRow("no blank") << QByteArray("Path=/;S=x") << "x";
        QTest::newRow("lower s") << QByteArray("s=x") << "";
        QTest::newRow("nul ends") << QByteArray("S=good\0S=bad", 12) << "good";
        QTest::newRow("absent") << QByteArray() << "";
    }

    void cookie()
    {
        QFETCH(QByteArray, setCookie);
        QFETCH(QString, expected);
        KXBaseParse parser;
        ResponseData r = response(200, QStringLiteral("{}"));
        if (!setCookie.isNull()) {
            r.headers.insert(QByteArrayLiteral("Set-Cookie"), setCookie);
        }
        parser.ParseResp(r);
        QCOMPARE(parser.s(), expected);
    }

    void queryHash()
    {
        CKXQueryHashParse parser;
        parser.ParseResp(
            response(200, QStringLiteral("{\"upload_id\":\"%1\",\"needed_block\":[\"%2\",7,\"%3\",null]}")
                              .arg(kUploadId, kSha0, kSha1)));
        QCOMPARE(parser.upload_id(), kUploadId);
        QCOMPARE(parser.blockHashes(), QStringList({kSha0, kSha1}));
        QVERIFY(parser.need_upload());

        const QStringList quickBodies = {
            QStringLiteral("{\"upload_id\":\"%1\",\"needed_block\":[]}").arg(kUploadId),
            QStringLiteral("{\"upload_id\":\"%1\"}").arg(kUploadId),
            QStringLiteral("{\"upload_id\":\"%1\",\"needed_block\":\"%2\"}").arg(kUploadId, kSha0),
            // Not JSON at all: not an error, but nothing to use.
            QStringLiteral("{\"upload_id\":"),
        };
        for (const QString& body : quickBodies) {
            CKXQueryHashParse quick;
            quick.ParseResp(response(200, body));
            QVERIFY2(!quick.need_upload(), qPrintable(body));
            QVERIFY(!quick.hasError());
            QCOMPARE(quick.upload_id(), body.contains(kUploadId) ? kUploadId : QString());
        }
    }

    void metadataAnswers()
    {
        const QString body = QStringLiteral("{\"needed_block\":[],\"upload_id\":\"%1\",\"metadata\":%2}")
                                 .arg(kUploadId, kCommitMeta);
        CKXCommitHashParse parser;
        parser.ParseResp(response(200, body));
        QCOMPARE(parser.meta(), kCommitMeta);
        QCOMPARE(parser.path(), QStringLiteral("/big.bin"));
        QCOMPARE(parser.upload_id(), kUploadId);
        QVERIFY(!parser.need_upload());

        // Without a metadata object the path comes from the top level.
        CKXCommitHashParse flat;
        flat.ParseResp(response(200, kFileMeta));
        QCOMPARE(flat.meta(), kFileMeta);
        QCOMPARE(flat.path(), QStringLiteral("/docs/a.txt"));
        // The whole-file upload's answer is read the same way, also when it is not JSON.
        CKXUploadParse whole;
        whole.ParseResp(response(200, kFileMeta));
        QCOMPARE(whole.meta(), kFileMeta);
        QCOMPARE(whole.path(), QStringLiteral("/docs/a.txt"));
        CKXUploadParse broken;
        broken.ParseResp(response(200, QStringLiteral("not json")));
        QCOMPARE(broken.meta(), QStringLiteral("not json"));
        QVERIFY(broken.path().isEmpty());
    }

    void metaCut_data()
    {
        QTest::addColumn<QString>("text");
        QTest::addColumn<QString>("expected");
        QTest::newRow("nested") << "{\"a\":1,\"metadata\":{\"b\":{\"c\":{}}},\"d\":2}"
                                << "{\"b\":{\"c\":{}}}";
        QTest::newRow("first of two") << "{\"metadata\":{\"x\":1},\"more\":{\"metadata\":{\"y\":2}}}"
                                      << "{\"x\":1}";
        QTest::newRow("at start") << "\"metadata\":{\"x\":1}"
                                  << "\"metadata\":{\"x\":1}";
        QTest::newRow("blank after colon") << "{\"metadata\": {\"x\":1}}"
                                           << "{\"metadata\": {\"x\":1}}";
        QTest::newRow("unclosed") << "{\"metadata\":{\"x\":{\"y\":1}"
                                  << "{\"metadata\":{\"x\":{\"y\":1}";
        // Braces in strings are counted too: the cut lands inside the string.
        QTest::newRow("brace in string") << "{\"metadata\":{\"path\":\"/a}b\",\"n\":1}}"
                                         << "{\"path\":\"/a}";
    }

    void metaCut()
    {
        QFETCH(QString, text);
        QFETCH(QString, expected);
        QCOMPARE(CKXCommitHashParse::getMetaString(text), expected);
    }

    void authUploadUnusable_data()
    {
        QTest::addColumn<QString>("body");
        QTest::addColumn<QString>("message");
        QTest::newRow("empty") << ""
                               << "data body is empty";
        QTest::newRow("invalid") << R"({"region":)"
                                 << "json string is not correct";
        QTest::newRow("array") << R"(["http://127.0.0.1:8080"])"
                               << "json string is not correct";
        // A hostile server's answer: a recursive reader would overflow the thread's stack.
        QTest::newRow("nested a million deep")
            << QString(1000000, QLatin1Char('[')) + QString(1000000, QLatin1Char(']'))
            << "json string is not correct";
    }

    void authUploadUnusable()
    {
        QFETCH(QString, body);
        QFETCH(QString, message);
        const QString logText = QStringLiteral("[TransParseBase]: ") + message;
        const int before = logCount(QStringLiteral("onComplete"), logText);

        CKXAuthUplaodParse parser;
        parser.ParseResp(response(200, body, 0, QStringLiteral("transport")));
        QVERIFY(parser.getDataServerHost().isEmpty());
        QCOMPARE(parser.errorMsg().message, message);
        QCOMPARE(parser.errorMsg().state, int(ResponseInvalid));
        QCOMPARE(parser.errorCode(),
                 0); // the failure is reported through errorMsg() only
        QCOMPARE(logCount(QStringLiteral("onComplete"), logText), before + 1);

        CKXDeliveryAuthUploadParse share;
        share.ParseResp(response(200, body));
        QCOMPARE(share.errorMsg().message, message);
        QCOMPARE(share.errorMsg().state, int(ResponseInvalid));
        QVERIFY(!share.result());
    }

    // A granted share upload is every upload of tst_ShareLinks; these are the answers that grant none.
    void deliveryAuthUploadRefused()
    {
        for (const char* result : {"1", "\"true\"", "false"}) {
            CKXDeliveryAuthUploadParse notGranted;
            notGranted.ParseResp(
                response(200, QStringLiteral("{\"result\":%1,\"session_id\":\"s\"}").arg(result)));
            QVERIFY2(!notGranted.result(), result);
            QCOMPARE(notGranted.deliverySessionId(), QStringLiteral("s"));
            QCOMPARE(notGranted.errorMsg().state, 0);
        }

        CKXDeliveryAuthUploadParse noResult;
        noResult.ParseResp(response(200, QStringLiteral("{\"session_id\":\"s\"}")));
        QCOMPARE(noResult.errorMsg().message, QStringLiteral("json string is not correct"));
        QCOMPARE(noResult.errorMsg().state, int(ResponseInvalid));
        QVERIFY(noResult.deliverySessionId().isEmpty());
    }
};

QTEST_GUILESS_MAIN(TestKXTransferParse)
#include "tst_KXTransferParse.moc"
