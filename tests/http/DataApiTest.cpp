#include <QtTest>

#include <atomic>
#include <csignal>
#include <sqlite3.h>
#include <thread>

#include "Device.h"
#include "Rows.h"

namespace {

QByteArray errorName(const HttpReply& reply)
{
    return reply.json().object().value("error").toObject().value("name").toString().toUtf8();
}

} // namespace

class DataApiTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void cleanupTestCase() { QCOMPARE(m_device.stop(SIGTERM), 0); }

    void answers()
    {
        Rows<QByteArray, QByteArray> row;
        const QByteArray volume = R"({"type":"i32","value":30})";
        const QByteArray getData = "/api/getData?path=player:player/volume&roles=";
        row("roles in the asked order, twice", getData + "value,type,value",
            '[' + volume + ",\"value\"," + volume + ']');
        row("another type", getData + "title&type=list", R"(["Volume"])");
        row("the permission role asked for", getData + "permission", R"(["default"])");
        row("old path", "/api/getData?path=/player/volume&roles=title", R"(["Volume"])");
        row("encoded query", "/api/getData?path=player%3Aplayer%2Fvolume&roles=title%2Ctype", R"(["Volume","value"])");
        row("rows cut to the end", "/api/getRows?path=demo:lists/large&roles=title&from=9999&to=2147483647",
            R"({"from":9999,"roles":{"permission":"default","title":"Large list"},"rows":[["Row 9999"]],"rowsCount":)");
        for (const auto& [target, body] : row) {
            const HttpReply reply = m_device.get(target);
            QCOMPARE(reply.status, 200);
            QCOMPARE(reply.header("Content-Type"), QByteArray("application/json"));
            QCOMPARE(reply.header("Transfer-Encoding"), QByteArray());
            QCOMPARE(target.startsWith("/api/getRows") ? reply.body.left(body.size()) : reply.body, body);
        }
    }

    void faults()
    {
        Rows<QByteArray, QByteArray, QByteArray, QByteArray, int, QByteArray> row;
        const QByteArray json = "application/json";
        const QByteArray volume = "path=player:player/volume";
        const QByteArray large = "path=demo:lists/large&roles=title";
        const auto get = [&](const char* name, const QByteArray& target, int status, const QByteArray& message) {
            row(name, "GET", "/api/" + target, {}, {}, status, message);
        };
        const auto post = [&](const char* name, const QByteArray& target, const QByteArray& type,
                              const QByteArray& body, int status, const QByteArray& message) {
            row(name, "POST", "/api/" + target, type, body, status, message);
        };
        const QByteArray missing = "missing path or roles!";
        get("below an endpoint", "getData/?" + volume + "&roles=title", 404, "Error: wrong method!");
        get("getData without path", "getData?roles=title", 400, missing);
        post("getData of no type", "getData", "", "{}", 400, missing);
        post("getData of malformed JSON", "getData", json, "{\"path\":", 400, missing);
        post("getData of null roles", "getData", json, R"({"path":"player:player/volume","roles":null})", 400, missing);
        post("getData among too many values", "getData", json,
            R"({"path":"player:player/volume","roles":["title"],"x":[0)" + QByteArray(",0").repeated(20000) + "]}", 400,
            missing);
        post("getData among too many fields", "getData", "application/x-www-form-urlencoded",
            volume + "&roles=title" + QByteArray("&x").repeated(20000), 400, missing);
        get("getRows without from", "getRows?" + large + "&to=1", 400, "missing path, roles, from or to!");
        get("getRows of a version in words", "getRows?" + large + "&from=0&to=1&version=x", 400,
            "invalid from or to or version!");
        get("getRows backwards", "getRows?" + large + "&from=5&to=4", 500, "");
        get("getRows before the first", "getRows?" + large + "&from=-1&to=4", 500, "");
        get("no path at all", "getData?path=&roles=title", 500, "");
        get("a path that is none", "getData?path=%00%ff//::&roles=title", 500, "");
        get("an empty role", "getData?" + volume + "&roles=title,,value", 500, "");
        get("getData of a hundred roles", "getData?" + volume + "&roles=title" + QByteArray(",title").repeated(99), 400,
            "too many roles!");
        post("getRows of a thousand roles", "getRows", json,
            R"({"path":"demo:lists/large","from":0,"to":9999,"roles":["title")" + QByteArray(",\"title\"").repeated(999)
                + "]}",
            400, "too many roles!");
        get("setData by GET without role", "setData?" + volume + "&value=1", 400, "missing path or role or value!");
        get("setData by GET of no JSON", "setData?" + volume + "&role=value&value=.1", 400,
            "Unable to parse value: line 1, column 1");
        post("setData of JSON in capitals", "setData", "Application/JSON", Device::setBody("player:player/volume", "1"),
            415, "invalid request content type");
        post("setData without value", "setData", json, R"({"path":"player:player/volume","role":"value"})", 400,
            "missing path or role or value!");
        for (const char* method : { "PUT", "BREW" })
            row(method, method, "/api/getData?" + volume + "&roles=title", {}, {}, 405, "Invalid method!");
        for (const auto& [method, target, type, body, status, message] : row) {
            const HttpReply reply = m_device.request(method, target, { "Content-Type: " + type }, body);
            QCOMPARE(reply.status, status);
            QCOMPARE(reply.header("Content-Type"), QByteArray("application/json"));
            QVERIFY(!errorName(reply).isEmpty());
            QVERIFY2(!reply.errorMessage().isEmpty() && reply.errorMessage().startsWith(message), reply.body);
        }
    }

    // Each refused write is refused by name and changes nothing.
    void writes()
    {
        Rows<QByteArray, QByteArray, QByteArray> row;
        const auto add = [&](const char* path, const char* json, const char* error = "") {
            row(QString::asprintf("%s = %s", path, json).toUtf8(), path, json, error);
        };
        add("player:player/volume", R"({"type":"i32","value":42})");
        add("player:player/volume", "41");
        add("player:player/volume", "101", "outOfRange");
        add("player:player/volume", "\"40\"", "invalidType");
        add("player:player/volume", R"({"type":"i64","value":40})", "invalidType");
        add("player:player/state", "\"playing\"", "notModifiable");
        add("demo:values/stringList", R"(["a","ü"])");
        for (const auto& [path, json, error] : row) {
            const QByteArray before = m_device.get("/api/getData?roles=value&path=" + path).body;
            const HttpReply reply = m_device.postJson("/api/setData", Device::setBody(path, json));
            const QByteArray after = m_device.get("/api/getData?roles=value&path=" + path).body;
            if (error.isEmpty()) {
                QCOMPARE(reply.status, 200);
                QCOMPARE('[' + reply.body + ']', after);
                QVERIFY(after.contains(json.startsWith('{') ? QByteArray("42") : json));
            } else {
                QCOMPARE(reply.status, 500);
                QCOMPARE(errorName(reply), error);
                QCOMPARE(after, before);
            }
        }
    }

    void commandsAndOldForms()
    {
        QCOMPARE(m_device.set("player:player/control", "\"play\"", "activate"), 200);
        QCOMPARE(m_device.value("player:player/state"), QByteArray("\"playing\""));
        QCOMPARE(m_device.set("player:player/control", "\"jump\"", "activate"), 500);
        QCOMPARE(m_device.get("/api/setData?path=/player/volume&roles=value&value=17").status, 200);
        QCOMPARE(m_device.value("player:player/volume"), QByteArray("17"));
        const QByteArray list = R"({"path":"player:player/volume","roles":["value"],"value":18})";
        QCOMPARE(m_device.postJson("/api/setData", list).body, QByteArray(R"({"type":"i32","value":18})"));
    }

    void aListIsPagedThroughInOneVersion()
    {
        const HttpReply large = m_device.get("/api/getRows?path=demo:lists/large&roles=title&from=5&to=9999");
        QCOMPARE(large.json().object().value("rows").toArray().size(), 1000);
        const QByteArray target = "/api/getRows?path=player:player/playlist&roles=title";
        const auto page = [&](int from, int to, const QByteArray& version = {}) {
            return m_device.get(
                target + "&from=" + QByteArray::number(from) + "&to=" + QByteArray::number(to) + version);
        };
        const auto rowsOf = [](const HttpReply& reply) {
            return reply.json().object().value("rows").toArray();
        };
        const QJsonObject first = page(0, 0).json().object();
        const int count = first.value("rowsCount").toInt();
        QVERIFY(count >= 500);
        const QByteArray version = "&version=" + QByteArray::number(qint64(first.value("rowsVersion").toDouble()));
        QSet<QString> titles;
        for (int from = 0; from < count; from += 100) {
            for (const QJsonValue row : rowsOf(page(from, from + 99, version)))
                titles.insert(row.toArray().at(0).toString());
        }
        QCOMPARE(titles.size(), count);

        QCOMPARE(m_device.set("player:player/playlistInsert", R"({"index":3,"title":"New"})", "activate"), 200);
        QCOMPARE(errorName(page(0, 1, version)), QByteArray("outdatedVersion"));
        QCOMPARE(page(3, 3).json().object().value("rowsCount").toInt(), count + 1);
        QCOMPARE(rowsOf(page(3, 3)), QJsonArray({ QJsonArray{ "New" } }));
    }

    // Several at a time, so that batches of writes are cut, too; each has numbers of its own, and all grow.
    void noAcknowledgedWriteIsLost()
    {
        constexpr int Writers = 4;
        Device device;
        for (int round = 1; round <= 5; ++round) {
            const int first = round * 1000000;
            std::atomic<int> acknowledged[Writers] = {};
            std::vector<std::thread> writers;
            for (int i = 0; i < Writers; ++i)
                writers.emplace_back([&device, &last = acknowledged[i], value = first + i]() mutable {
                    HttpConnection connection(device.port());
                    for (;; last = value, value += Writers) {
                        const QByteArray body = Device::setBody("demo:values/i64", QByteArray::number(value));
                        connection.send(device.requestOf({}, "/api/setData", body));
                        if (connection.readReply(2000).status != 200)
                            return;
                    }
                });
            QTRY_VERIFY(acknowledged[0] > 0);
            QTest::qWait(37 * round);
            device.stop(SIGKILL);
            for (std::thread& writer : writers)
                writer.join();
            QVERIFY(device.start());
            const int kept = device.value("demo:values/i64").toInt();
            QVERIFY2(kept >= first && kept >= acknowledged[kept % Writers], QByteArray::number(kept));
        }
    }

    void whatIsBeingWrittenIsAnsweredWhenItStops()
    {
        Device device;
        sqlite3* other = nullptr; // From here on the disk is slow.
        QCOMPARE(sqlite3_open(qPrintable(device.stateDirectory() + "/state.db"), &other), SQLITE_OK);
        QCOMPARE(sqlite3_exec(other, "BEGIN IMMEDIATE", nullptr, nullptr, nullptr), SQLITE_OK);
        Connections writers =
            device.connect(2, device.requestOf({}, "/api/setData", Device::setBody("demo:values/i64", "5")));
        QTest::qWait(100);
        const QDeadlineTimer limit(2000);
        ::kill(pid_t(device.pid()), SIGTERM);
        QVERIFY(!writers.front().hasData(200));
        sqlite3_close(other);
        for (HttpConnection& writer : writers)
            QCOMPARE(writer.readReply().status, 200);
        QCOMPARE(device.exitStatus(), 0);
        QVERIFY(!limit.hasExpired());
    }

    void aBusyPortIsNamedAndEndsTheHost()
    {
        // The later of two settings of one node holds.
        const QString port = QString::number(m_device.port());
        QTest::ignoreMessage(QtWarningMsg, QRegularExpression(QStringLiteral("did not start(.|\n)*") + port));
        Device second({ QStringLiteral("settings:webserver/port=") + port });
        QVERIFY(!second.isRunning());
        QCOMPARE(second.exitStatus(), 3);
    }

private:
    Device m_device;
};

QTEST_GUILESS_MAIN(DataApiTest)

#include "DataApiTest.moc"
