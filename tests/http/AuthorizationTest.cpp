#include <QtTest>

#include <map>
#include <memory>

#include "Device.h"
#include "Namespace.h"
#include "Rows.h"
#include "Signer.h"

namespace {

const char* const Password = "pässword";
const char* const Wrong = "wrong";
const QByteArray Counter = "/api/getData?path=demo:volatile/counter&roles=value";

enum Kind { GetData, GetRows, Stream, SetData, OldSetData };

struct Access {
    const char* permission;
    Kind kind;
    // What a remote client gets in the modes off, writes, writesAndEvents, everything.
    std::array<int, 4> anonymous;
    std::array<int, 4> verified;
};

// A wrong signature is 401 everywhere but on an old GET setData, which carries none.
const std::array<Access, 18> Table{ {
    { "open", GetData, { 200, 200, 200, 200 }, { 200, 200, 200, 200 } },
    { "open", GetRows, { 200, 200, 200, 200 }, { 200, 200, 200, 200 } },
    { "open", SetData, { 200, 200, 200, 200 }, { 200, 200, 200, 200 } },
    { "open", OldSetData, { 200, 200, 200, 200 }, { 200, 200, 200, 200 } },
    { "default", GetData, { 200, 200, 200, 401 }, { 200, 200, 200, 200 } },
    { "default", GetRows, { 200, 200, 200, 401 }, { 200, 200, 200, 200 } },
    { "default", Stream, { 200, 200, 200, 401 }, { 200, 200, 200, 200 } },
    { "default", SetData, { 200, 401, 401, 401 }, { 200, 200, 200, 200 } },
    { "default", OldSetData, { 200, 401, 401, 401 }, { 200, 401, 401, 401 } },
    { "protected", GetData, { 200, 401, 401, 401 }, { 200, 200, 200, 200 } },
    { "protected", GetRows, { 200, 401, 401, 401 }, { 200, 200, 200, 200 } },
    { "protected", Stream, { 200, 401, 401, 401 }, { 200, 200, 200, 200 } },
    { "protected", SetData, { 200, 401, 401, 401 }, { 200, 200, 200, 200 } },
    { "protected", OldSetData, { 200, 401, 401, 401 }, { 200, 401, 401, 401 } },
    { "internal", GetData, { 404, 404, 404, 404 }, { 404, 404, 404, 404 } },
    { "internal", GetRows, { 404, 404, 404, 404 }, { 404, 404, 404, 404 } },
    { "internal", SetData, { 404, 404, 404, 404 }, { 404, 404, 404, 404 } },
    { "internal", OldSetData, { 404, 404, 404, 404 }, { 404, 404, 404, 404 } },
} };

const char* const Modes[] = { "off", "writes", "writesAndEvents", "everything" };
const char* const Kinds[] = { "getData", "getRows", "stream", "setData", "old setData" };

QByteArray targetOf(Kind kind, const QByteArray& permission, const QByteArray& value)
{
    const QByteArray path = "path=demo:permissions/" + permission;
    switch (kind) {
    case GetData:
        return "/api/getData?" + path + "&roles=title,value";
    case GetRows:
        return "/api/getRows?path=demo:permissionLists/" + permission + "&roles=title&from=0&to=1";
    case Stream:
        return permission == "default" ? "/api/stream/player:player/audio" : "/api/stream/system:log/lines";
    case SetData:
        return "/api/setData";
    case OldSetData:
        return "/api/setData?" + path + "&role=value&value=" + value;
    }
    return {};
}

} // namespace

class AuthorizationTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void permissionByKindByModeByCredentialsByPlace()
    {
        Rows<int, Access, Client> row;
        for (int mode = 0; mode < 4; ++mode)
            for (const Access& access : Table)
                for (const char* password : { "", Password, Wrong })
                    for (const char* address : { "127.0.0.1", RemoteAddress })
                        row(QByteArray(Modes[mode]) + ' ' + access.permission + ' ' + Kinds[access.kind] + " by \""
                                + password + "\" from " + address,
                            mode, access, { address, *password ? QByteArray(password) : QByteArray() });
        for (const auto& [mode, access, client] : row) {
            const Device& target = device(mode);
            int expected = 200;
            if (client.password == Wrong && access.kind != OldSetData)
                expected = 401;
            else if (client.address == QByteArray(RemoteAddress))
                expected = (client.password == Password ? access.verified : access.anonymous)[size_t(mode)];

            const QByteArray path = "demo:permissions/" + QByteArray(access.permission);
            const QByteArray value = QByteArray::number(++m_value);
            const QByteArray before = target.value(path);
            const bool isHead = access.kind == Stream; // Which has no end.
            QByteArray request = target.requestOf(client, targetOf(access.kind, access.permission, value),
                access.kind == SetData ? Device::setBody(path, value) : QByteArray());
            HttpConnection connection(target.port(), client.address);
            connection.send(isHead ? request.replace(0, 3, "HEAD") : request);
            const HttpReply reply = connection.readReply(10000, isHead);
            QCOMPARE(reply.status, expected);
            QCOMPARE(reply.header("X-Robots-Tag"), QByteArray("noindex"));
            QCOMPARE(
                reply.header("WWW-Authenticate"), QByteArray(expected == 401 ? "HMAC_SHA256, HMAC_SHA256_AES256" : ""));
            if (expected != 200 && !isHead)
                QCOMPARE(reply.errorMessage(), QByteArray(expected == 404 ? "Node is internal" : "Forbidden"));
            QCOMPARE(target.value(path), expected == 200 && access.kind >= SetData ? value : before);
            if (client.password == Wrong)
                release(target);
        }
    }

    void rowsAreHiddenByTheirOwnPermission()
    {
        const QByteArray target = "/api/getRows?path=demo:lists/mixed&roles=title,description&from=0&to=99";
        const QByteArray rows = device(1).ask({ RemoteAddress, {} }, target).body;
        QVERIFY2(rows.contains("[\"(Node is internal)\",null]"), rows.constData());
        QVERIFY2(rows.contains("[\"(Node requires authentication)\",null]"), rows.constData());
        const QByteArray local = device(1).get(target).body;
        QVERIFY2(!local.contains("(Node"), local.constData());
        QCOMPARE(rows.count("["), local.count("["));
    }

    // The wire form of each step of the brake, and that it holds up nobody else.
    void failuresAreHeldBackAndAVerifiedRequestReleasesThem()
    {
        const Device& target = device(1);
        release(target);
        const Client wrong{ "127.0.0.1", Wrong };
        QElapsedTimer timer;
        timer.start();
        QCOMPARE(target.ask(wrong, Counter).status, 401);
        QVERIFY(timer.elapsed() < 900); // At once.

        timer.restart();
        HttpConnection second = target.connect(target.requestOf(wrong, Counter));
        // Behind an answer: the leaver's failure has to come second, or the other one waits for both.
        QCOMPARE(target.get(Counter).status, 200);
        HttpConnection leaver = target.connect(target.requestOf(wrong, Counter));
        QVERIFY(!second.hasData(900)); // 1 to 4 seconds; not one byte before.
        leaver.reset();
        QCOMPARE(target.get(Counter).status, 200);
        QVERIFY(timer.elapsed() < 1500);
        QCOMPARE(second.readReply().status, 401);
        QVERIFY2(timer.elapsed() >= 1000 && timer.elapsed() < 4500, qPrintable(QString::number(timer.elapsed())));

        release(target);
        timer.restart();
        QCOMPARE(target.ask(wrong, Counter).status, 401);
        QVERIFY(timer.elapsed() < 900);
        release(target);
    }

    void aWrongClockIsWarnedOfOnceAMinute()
    {
        const QByteArray target = "/api/getData?path=demo:permissions/protected&roles=value";
        const Device& device = this->device(1);
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

    void signatureVariants()
    {
        Rows<QByteArray, int> row;
        const QByteArray uri = device(1).baseUrl() + "/api/getData?path=demo:permissions/protected&roles=value";
        const QByteArray good = Signer("admin", "pässword").forGet(uri);
        const QByteArray fields = good.mid(good.lastIndexOf(' ') + 1);
        Signer old("admin", "pässword");
        old.setTimestamp(5000);
        row("good", good, 200);
        row("scheme in lower case", "Authorization: hmac_sha256 " + fields, 200);
        row("stale timestamp", old.forGet(uri), 200);
        row("encrypting scheme", Signer("admin", "pässword", "HMAC_SHA256_AES256").forGet(uri), 200);
        row("more after the fourth part", good + ".more and more", 200);
        row("sent twice", good + "\r\n" + good, 401);
        row("unknown scheme", "Authorization: Basic " + fields, 401);
        row("scheme alone", "Authorization: HMAC_SHA256", 401);
        row("truncated signature", good.chopped(8), 401);
        row("unknown user", Signer("nobody", "").forGet(uri), 401);
        row("empty user, empty password", Signer("", "").forGet(uri), 401);
        row("other letter case of the user", Signer("Admin", "pässword").forGet(uri), 401);
        row("signature of another URI", Signer("admin", "pässword").forGet(uri + "x"), 401);
        row("timestamp of 2^63", "Authorization: HMAC_SHA256 YWRtaW4=.AA==.9223372036854775808.AA==", 401);
        row("garbage", QByteArray("Authorization: \x80\xff..... . ."), 401);
        for (const auto& [header, status] : row) {
            const QByteArray target = "/api/getData?path=demo:permissions/protected&roles=value";
            QCOMPARE(device(1).get(target, { header }).status, status);
            release(device(1));
        }
    }

    // Any other answer would tell a right password from a wrong one without the brake.
    void aWrongSignatureIsRefusedBeforeTheBodyIsJudged()
    {
        const Device& target = device(1);
        const Signer signer("admin", Wrong, "HMAC_SHA256_AES256");
        // A value, and a whole body, that no key opens.
        for (const char* body : { R"({"value":"AAAA"})", R"("AAAA")" }) {
            const QByteArray field = signer.forPost(target.baseUrl() + "/api/setData", body);
            QCOMPARE(target.postJson("/api/setData", body, { field }).status, 401);
            release(target);
        }
    }

    void encryptedValues()
    {
        Rows<QByteArray, bool, QByteArray> row;
        row("a number", "77", false, "77");
        row("a typed value", QByteArray(R"({"type":"i32","value":78})"), false, "78");
        row("the whole body", QByteArray(R"({"path":"demo:permissions/protected","role":"value","value":79})"), true,
            "79");
        row("not JSON", "oops", false, {});
        for (const auto& [json, wholeBody, stored] : row) {
            const Device& target = device(1);
            const Signer signer("admin", "pässword", "HMAC_SHA256_AES256");
            const QByteArray secret = '"' + signer.encrypt(json) + '"';
            const QByteArray body = wholeBody ? secret : Device::setBody("demo:permissions/protected", secret);
            const QByteArray before = target.value("demo:permissions/protected");
            const HttpReply reply =
                target.postJson("/api/setData", body, { signer.forPost(target.baseUrl() + "/api/setData", body) });
            QCOMPARE(reply.status, stored.isNull() ? 400 : 200);
            QCOMPARE(target.value("demo:permissions/protected"), stored.isNull() ? before : stored);
        }
    }

private:
    const Device& device(int mode)
    {
        auto& entry = m_devices[mode];
        if (!entry)
            entry = std::make_unique<Device>(QStringList{
                QStringLiteral(R"(settings:webserver/users=[{"name":"admin","password":"%1"}])").arg(Password),
                QStringLiteral("settings:webserver/authMode=") + Modes[mode] });
        return *entry;
    }

    // Otherwise each wrong signature would wait for those before.
    static void release(const Device& target) { QCOMPARE(target.ask({ "127.0.0.1", Password }, Counter).status, 200); }

    std::map<int, std::unique_ptr<Device>> m_devices;
    int m_value = 0;
};

NAMESPACE_TEST_MAIN(AuthorizationTest)

#include "AuthorizationTest.moc"
