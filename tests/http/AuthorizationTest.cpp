#include <QCoreApplication>
#include <QTest>

#include <map>
#include <memory>

#include "Device.h"
#include "Namespace.h"
#include "Signer.h"

namespace {

const QByteArray Users = R"(settings:webserver/users=[{"name":"admin","password":"pässword"}])";

enum Kind { GetData, GetRows, SetData, OldSetData };

struct Row {
    const char* permission;
    Kind kind;
    // What a remote client gets in the modes off, writes, writesAndEvents, everything.
    std::array<int, 4> anonymous;
    std::array<int, 4> verified;
};

// A wrong signature is 401 everywhere but on an old GET setData, which carries none.
const std::array<Row, 16> Table{ {
    { "open", GetData, { 200, 200, 200, 200 }, { 200, 200, 200, 200 } },
    { "open", GetRows, { 200, 200, 200, 200 }, { 200, 200, 200, 200 } },
    { "open", SetData, { 200, 200, 200, 200 }, { 200, 200, 200, 200 } },
    { "open", OldSetData, { 200, 200, 200, 200 }, { 200, 200, 200, 200 } },
    { "default", GetData, { 200, 200, 200, 401 }, { 200, 200, 200, 200 } },
    { "default", GetRows, { 200, 200, 200, 401 }, { 200, 200, 200, 200 } },
    { "default", SetData, { 200, 401, 401, 401 }, { 200, 200, 200, 200 } },
    { "default", OldSetData, { 200, 401, 401, 401 }, { 200, 401, 401, 401 } },
    { "protected", GetData, { 200, 401, 401, 401 }, { 200, 200, 200, 200 } },
    { "protected", GetRows, { 200, 401, 401, 401 }, { 200, 200, 200, 200 } },
    { "protected", SetData, { 200, 401, 401, 401 }, { 200, 200, 200, 200 } },
    { "protected", OldSetData, { 200, 401, 401, 401 }, { 200, 401, 401, 401 } },
    { "internal", GetData, { 404, 404, 404, 404 }, { 404, 404, 404, 404 } },
    { "internal", GetRows, { 404, 404, 404, 404 }, { 404, 404, 404, 404 } },
    { "internal", SetData, { 404, 404, 404, 404 }, { 404, 404, 404, 404 } },
    { "internal", OldSetData, { 404, 404, 404, 404 }, { 404, 404, 404, 404 } },
} };

const std::array<const char*, 4> Modes{ "off", "writes", "writesAndEvents", "everything" };
const std::array<const char*, 3> Credentials{ "none", "good", "wrong" };
const std::array<const char*, 4> Kinds{ "getData", "getRows", "setData", "old setData" };

QByteArray targetOf(Kind kind, const QByteArray& permission, int value)
{
    const QByteArray path = "path=demo:permissions/" + permission;
    switch (kind) {
    case GetData:
        return "/api/getData?" + path + "&roles=title,value";
    case GetRows:
        return "/api/getRows?path=demo:permissionLists/" + permission + "&roles=title&from=0&to=1";
    case SetData:
        return "/api/setData";
    case OldSetData:
        return "/api/setData?" + path + "&role=value&value=" + QByteArray::number(value);
    }
    return {};
}

QByteArray messageFor(int status)
{
    return status == 404 ? "Node is internal" : status == 401 ? "Forbidden" : "";
}

} // namespace

class AuthorizationTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void permissionByKindByModeByCredentialsByPlace_data()
    {
        QTest::addColumn<int>("mode");
        QTest::addColumn<int>("rowIndex");
        QTest::addColumn<int>("credentials");
        QTest::addColumn<bool>("remote");
        for (int mode = 0; mode < 4; ++mode)
            for (int index = 0; index < int(Table.size()); ++index)
                for (int credentials = 0; credentials < 3; ++credentials)
                    for (const bool remote : { false, true })
                        QTest::addRow("%s: %s %s, %s signature, %s", Modes[size_t(mode)],
                            Kinds[Table[size_t(index)].kind], Table[size_t(index)].permission,
                            Credentials[size_t(credentials)], remote ? "remote" : "local")
                            << mode << index << credentials << remote;
    }

    void permissionByKindByModeByCredentialsByPlace()
    {
        QFETCH(int, mode);
        QFETCH(int, rowIndex);
        QFETCH(int, credentials);
        QFETCH(bool, remote);
        const Row& row = Table[size_t(rowIndex)];
        Device& target = device(mode);
        QVERIFY(target.isRunning());

        int expected = 200;
        if (credentials == 2 && row.kind != OldSetData)
            expected = 401;
        else if (remote)
            expected = (credentials == 1 ? row.verified : row.anonymous)[size_t(mode)];

        const int value = ++m_value;
        const QByteArray before = target.value("demo:permissions/" + QByteArray(row.permission));
        const HttpReply reply = send(target, row, credentials, remote, value);
        QCOMPARE(reply.status, expected);
        QCOMPARE(reply.header("X-Robots-Tag"), QByteArray("noindex"));
        QCOMPARE(reply.header("WWW-Authenticate"),
            expected == 401 ? QByteArray("HMAC_SHA256, HMAC_SHA256_AES256") : QByteArray());
        if (expected != 200)
            QCOMPARE(reply.errorMessage(), messageFor(expected));
        const bool written = expected == 200 && row.kind >= SetData;
        QCOMPARE(target.value("demo:permissions/" + QByteArray(row.permission)),
            written ? QByteArray::number(value) : before);
        if (credentials == 2)
            release(target);
    }

    void rowsAreHiddenByTheirOwnPermission()
    {
        const QByteArray target = "/api/getRows?path=demo:lists/mixed&roles=title,description&from=0&to=99";
        HttpConnection remote(device(1).port(), RemoteAddress);
        remote.send(httpRequest("GET", target, { "Host: x" }));
        const QByteArray rows = remote.readReply().body;
        QVERIFY2(rows.contains("[\"(Node is internal)\",null]"), rows.constData());
        QVERIFY2(rows.contains("[\"(Node requires authentication)\",null]"), rows.constData());
        const QByteArray local = device(1).get(target).body;
        QVERIFY2(!local.contains("(Node"), local.constData());
        QCOMPARE(rows.count("["), local.count("["));
    }

    // The wire form of each step of the brake, and that it holds up nobody else.
    void failuresAreHeldBackAndAVerifiedRequestReleasesThem()
    {
        Device& target = device(1);
        release(target);
        const QByteArray uri = target.baseUrl() + "/api/getData?path=demo:volatile/counter&roles=value";
        const QByteArray wrong = Signer("admin", "wrong").forGet(uri);
        QCOMPARE(target.get(uri, { wrong }).status, 401); // At once.

        QElapsedTimer timer;
        timer.start();
        HttpConnection second(target.port());
        second.send(httpRequest("GET", uri, { "Host: x", wrong }));
        // Behind an answer: the leaver's failure has to come second, or the other one waits for both.
        QCOMPARE(target.get("/api/getData?path=demo:volatile/counter&roles=value").status, 200);
        HttpConnection leaver(target.port());
        leaver.send(httpRequest("GET", uri, { "Host: x", wrong }));
        QVERIFY(!second.hasData(900)); // 1 to 4 seconds; not one byte before.
        leaver.reset();
        QCOMPARE(target.get("/api/getData?path=demo:volatile/counter&roles=value").status, 200);
        QVERIFY(timer.elapsed() < 1500);
        QCOMPARE(second.readReply().status, 401);
        QVERIFY2(timer.elapsed() >= 1000 && timer.elapsed() < 4500, qPrintable(QString::number(timer.elapsed())));

        release(target);
        timer.restart();
        QCOMPARE(target.get(uri, { wrong }).status, 401);
        QVERIFY(timer.elapsed() < 900);
        release(target);
    }

    void aWrongClockIsWarnedOfOnceAMinute()
    {
        const QByteArray target = "/api/getData?path=demo:permissions/protected&roles=value";
        Device& device = this->device(1);
        Signer old("admin", "pässword");
        old.setTimestamp(5000);
        const auto warnings = [&device] {
            return device.log().count("Time difference in milliseconds");
        };
        const auto before = warnings();
        for (int i = 0; i < 20; ++i)
            QCOMPARE(device.get(target, { old.forGet(device.baseUrl() + target) }).status, 200);
        QVERIFY(warnings() - before <= 2); // Two minutes, perhaps; and others may have had their turn.
        QVERIFY(warnings() > 0);
    }

    void signatureVariants_data()
    {
        QTest::addColumn<QByteArray>("header");
        QTest::addColumn<int>("status");
        const QByteArray uri = device(1).baseUrl() + "/api/getData?path=demo:permissions/protected&roles=value";
        const QByteArray good = Signer("admin", "pässword").forGet(uri);
        const QByteArray fields = good.mid(good.lastIndexOf(' ') + 1);
        Signer old("admin", "pässword");
        old.setTimestamp(5000);
        QTest::newRow("good") << good << 200;
        QTest::newRow("scheme in lower case") << "Authorization: hmac_sha256 " + fields << 200;
        QTest::newRow("stale timestamp") << old.forGet(uri) << 200;
        QTest::newRow("encrypting scheme") << Signer("admin", "pässword", "HMAC_SHA256_AES256").forGet(uri) << 200;
        QTest::newRow("more after the fourth part") << good + ".more and more" << 200;
        QTest::newRow("sent twice") << good + "\r\n" + good << 401;
        QTest::newRow("unknown scheme") << "Authorization: Basic " + fields << 401;
        QTest::newRow("scheme alone") << QByteArray("Authorization: HMAC_SHA256") << 401;
        QTest::newRow("truncated signature") << good.chopped(8) << 401;
        QTest::newRow("unknown user") << Signer("nobody", "").forGet(uri) << 401;
        QTest::newRow("empty user, empty password") << Signer("", "").forGet(uri) << 401;
        QTest::newRow("other letter case of the user") << Signer("Admin", "pässword").forGet(uri) << 401;
        QTest::newRow("signature of another URI") << Signer("admin", "pässword").forGet(uri + "x") << 401;
        QTest::newRow("timestamp of 2^63")
            << QByteArray("Authorization: HMAC_SHA256 YWRtaW4=.AA==.9223372036854775808.AA==") << 401;
        QTest::newRow("garbage") << QByteArray("Authorization: \x80\xff..... . .") << 401;
    }

    void signatureVariants()
    {
        QFETCH(QByteArray, header);
        QFETCH(int, status);
        const QByteArray target = "/api/getData?path=demo:permissions/protected&roles=value";
        QCOMPARE(device(1).get(target, { header }).status, status);
        release(device(1));
    }

    // Any other answer would tell a right password from a wrong one without the brake.
    void aWrongSignatureIsRefusedBeforeTheBodyIsJudged_data()
    {
        QTest::addColumn<QByteArray>("body");
        QTest::newRow("a value that no key opens") << QByteArray(R"({"value":"AAAA"})");
        QTest::newRow("a whole body that no key opens") << QByteArray(R"("AAAA")");
    }

    void aWrongSignatureIsRefusedBeforeTheBodyIsJudged()
    {
        QFETCH(QByteArray, body);
        Device& target = device(1);
        const Signer signer("admin", "wrong", "HMAC_SHA256_AES256");
        const HttpReply reply =
            target.postJson("/api/setData", body, { signer.forPost(target.baseUrl() + "/api/setData", body) });
        QCOMPARE(reply.status, 401);
        release(target);
    }

    void encryptedValues_data()
    {
        QTest::addColumn<QByteArray>("json");
        QTest::addColumn<bool>("wholeBody");
        QTest::addColumn<QByteArray>("stored");
        QTest::newRow("a number") << QByteArray("77") << false << QByteArray("77");
        QTest::newRow("a typed value") << QByteArray(R"({"type":"i32","value":78})") << false << QByteArray("78");
        QTest::newRow("the whole body") << QByteArray(
            R"({"path":"demo:permissions/protected","role":"value","value":79})")
                                        << true << QByteArray("79");
        QTest::newRow("not JSON") << QByteArray("oops") << false << QByteArray();
    }

    void encryptedValues()
    {
        QFETCH(QByteArray, json);
        QFETCH(bool, wholeBody);
        QFETCH(QByteArray, stored);
        Device& target = device(1);
        const Signer signer("admin", "pässword", "HMAC_SHA256_AES256");
        const QByteArray secret = '"' + signer.encrypt(json) + '"';
        const QByteArray body =
            wholeBody ? secret : R"({"path":"demo:permissions/protected","role":"value","value":)" + secret + '}';
        const QByteArray before = target.value("demo:permissions/protected");
        const HttpReply reply =
            target.postJson("/api/setData", body, { signer.forPost(target.baseUrl() + "/api/setData", body) });
        QCOMPARE(reply.status, stored.isNull() ? 400 : 200);
        QCOMPARE(target.value("demo:permissions/protected"), stored.isNull() ? before : stored);
    }

private:
    Device& device(int mode)
    {
        auto& entry = m_devices[mode];
        if (!entry)
            entry = std::make_unique<Device>(QStringList{
                QString::fromUtf8(Users), QStringLiteral("settings:webserver/authMode=") + Modes[size_t(mode)] });
        return *entry;
    }

    HttpReply send(const Device& target, const Row& row, int credentials, bool remote, int value) const
    {
        const QByteArray path = targetOf(row.kind, row.permission, value);
        const QByteArray host = (remote ? RemoteAddress : "127.0.0.1") + (':' + QByteArray::number(target.port()));
        const QByteArray uri = "http://" + host + path;
        const Signer signer("admin", credentials == 1 ? "pässword" : "wrong");
        const bool post = row.kind == SetData;
        const QByteArray body = post ? QByteArray("{\"path\":\"demo:permissions/") + row.permission
                + "\",\"role\":\"value\",\"value\":" + QByteArray::number(value) + '}'
                                     : QByteArray();
        QList<QByteArray> headers{ "Host: " + host, "Content-Type: application/json" };
        if (credentials != 0)
            headers.append(post ? signer.forPost(uri, body) : signer.forGet(uri));
        HttpConnection connection(target.port(), remote ? RemoteAddress : "127.0.0.1");
        connection.send(httpRequest(post ? "POST" : "GET", path, headers, body));
        return connection.readReply();
    }

    // Otherwise each wrong signature would wait for those before.
    static void release(const Device& target)
    {
        const QByteArray path = "/api/getData?path=demo:volatile/counter&roles=value";
        const HttpReply reply = target.get(path, { Signer("admin", "pässword").forGet(target.baseUrl() + path) });
        QCOMPARE(reply.status, 200);
    }

    std::map<int, std::unique_ptr<Device>> m_devices;
    int m_value = 0;
};

int main(int argc, char** argv)
{
    if (!enterNetworkNamespace())
        return 1;
    QCoreApplication application(argc, argv);
    AuthorizationTest test;
    return QTest::qExec(&test, argc, argv);
}

#include "AuthorizationTest.moc"
