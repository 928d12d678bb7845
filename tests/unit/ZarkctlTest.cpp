#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTemporaryFile>
#include <QtTest>
#include <openssl/evp.h>
#include <openssl/hmac.h>
#include <openssl/sha.h>

namespace {

/// One request as its bytes came.
struct Received {
    QByteArray method;
    QByteArray target;
    QMap<QByteArray, QByteArray> headers; ///< Names in lower case.
    QByteArray body;
};

Received parse(const QByteArray& bytes)
{
    Received request;
    const int end = bytes.indexOf("\r\n\r\n");
    QList<QByteArray> lines = bytes.left(end).split('\n');
    const QList<QByteArray> start = lines.takeFirst().split(' ');
    request.method = start.value(0);
    request.target = start.value(1);
    for (const QByteArray& line : lines)
        request.headers.insert(line.left(line.indexOf(':')).toLower(), line.mid(line.indexOf(':') + 1).trimmed());
    request.body = bytes.mid(end + 4);
    return request;
}

bool isComplete(const QByteArray& bytes)
{
    const int end = bytes.indexOf("\r\n\r\n");
    return end >= 0 && bytes.size() - end - 4 >= parse(bytes).headers.value("content-length").toInt();
}

QByteArray answer(int status, const QByteArray& body)
{
    return "HTTP/1.1 " + QByteArray::number(status)
        + " \r\nContent-Type: application/json\r\nContent-Length: " + QByteArray::number(body.size())
        + (status == 401 ? "\r\nWWW-Authenticate: HMAC_SHA256, HMAC_SHA256_AES256" : "")
        + "\r\nConnection: close\r\n\r\n" + body;
}

/// Answers one request after the other from a script and keeps what came.
class ScriptedServer : public QObject {
    Q_OBJECT

public:
    explicit ScriptedServer(const QList<QByteArray>& script) : m_script(script)
    {
        connect(&m_server, &QTcpServer::newConnection, this, &ScriptedServer::accept);
        m_server.listen(QHostAddress::LocalHost);
    }

    QByteArray url() const { return "http://127.0.0.1:" + QByteArray::number(m_server.serverPort()); }
    const QList<Received>& received() const { return m_received; }

private:
    void accept()
    {
        QTcpSocket* socket = m_server.nextPendingConnection();
        auto bytes = QSharedPointer<QByteArray>::create();
        connect(socket, &QTcpSocket::readyRead, this, [this, socket, bytes] {
            bytes->append(socket->readAll());
            if (!isComplete(*bytes))
                return;
            m_received.append(parse(*bytes));
            if (!m_script.isEmpty())
                socket->write(m_script.takeFirst());
            socket->disconnectFromHost();
        });
    }

    QTcpServer m_server;
    QList<QByteArray> m_script;
    QList<Received> m_received;
};

struct Outcome {
    int status = -1;
    QByteArray output;
    QByteArray errors;
};

Outcome zarkctl(const QStringList& arguments)
{
    QProcess process;
    QEventLoop loop;
    QObject::connect(&process, QOverload<int, QProcess::ExitStatus>::of(&QProcess::finished), &loop, &QEventLoop::quit);
    QTimer::singleShot(20000, &loop, &QEventLoop::quit);
    process.start(QStringLiteral(ZARKCTL), arguments);
    process.closeWriteChannel();
    loop.exec();
    if (process.state() != QProcess::NotRunning)
        return {};
    return { process.exitCode(), process.readAllStandardOutput(), process.readAllStandardError() };
}

QByteArray keyOf(const QByteArray& saltText, const QByteArray& password)
{
    const QByteArray material = QByteArray::fromBase64(saltText) + password;
    QByteArray key(SHA256_DIGEST_LENGTH, '\0');
    SHA256(reinterpret_cast<const unsigned char*>(material.constData()), static_cast<size_t>(material.size()),
        reinterpret_cast<unsigned char*>(key.data()));
    return key;
}

/// The Authorization header that this request must carry, computed from its own salt and time.
QByteArray expectedAuthorization(
    const Received& request, const QByteArray& url, const QByteArray& user, const QByteArray& password)
{
    const QByteArray header = request.headers.value("authorization");
    const QByteArray scheme = header.left(header.indexOf(' '));
    const QList<QByteArray> parts = header.mid(scheme.size() + 1).split('.');
    const QByteArray key = keyOf(parts.value(1), password);
    QByteArray data = user + '.' + parts.value(1) + '.' + parts.value(2) + '.' + url + request.target;
    if (request.method == "POST")
        data += '.' + request.body;
    QByteArray mac(SHA256_DIGEST_LENGTH, '\0');
    HMAC(EVP_sha256(), key.constData(), key.size(), reinterpret_cast<const unsigned char*>(data.constData()),
        static_cast<size_t>(data.size()), reinterpret_cast<unsigned char*>(mac.data()), nullptr);
    return scheme + ' ' + user.toBase64() + '.' + parts.value(1) + '.' + parts.value(2) + '.' + mac.toBase64();
}

QByteArray decrypt(const QByteArray& text, const QByteArray& key)
{
    const QByteArray bytes = QByteArray::fromBase64(text);
    const auto* raw = reinterpret_cast<const unsigned char*>(bytes.constData());
    QByteArray plain(bytes.size(), '\0');
    auto* out = reinterpret_cast<unsigned char*>(plain.data());
    EVP_CIPHER_CTX* context = EVP_CIPHER_CTX_new();
    int body = 0;
    int last = 0;
    EVP_DecryptInit_ex(
        context, EVP_aes_256_cbc(), nullptr, reinterpret_cast<const unsigned char*>(key.constData()), raw);
    EVP_DecryptUpdate(context, out, &body, raw + 16, bytes.size() - 16);
    const bool ok = EVP_DecryptFinal_ex(context, out + body, &last) == 1;
    EVP_CIPHER_CTX_free(context);
    return ok ? plain.left(body + last) : QByteArray();
}

} // namespace

class ZarkctlTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void sendsAndPrints_data()
    {
        QTest::addColumn<QStringList>("arguments");
        QTest::addColumn<QByteArray>("reply");
        QTest::addColumn<QByteArray>("request"); // method, target and body
        const auto row = [](const char* name, const QStringList& arguments, const QByteArray& reply,
                             const QByteArray& request) {
            QTest::newRow(name) << arguments << reply << request;
        };

        const QByteArray big = "[{\"type\":\"i64\",\"value\":9223372036854775807}]";
        row("get keeps 64 bits", QStringList{ "get", "demo:values/i64", "--roles", "value" }, big,
            "GET /api/getData?path=demo:values/i64&roles=value ");
        QTest::newRow("get escapes the path")
            << QStringList{ "get", QString::fromUtf8("a:ü&x %2F+") } << QByteArray("[]")
            << QByteArray("GET /api/getData?path=a:%C3%BC%26x%20%252F%2B&roles=title,value ");
        QTest::newRow("set number keeps 64 bits")
            << QStringList{ "set", "a:b", "9223372036854775807" } << QByteArray("null")
            << QByteArray("POST /api/setData {\"path\":\"a:b\",\"role\":\"value\",\"value\":9223372036854775807}");
        row("set JSON", QStringList{ "set", "a:b", "{\"type\":\"i32\",\"value\":1}", "--role", "title" }, "null",
            QByteArray("POST /api/setData "
                       "{\"path\":\"a:b\",\"role\":\"title\",\"value\":{\"type\":\"i32\","
                       "\"value\":1}}"));
        QTest::newRow("set plain text")
            << QStringList{ "set", "a:b", "1, \"two\"" } << QByteArray("null")
            << QByteArray("POST /api/setData {\"path\":\"a:b\",\"role\":\"value\",\"value\":\"1, \\\"two\\\"\"}");
    }

    void sendsAndPrints()
    {
        QFETCH(QStringList, arguments);
        QFETCH(QByteArray, reply);
        QFETCH(QByteArray, request);
        ScriptedServer server({ answer(200, reply) });
        const Outcome outcome = zarkctl(QStringList{ "--url", server.url() } + arguments);
        QCOMPARE(outcome.errors, QByteArray());
        QCOMPARE(outcome.output, QByteArray(reply + '\n'));
        QCOMPARE(outcome.status, 0);
        const Received received = server.received().value(0);
        QCOMPARE(received.method + ' ' + received.target + ' ' + received.body, request);
        QVERIFY(!received.headers.contains("authorization"));
    }

    void exitStatus_data()
    {
        QTest::addColumn<QStringList>("arguments");
        QTest::addColumn<QByteArray>("reply"); // empty: the connection closes without one
        QTest::addColumn<int>("status");
        QTest::addColumn<QByteArray>("error");
        const auto row = [](const char* name, const QStringList& arguments, const QByteArray& reply, int status,
                             const QByteArray& error) {
            QTest::newRow(name) << arguments << reply << status << error;
        };

        const QStringList get{ "get", "a:b" };
        const QByteArray notFound = "{\"error\":{\"name\":\"notFound\",\"message\":\"No such node\"}}";
        row("framework error", get, answer(500, notFound), 1, "zarkctl: notFound: No such node (HTTP 500)\n");
        row("plain text", get, answer(404, "Not here"), 1, "zarkctl: Not here (HTTP 404)\n");
        QTest::newRow("redirect is no answer")
            << get << answer(302, "") << 1 << QByteArray("zarkctl: error (HTTP 302)\n");
        row("no answer", get, QByteArray(), 3, QByteArray());
        row("answer cut short", get, answer(200, "[1, 2]").chopped(3), 3, QByteArray());
        row("no path", QStringList{ "get" }, QByteArray(), 2, QByteArray());
        row("another command's option", QStringList{ "get", "a:b", "--from", "1" }, QByteArray(), 2,
            "zarkctl: get takes no option --from\n");
        QTest::newRow("no password file")
            << QStringList{ "get", "a:b", "--user", "u", "--password-file", "/nowhere" } << QByteArray() << 2
            << QByteArray("zarkctl: /nowhere: No such file or directory\n");
        row("passwd without a user", QStringList{ "passwd" }, QByteArray(), 2, QByteArray());
    }

    void exitStatus()
    {
        QFETCH(QStringList, arguments);
        QFETCH(QByteArray, reply);
        QFETCH(int, status);
        QFETCH(QByteArray, error);
        ScriptedServer server(reply.isEmpty() ? QList<QByteArray>() : QList<QByteArray>{ reply });
        const Outcome outcome = zarkctl(QStringList{ "--url", server.url() } + arguments);
        QCOMPARE(outcome.status, status);
        QCOMPARE(outcome.output, QByteArray());
        if (error.isEmpty())
            QVERIFY(outcome.errors.startsWith("zarkctl: "));
        else
            QCOMPARE(outcome.errors, error);
        if (status == 2)
            QVERIFY(server.received().isEmpty());
    }

    void requestsAreSigned()
    {
        ScriptedServer server({ answer(200, "[]") });
        const QByteArray user = "j\xc3\xb6";
        const QStringList common = QStringList{ "--url", server.url() } + signedAs(QString::fromUtf8(user));
        QCOMPARE(zarkctl(common + QStringList{ "get", QString::fromUtf8("a:\u00fc b") }).status, 0);
        const Received request = server.received().value(0);
        const QByteArray header = request.headers.value("authorization");
        QVERIFY(header.startsWith("HMAC_SHA256 "));
        QCOMPARE(header, expectedAuthorization(request, server.url(), user, "pass.w\xc3\xb6rd"));
        QVERIFY(qAbs(QDateTime::currentMSecsSinceEpoch() - header.split('.').value(2).toLongLong()) < 20000);
    }

    void passwordsTravelEncrypted()
    {
        QTemporaryFile newPassword;
        QVERIFY(newPassword.open());
        newPassword.write("next one");
        newPassword.flush();
        ScriptedServer server({ answer(200, "null") });
        const Outcome outcome = zarkctl(QStringList{ "--url", server.url() } + signedAs("admin")
            + QStringList{ "passwd", "--new-password-file", newPassword.fileName() });
        QCOMPARE(outcome.status, 0);
        const Received request = server.received().value(0);
        const QByteArray header = request.headers.value("authorization");
        QVERIFY(header.startsWith("HMAC_SHA256_AES256 "));
        QCOMPARE(header, expectedAuthorization(request, server.url(), "admin", "pass.w\xc3\xb6rd"));
        const QJsonObject body = QJsonDocument::fromJson(request.body).object();
        QCOMPARE(body.value("path").toString(), QStringLiteral("settings:webserver/changePassword"));
        const QByteArray key = keyOf(header.split('.').value(1), "pass.w\xc3\xb6rd");
        const QByteArray plain = decrypt(body.value("value").toString().toLatin1(), key);
        const QJsonObject expected{ { "name", "admin" }, { "oldPassword", QString::fromUtf8("pass.w\xc3\xb6rd") },
            { "newPassword", "next one" } };
        QCOMPARE(QJsonDocument::fromJson(plain).object(), expected);
    }

    void rowsStartAgainWhenTheListChanged()
    {
        const QByteArray outdated = "{\"error\":{\"name\":\"outdatedVersion\",\"message\":\"Changed\"}}";
        ScriptedServer server({
            answer(200, "{\"rows\":[[\"old\"]],\"from\":0,\"rowsCount\":2,\"rowsVersion\":7}"),
            answer(500, outdated),
            answer(200, "{\"rows\":[[\"a,]\"],[9007199254740993]],\"from\":0,\"rowsCount\":3,\"rowsVersion\":8}"),
            answer(200, "{\"rows\":[ [\"c\\\"[\"] ],\"from\":2,\"rowsCount\":3,\"rowsVersion\":8}"),
        });
        const Outcome outcome = zarkctl({ "--url", server.url(), "rows", "a:b", "--roles", "value" });
        QCOMPARE(outcome.output, QByteArray("[\"a,]\"]\n[9007199254740993]\n[\"c\\\"[\"]\n"));
        QCOMPARE(outcome.status, 0);
        QByteArrayList targets;
        for (const Received& request : server.received())
            targets.append(request.target.mid(request.target.indexOf("&from")));
        const QByteArrayList expected{ "&from=0&to=999&version=0", "&from=1&to=1&version=7", "&from=0&to=999&version=0",
            "&from=2&to=2&version=8" };
        QCOMPARE(targets, expected);
    }

private:
    /// The options of a user whose password is "pass.wörd".
    QStringList signedAs(const QString& user)
    {
        if (!m_password.isOpen()) {
            m_password.open();
            m_password.write("pass.w\xc3\xb6rd\n");
            m_password.flush();
        }
        return { "--user", user, "--password-file", m_password.fileName() };
    }

    QTemporaryFile m_password;
};

QTEST_GUILESS_MAIN(ZarkctlTest)
#include "ZarkctlTest.moc"
