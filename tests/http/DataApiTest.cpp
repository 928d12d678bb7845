#include <QElapsedTimer>
#include <QJsonArray>
#include <QJsonObject>
#include <QRegularExpression>
#include <QSet>
#include <QTest>

#include <atomic>
#include <csignal>
#include <memory>
#include <thread>

#include "Device.h"

namespace {

QByteArray setBody(const QByteArray& path, const QByteArray& value, const QByteArray& role = "value")
{
    return R"({"path":")" + path + R"(","role":")" + role + R"(","value":)" + value + '}';
}

} // namespace

class DataApiTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void initTestCase()
    {
        m_device = std::make_unique<Device>();
        QVERIFY(m_device->isRunning());
    }

    void cleanupTestCase() { QCOMPARE(m_device->stop(SIGTERM), 0); }

    void answers_data()
    {
        QTest::addColumn<QByteArray>("target");
        QTest::addColumn<QByteArray>("post"); // Null: GET.
        QTest::addColumn<QByteArray>("body");
        const QByteArray volume = R"({"type":"i32","value":30})";
        const QByteArray getData = "/api/getData?path=player:player/volume&roles=";
        const QByteArray getRows = "/api/getRows?path=demo:lists/large&roles=title&from=";
        QTest::newRow("two roles") << getData + "title,value" << QByteArray() << "[\"Volume\"," + volume + ']';
        QTest::newRow("roles in the asked order, twice")
            << getData + "value,type,value" << QByteArray() << '[' + volume + ",\"value\"," + volume + ']';
        QTest::newRow("structure") << getData + "title,value&type=structure" << QByteArray()
                                   << R"({"title":"Volume","value":)" + volume + '}';
        QTest::newRow("another type") << getData + "title&type=list" << QByteArray() << QByteArray(R"(["Volume"])");
        QTest::newRow("the permission role asked for")
            << getData + "permission" << QByteArray() << QByteArray(R"(["default"])");
        QTest::newRow("old path") << QByteArray("/api/getData?path=/player/volume&roles=title") << QByteArray()
                                  << QByteArray(R"(["Volume"])");
        QTest::newRow("encoded query") << QByteArray("/api/getData?path=player%3Aplayer%2Fvolume&roles=title%2Ctype")
                                       << QByteArray() << QByteArray(R"(["Volume","value"])");
        QTest::newRow("POST, JSON") << QByteArray("/api/getData")
                                    << QByteArray(R"({"path":"player:player/volume","roles":["title","value"]})")
                                    << "[\"Volume\"," + volume + ']';
        QTest::newRow("rows") << getRows + "9998&to=9999" << QByteArray()
                              << QByteArray(R"({"from":9998,"roles":{"permission":"default","title":"Large list"},)"
                                            R"("rows":[["Row 9998"],["Row 9999"]],"rowsCount":10000,"rowsVersion":)");
        QTest::newRow("rows of numbers with a point")
            << QByteArray("/api/getRows")
            << QByteArray(R"({"path":"demo:lists/large","roles":["title"],"from":9998.0,"to":1e4})")
            << QByteArray(R"({"from":9998,"roles":{"permission":"default","title":"Large list"},)"
                          R"("rows":[["Row 9998"],["Row 9999"]],"rowsCount":10000,"rowsVersion":)");
        QTest::newRow("rows cut to the end")
            << getRows + "9999&to=2147483647" << QByteArray()
            << QByteArray(R"({"from":9999,"roles":{"permission":"default","title":"Large list"},)"
                          R"("rows":[["Row 9999"]],"rowsCount":10000,"rowsVersion":)");
        QTest::newRow("children") << QByteArray("/api/getRows?path=demo:volatile&roles=path,type&from=0&to=9")
                                  << QByteArray()
                                  << QByteArray(R"({"from":0,"roles":{"path":"demo:volatile","permission":"default",)"
                                                R"("type":"container"},"rows":[["demo:volatile/counter","value"]])");
        QTest::newRow("roots") << QByteArray("/api/getRows?path=:&roles=path&from=0&to=0") << QByteArray()
                               << QByteArray(R"({"from":0,"roles":{"path":":","permission":"default"},)"
                                             R"("rows":[["settings:webserver"]])");
    }

    void answers()
    {
        QFETCH(QByteArray, target);
        QFETCH(QByteArray, post);
        QFETCH(QByteArray, body);
        const HttpReply reply = post.isNull() ? m_device->get(target) : m_device->postJson(target, post);
        QCOMPARE(reply.status, 200);
        QCOMPARE(reply.header("Content-Type"), QByteArray("application/json"));
        QCOMPARE(reply.header("Transfer-Encoding"), QByteArray());
        QCOMPARE(target.startsWith("/api/getRows") ? reply.body.left(body.size()) : reply.body, body);
    }

    void everyRoleIsAnswered()
    {
        const HttpReply reply = m_device->get("/api/getData?path=player:player/volume&roles=@all&type=structure");
        const QStringList roles = reply.json().object().keys();
        QCOMPARE(roles.join(' '),
            QStringLiteral("description edit icon modifiable path permission timestamp title type value"));
    }

    void faults_data()
    {
        QTest::addColumn<QByteArray>("method");
        QTest::addColumn<QByteArray>("target");
        QTest::addColumn<QByteArray>("type");
        QTest::addColumn<QByteArray>("body");
        QTest::addColumn<int>("status");
        QTest::addColumn<QByteArray>("message"); // Exact, or its beginning when it ends in "…".
        const QByteArray json = "application/json";
        const QByteArray volume = "path=player:player/volume";
        const QByteArray large = "path=demo:lists/large&roles=title";
        const auto get = [](const char* name, const QByteArray& target, int status, const QByteArray& message) {
            QTest::newRow(name) << QByteArray("GET") << "/api/" + target << QByteArray() << QByteArray() << status
                                << message;
        };
        const auto post = [](const char* name, const QByteArray& target, const QByteArray& type, const QByteArray& body,
                              int status, const QByteArray& message) {
            QTest::newRow(name) << QByteArray("POST") << "/api/" + target << type << body << status << message;
        };
        get("no such endpoint", "getdata?" + volume, 404, "Error: wrong method!");
        get("below an endpoint", "getData/?" + volume + "&roles=title", 404, "Error: wrong method!");
        get("getData without path", "getData?roles=title", 400, "missing path or roles!");
        get("getData without roles", "getData?" + volume, 400, "missing path or roles!");
        get("getData without query", "getData", 400, "missing path or roles!");
        post("getData of no type", "getData", "", "{}", 400, "missing path or roles!");
        post("getData of malformed JSON", "getData", json, "{\"path\":", 400, "missing path or roles!");
        post("getData of a list", "getData", json, "[1]", 400, "missing path or roles!");
        post("getData of nesting without end", "getData", json, QByteArray(500000, '['), 400, "missing path or roles!");
        post("getData of invalid UTF-8", "getData", json, "{\"path\":\"\xff\",\"roles\":[]}", 400,
            "missing path or roles!");
        post("getData of null roles", "getData", json, R"({"path":"player:player/volume","roles":null})", 400,
            "missing path or roles!");
        post("getData among too many values", "getData", json,
            R"({"path":"player:player/volume","roles":["title"],"x":[0)" + QByteArray(",0").repeated(20000) + "]}", 400,
            "missing path or roles!");
        post("getData among too many fields", "getData", "application/x-www-form-urlencoded",
            volume + "&roles=title" + QByteArray("&x").repeated(20000), 400, "missing path or roles!");
        get("getRows without from", "getRows?" + large + "&to=1", 400, "missing path, roles, from or to!");
        get("getRows of a text", "getRows?" + large + "&from=a&to=1", 400, "invalid from or to or version!");
        get("getRows beyond 32 bits", "getRows?" + large + "&from=0&to=4294967296", 400,
            "invalid from or to or version!");
        get("getRows of a version in words", "getRows?" + large + "&from=0&to=1&version=x", 400,
            "invalid from or to or version!");
        post("getRows of a fraction", "getRows", json,
            R"({"path":"demo:lists/large","roles":["title"],"from":0.5,"to":1})", 400,
            "invalid from or to or version!");
        get("getRows backwards", "getRows?" + large + "&from=5&to=4", 500, "…");
        get("getRows before the first", "getRows?" + large + "&from=-1&to=4", 500, "…");
        get("getRows after the last", "getRows?" + large + "&from=10000&to=10001", 500, "…");
        get("getRows of an outdated version", "getRows?" + large + "&from=0&to=1&version=999999", 500, "…");
        get("getRows of a value", "getRows?" + volume + "&roles=title&from=0&to=1", 500, "…");
        get("no such node", "getData?path=player:player/nothing&roles=title", 500, "…");
        get("no path at all", "getData?path=&roles=title", 500, "…");
        get("a path that is none", "getData?path=%00%ff//::&roles=title", 500, "…");
        get("no such role", "getData?" + volume + "&roles=title,color", 500, "…");
        get("an empty role", "getData?" + volume + "&roles=title,,value", 500, "…");
        get("getData of a hundred roles", "getData?" + volume + "&roles=title" + QByteArray(",title").repeated(99), 400,
            "too many roles!");
        post("getRows of a thousand roles", "getRows", json,
            R"({"path":"demo:lists/large","from":0,"to":9999,"roles":["title")" + QByteArray(",\"title\"").repeated(999)
                + "]}",
            400, "too many roles!");
        get("setData by GET without role", "setData?" + volume + "&value=1", 400, "missing path or role or value!");
        get("setData by GET of no JSON", "setData?" + volume + "&role=value&value=.1", 400,
            "Unable to parse value: line 1, column 1…");
        post("setData of a form", "setData", "application/x-www-form-urlencoded", "path=a&role=value&value=1", 415,
            "invalid request content type");
        post("setData of JSON in capitals", "setData", "Application/JSON", setBody("player:player/volume", "1"), 415,
            "invalid request content type");
        post("setData without value", "setData", json, R"({"path":"player:player/volume","role":"value"})", 400,
            "missing path or role or value!");
        for (const char* method : { "PUT", "DELETE", "PATCH", "BREW" })
            QTest::newRow(method) << QByteArray(method) << "/api/getData?" + volume + "&roles=title" << QByteArray()
                                  << QByteArray() << 405 << QByteArray("Invalid method!");
    }

    void faults()
    {
        QFETCH(QByteArray, method);
        QFETCH(QByteArray, target);
        QFETCH(QByteArray, type);
        QFETCH(QByteArray, body);
        QFETCH(int, status);
        QFETCH(QByteArray, message);
        const HttpReply reply = m_device->request(method, target, { "Content-Type: " + type }, body);
        QCOMPARE(reply.status, status);
        QCOMPARE(reply.header("Content-Type"), QByteArray("application/json"));
        QVERIFY(!reply.json().object().value("error").toObject().value("name").toString().isEmpty());
        const bool prefix = message.endsWith("…");
        const QByteArray expected = prefix ? message.chopped(int(strlen("…"))) : message;
        QCOMPARE(prefix ? reply.errorMessage().left(expected.size()) : reply.errorMessage(), expected);
        QVERIFY(!reply.errorMessage().isEmpty());
    }

    // Each refused write is refused by name and changes nothing.
    void writes_data()
    {
        QTest::addColumn<QByteArray>("path");
        QTest::addColumn<QByteArray>("json");
        QTest::addColumn<QByteArray>("error"); // Empty: written.
        const auto row = [](const char* path, const char* json, const char* error = "") {
            QTest::addRow("%s = %s", path, json) << QByteArray(path) << QByteArray(json) << QByteArray(error);
        };
        row("player:player/volume", R"({"type":"i32","value":42})");
        row("player:player/volume", "41");
        row("player:player/volume", "101", "outOfRange");
        row("player:player/volume", "-1", "outOfRange");
        row("player:player/volume", "2147483648", "invalidType");
        row("player:player/volume", "4.5", "invalidType");
        row("player:player/volume", "\"40\"", "invalidType");
        row("player:player/volume", "null", "invalidType");
        row("player:player/volume", R"({"type":"i64","value":40})", "invalidType");
        row("player:player/volume", R"({"type":"i32"})", "invalidType");
        row("player:player/state", "\"playing\"", "notModifiable");
        row("player:player/nothing", "1", "notFound");
        row("player:player", "1", "notSupported");
        row("demo:values/bool", "true");
        row("demo:values/bool", "1", "invalidType");
        row("demo:values/i64", "9223372036854775807");
        row("demo:values/i64", "-9223372036854775808");
        row("demo:values/i64", "9223372036854775808", "invalidType");
        row("demo:values/bytes", "\"AAEC/w==\"");
        row("demo:values/bytes", "\"?\"", "invalidType");
        row("demo:values/stringList", R"(["a","ü"])");
        row("demo:values/stringList", "[1]", "invalidType");
        row("settings:webserver/authMode", R"({"mode":"sometimes"})", "invalidType");
    }

    void writes()
    {
        QFETCH(QByteArray, path);
        QFETCH(QByteArray, json);
        QFETCH(QByteArray, error);
        const QByteArray before = m_device->get("/api/getData?roles=value&path=" + path).body;
        const HttpReply reply = m_device->postJson("/api/setData", setBody(path, json));
        const QByteArray after = m_device->get("/api/getData?roles=value&path=" + path).body;
        if (error.isEmpty()) {
            QCOMPARE(reply.status, 200);
            QCOMPARE('[' + reply.body + ']', after);
            QVERIFY(after.contains(json.startsWith('{') ? QByteArray("42") : json));
        } else {
            QCOMPARE(reply.status, 500);
            QCOMPARE(reply.json().object().value("error").toObject().value("name").toString().toUtf8(), error);
            QCOMPARE(after, before);
        }
    }

    void commandsAndOldForms()
    {
        QCOMPARE(
            m_device->postJson("/api/setData", setBody("player:player/control", "\"play\"", "activate")).status, 200);
        QCOMPARE(m_device->value("player:player/state"), QByteArray("\"playing\""));
        QCOMPARE(
            m_device->postJson("/api/setData", setBody("player:player/control", "\"jump\"", "activate")).status, 500);
        QCOMPARE(m_device->get("/api/setData?path=/player/volume&roles=value&value=17").status, 200);
        QCOMPARE(m_device->value("player:player/volume"), QByteArray("17"));
        const QByteArray list = R"({"path":"player:player/volume","roles":["value"],"value":18})";
        QCOMPARE(m_device->postJson("/api/setData", list).body, QByteArray(R"({"type":"i32","value":18})"));
        QTRY_VERIFY_WITH_TIMEOUT(m_device->value("player:player/position").toInt() > 0, 5000);
    }

    void aListIsPagedThroughInOneVersion()
    {
        const HttpReply large = m_device->get("/api/getRows?path=demo:lists/large&roles=title&from=5&to=9999");
        QCOMPARE(large.json().object().value("rows").toArray().size(), 1000);
        const QByteArray target = "/api/getRows?path=player:player/playlist&roles=title";
        QJsonObject page = m_device->get(target + "&from=0&to=99").json().object();
        const int count = page.value("rowsCount").toInt();
        QVERIFY(count >= 500);
        const QByteArray version = "&version=" + QByteArray::number(qint64(page.value("rowsVersion").toDouble()));
        QStringList titles;
        for (int from = 0; from < count; from += 100) {
            page = m_device
                       ->get(target + version + "&from=" + QByteArray::number(from)
                           + "&to=" + QByteArray::number(from + 99))
                       .json()
                       .object();
            for (const QJsonValue row : page.value("rows").toArray())
                titles.append(row.toArray().at(0).toString());
        }
        QCOMPARE(titles.size(), count);
        QCOMPARE(QSet<QString>(titles.begin(), titles.end()).size(), count);

        QCOMPARE(m_device
                     ->postJson("/api/setData",
                         setBody("player:player/playlistInsert", R"({"index":3,"title":"New"})", "activate"))
                     .status,
            200);
        const HttpReply outdated = m_device->get(target + version + "&from=0&to=1");
        QCOMPARE(outdated.json().object().value("error").toObject().value("name").toString(), "outdatedVersion");
        page = m_device->get(target + "&from=3&to=3").json().object();
        QCOMPARE(page.value("rowsCount").toInt(), count + 1);
        QCOMPARE(page.value("rows").toArray().at(0).toArray().at(0).toString(), QString("New"));
    }

    void announcesTheLanguageToWhoAsks()
    {
        const QByteArray target = "/api/getData?path=player:player/volume&roles=title";
        QCOMPARE(m_device->get(target, { "Accept-Language: fr" }).header("Content-Language"), QByteArray("en"));
        QCOMPARE(m_device->get(target).header("Content-Language"), QByteArray());
        QCOMPARE(m_device->postJson("/api/setData", setBody("settings:ui/language", "\"de\"")).status, 200);
        QTRY_COMPARE(m_device->get(target, { "Accept-Language: fr" }).header("Content-Language"), QByteArray("de"));
    }

    void noAcknowledgedWriteIsLost()
    {
        Device device;
        for (int round = 0; round < 5; ++round) {
            std::atomic<int> acknowledged{ -1 };
            std::atomic<bool> stop{ false };
            std::thread writer([&] {
                HttpConnection connection(device.port());
                for (int value = 0; !stop; ++value) {
                    const QByteArray body = setBody("demo:values/i64", QByteArray::number(value));
                    connection.send(
                        httpRequest("POST", "/api/setData", { "Host: x", "Content-Type: application/json" }, body));
                    if (connection.readReply(2000).status != 200)
                        return;
                    acknowledged = value;
                }
            });
            QTest::qWait(150 + 37 * round);
            device.stop(SIGKILL);
            stop = true;
            writer.join();
            QVERIFY(acknowledged >= 0);
            QVERIFY(device.start());
            QVERIFY2(device.value("demo:values/i64").toInt() >= acknowledged, device.value("demo:values/i64"));
        }
    }

    void aBusyPortIsNamedAndEndsTheHost()
    {
        // The later of two settings of one node holds.
        const QString port = QString::number(m_device->port());
        QTest::ignoreMessage(QtWarningMsg, QRegularExpression(QStringLiteral("did not start(.|\n)*") + port));
        Device second({ QStringLiteral("settings:webserver/port=") + port });
        QVERIFY(!second.isRunning());
        QCOMPARE(second.exitStatus(), 3);
    }

private:
    std::unique_ptr<Device> m_device;
};

QTEST_GUILESS_MAIN(DataApiTest)

#include "DataApiTest.moc"
