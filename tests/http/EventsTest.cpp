#include <QtTest>

#include <map>
#include <memory>

#include "EventClient.h"
#include "Namespace.h"
#include "Rows.h"

namespace {

const char* const Password = "secret";
const char* const Modes[] = { "off", "writes", "writesAndEvents", "everything" };
const Client Remote{ RemoteAddress, {} };

const char* const NotImplemented = "Not implemented!";
const char* const InvalidMethod = "Invalid method";
const char* const BadModify = "Unable to parse data!";
const char* const BadPoll = "Unable to parse subscribe/unsubscribe list!";
const char* const Refused = "Unable to subscribe or unsubscribe paths!";

/// "path" or "path:rows 2@4 1@0" for each event.
QStringList summary(const QJsonArray& events)
{
    QStringList list;
    for (const QJsonValue value : events) {
        const QJsonObject event = value.toObject();
        QString text = event.value("path").toString();
        for (const QJsonValue row : event.value("rowsEvents").toArray())
            text += QStringLiteral(" %1@%2")
                        .arg(row.toObject().value("type").toInt())
                        .arg(row.toObject().value("index").toInt());
        list.append(text);
    }
    return list;
}

} // namespace

class EventsTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void failures()
    {
        Rows<bool, QByteArray, QByteArray, QByteArray, int, QByteArray> row;
        const auto add = [&](const char* name, const char* method, const QByteArray& target, const QByteArray& body,
                             int status, const char* text, bool strict = false) {
            row(name, strict, method, target, body, status, text);
        };
        add("no operation", "GET", "", {}, 501, NotImplemented);
        add("more behind the operation", "GET", "pollQueue/x", {}, 501, NotImplemented);
        add("modify by PUT", "PUT", "modifyQueue", "{}", 501, InvalidMethod);
        add("modify by GET, strict", "GET", "modifyQueue", {}, 501, InvalidMethod, true);
        add("poll by GET, strict", "GET", "pollQueue?queueId=x", {}, 400, "Unknown queue id!", true);
        add("modify with a form, strict", "POST", "modifyQueue", "subscribe=[]", 400, BadModify, true);
        add("poll with a form, strict", "POST", "pollQueue", "queueId=x", 400, BadPoll, true);
        for (const char* const operation : { "modifyQueue", "pollQueue" }) {
            const char* const text = operation[0] == 'm' ? BadModify : BadPoll;
            const auto bad = [&](const char* name, const char* method, const QByteArray& query,
                                 const QByteArray& body) {
                add(qPrintable(QString("%1: %2").arg(operation, name)), method, operation + query, body, 400, text);
            };
            bad("subscribe is no JSON", "GET", "?subscribe=[", {});
            bad("subscribe is no list", "GET", "?subscribe=%7B%7D", {});
            bad("timeout is no number", "GET", "?timeout=abc", {});
            bad("body is no JSON", "POST", {}, "{\"subscribe\":");
            bad("subscribe is an object", "POST", {}, R"({"subscribe":{"path":"a:b"}})");
        }
        add("subscription of an unknown type", "POST", "modifyQueue", R"({"subscribe":[{"path":"a:b","type":"x"}]})",
            400, Refused);
        for (const auto& [strict, method, target, body, status, text] : row) {
            const Device& target_ = strict ? strictDevice() : device(1);
            const bool json = body.startsWith('{') || body.startsWith('[');
            const QByteArray type = json ? "application/json" : "application/x-www-form-urlencoded";
            const HttpReply reply = target_.request(method, "/api/event/" + target, { "Content-Type: " + type }, body);
            QCOMPARE(reply.status, status);
            QCOMPARE(reply.body, text);
            QCOMPARE(reply.header("Content-Type"), QByteArray("text/plain"));
            QCOMPARE(reply.header("X-Robots-Tag"), QByteArray("noindex"));
            QCOMPARE(reply.header("WWW-Authenticate"), QByteArray());
        }
    }

    void requestsCanBeSentInMoreThanOneForm()
    {
        Rows<QByteArray, QByteArray, QByteArray, bool> row;
        const QByteArray list = R"([{"path":"demo:volatile/counter"}])";
        const QByteArray encoded = "subscribe=" + list.toPercentEncoding();
        const QByteArray json = "{\"subscribe\":" + list + '}';
        row("query", "GET", {}, encoded, true);
        row("JSON", "POST", "application/json; charset=utf-8", json, true);
        row("form", "POST", "application/x-www-form-urlencoded", encoded, true);
        row("a type that is not read", "POST", "text/plain", json, false);
        row("nothing", "POST", "application/json", {}, false);
        for (const auto& [method, type, parameters, subscribes] : row) {
            const bool get = method == "GET";
            const HttpReply reply =
                device(1).request(method, "/api/event/modifyQueue" + (get ? '?' + parameters : QByteArray()),
                    { "Content-Type: " + type }, get ? QByteArray() : parameters);
            QCOMPARE(reply.header("Content-Type"), QByteArray("application/json"));
            const QByteArray queue = EventClient::idOf(reply);
            QVERIFY2(!queue.isEmpty(), reply.body.constData());
            const EventClient client(&device(1));
            QCOMPARE(client.poll(queue), QJsonArray());
            QVERIFY(client.setCounter(++m_value));
            const HttpReply answer =
                device(1).postJson("/api/event/pollQueue", "{\"queueId\":\"" + queue + "\",\"timeout\":0}");
            QCOMPARE(answer.header("Content-Type"), QByteArray("application/json"));
            QCOMPARE(counterIn(answer.json().array()), subscribes ? m_value : -1);
        }
    }

    void legacyPaths()
    {
        Rows<QByteArray, QByteArray, QStringList> row;
        const QByteArray old = R"([{"path":"/player/volume"}])";
        const QByteArray current = R"([{"path":"player:player/volume"}])";
        const QStringList once{ "player:player/volume" };
        const QStringList both{ "player:player/volume", "/player/volume" };
        row("current", current, {}, once);
        row("legacy", old, {}, both);
        row("legacy unsubscription marks nothing", current, QByteArray(R"("unsubscribe":[{"path":"/player/mute"}])"),
            once);
        row("legacy unsubscription ends the current one", current, QByteArray(R"("unsubscribe":)" + old),
            QStringList());
        row("legacy subscription added later", current, QByteArray(R"("subscribe":)" + old), both);
        row("the mark stays", old, "\"unsubscribe\":" + old + ",\"subscribe\":" + current, both);
        for (const auto& [subscribe, then, paths] : row) {
            EventClient client(&device(1));
            const QByteArray queue = client.subscribe(subscribe);
            if (!then.isEmpty())
                QCOMPARE(EventClient::idOf(device(1).postJson(
                             "/api/event/modifyQueue", "{\"queueId\":\"" + queue + "\"," + then + '}')),
                    queue);
            QCOMPARE(device(1).set("player:player/volume", QByteArray::number(++m_value % 100)), 200);
            QCOMPARE(summary(client.poll(queue)), paths);
        }
    }

    void aMoveArrivesAsRemovalAndInsertion()
    {
        EventClient client(&device(1));
        const QByteArray queue = client.subscribe(R"([{"path":"/player/playlist","type":"rows"}])");
        QCOMPARE(device(1).set("player:player/playlistInsert", R"({"index":2,"title":"New"})", "activate"), 200);
        QCOMPARE(device(1).set("player:player/playlistMove", R"({"index":2,"toIndex":5})", "activate"), 200);
        QCOMPARE(device(1).set("player:player/playlistRemove", R"({"index":5})", "activate"), 200);
        const QJsonArray events = client.poll(queue);
        QCOMPARE(summary(events),
            QStringList({ "player:player/playlist 1@2 2@2 1@5 2@5", "/player/playlist 1@2 2@2 1@5 2@5" }));
        const QJsonObject event = events.at(0).toObject();
        QVERIFY(!event.value("rowsEvents").toArray().at(2).toObject().contains("toIndex"));
        const QJsonArray versions = event.value("rowsVersions").toArray();
        QCOMPARE(versions.size(), 4);
        QCOMPARE(versions.at(1), versions.at(2));
        QVERIFY(versions.at(0).toDouble() < versions.at(1).toDouble());
        QCOMPARE(versions.at(3), event.value("rowsVersion"));
    }

    void aPollWithoutATimeoutEndsAfterFiveSeconds()
    {
        const EventClient client(&device(1));
        const QByteArray poll = "/api/event/pollQueue?queueId=" + client.subscribeItem(Counter);
        const QByteArray another = "/api/event/pollQueue?timeout=-3&queueId=" + client.subscribeItem(Counter);
        HttpConnection silent = device(1).connect(httpRequest("GET", poll));
        HttpConnection negative = device(1).connect(httpRequest("GET", another));
        QVERIFY(!silent.hasData(4700) && !negative.hasData(0));
        QCOMPARE(silent.readReply(1300).body, QByteArray("[]"));
        QCOMPARE(negative.readReply(1000).body, QByteArray("[]"));
    }

    void authorization()
    {
        Rows<int, QByteArray, const char*> row;
        for (int mode = 0; mode < 4; ++mode)
            for (const char* password : { "", Password, "wrong" })
                for (const char* address : { "127.0.0.1", RemoteAddress })
                    row(QByteArray(Modes[mode]) + " by \"" + password + "\" from " + address, mode, password, address);
        for (const auto& [mode, password, address] : row) {
            const Device& target = device(mode);
            const Client client{ address, password.isEmpty() ? QByteArray() : password };
            for (const QByteArray path : { "demo:permissions/open", "demo:permissions/default",
                     "demo:permissions/protected", "demo:permissions/internal", "demo:nothing/here" }) {
                const bool allowed = password != "wrong"
                    && (address != RemoteAddress || mode < 2 || password == Password || path.endsWith("open"));
                const QByteArray list = "[{\"path\":\"" + path + "\"}]";
                const QByteArray queue = EventClient(&target).subscribe(list);
                const std::pair<QByteArray, QByteArray> requests[] = {
                    { "modifyQueue?subscribe=" + list.toPercentEncoding(), {} },
                    { "modifyQueue", "{\"subscribe\":" + list + '}' },
                    { "pollQueue?timeout=0&queueId=" + queue, {} },
                    { "pollQueue", "{\"timeout\":0,\"queueId\":\"" + queue + "\"}" },
                };
                for (const auto& request : requests) {
                    const HttpReply reply = target.ask(client, "/api/event/" + request.first, request.second);
                    QVERIFY2(reply.status == (allowed ? 200 : 401), path + ' ' + request.first);
                    QCOMPARE(
                        reply.header("WWW-Authenticate"), QByteArray(allowed ? "" : "HMAC_SHA256, HMAC_SHA256_AES256"));
                    QVERIFY(allowed || reply.body == "Forbidden");
                    if (password == "wrong")
                        release(target);
                }
            }
        }
    }

    void internalNodesAreToldToLocalClientsOnly()
    {
        const Device& target = device(0);
        EventClient client(&target);
        const QByteArray queue =
            client.subscribe(R"([{"path":"demo:permissions/internal"},{"path":"demo:permissions/default"}])");
        QCOMPARE(target.set("demo:permissions/internal", QByteArray::number(++m_value)), 200);
        QCOMPARE(target.set("demo:permissions/default", QByteArray::number(++m_value)), 200);
        const QByteArray poll = EventClient::pollTarget(queue, 0);
        QCOMPARE(summary(target.ask(Remote, poll).json().array()), QStringList("demo:permissions/default"));
        QCOMPARE(target.ask({ RemoteAddress, Password }, poll).body, QByteArray("[]"));
        QCOMPARE(summary(client.poll(queue)), QStringList("demo:permissions/internal"));
    }

    void oneAddressHasABoundedNumberOfQueues()
    {
        Device target({ "settings:webserver/limits/queuesPerClient=2" });
        const auto make = [&](bool remote) {
            return target.ask(remote ? Remote : Client(), "/api/event/modifyQueue", "{}");
        };
        const QByteArray queue = EventClient::idOf(make(true));
        QCOMPARE(make(true).status, 200);
        const HttpReply refused = make(true);
        QCOMPARE(refused.status, 429);
        QCOMPARE(refused.body, QByteArray("Too many queues!"));
        QCOMPARE(target.ask(Remote, "/api/event/modifyQueue", "{\"queueId\":\"" + queue + "\"}").status, 200);
        for (int i = 0; i < 4; ++i)
            QCOMPARE(make(false).status, 200);
    }

    // Setting the first password protects the command that set it.
    void accessFollowsTheNodesPermission()
    {
        Device target({ "settings:webserver/authMode=writesAndEvents" });
        const QByteArray list = R"([{"path":"settings:webserver/changePassword"}])";
        const HttpReply made = target.ask(Remote, "/api/event/modifyQueue", "{\"subscribe\":" + list + '}');
        const QByteArray queue = EventClient::idOf(made);
        QVERIFY2(!queue.isEmpty(), made.body.constData());
        HttpConnection waiting(target.port(), RemoteAddress);
        EventClient::startPoll(&waiting, queue, 2);
        QVERIFY(!waiting.hasData(200));
        QCOMPARE(target.set("settings:webserver/changePassword",
                     R"({"name":"admin","oldPassword":"","newPassword":"secret"})", "activate"),
            200);
        QCOMPARE(waiting.readReply().body, QByteArray("[]")); // At its timeout.
        QCOMPARE(target.ask(Remote, EventClient::pollTarget(queue, 0)).status, 401);
        const HttpReply reply = target.ask({ RemoteAddress, Password }, EventClient::pollTarget(queue, 0));
        QCOMPARE(summary(reply.json().array()), QStringList("settings:webserver/changePassword"));
    }

    // As those of the data API, and together with them.
    void failuresAreHeldBack()
    {
        const Device& target = device(1);
        release(target);
        const Client wrong{ "127.0.0.1", "wrong" };
        QCOMPARE(target.ask(wrong, "/api/event/modifyQueue", "{}").status, 401);
        HttpConnection second = target.connect(target.requestOf(wrong, "/api/event/modifyQueue", "{}"));
        QVERIFY(!second.hasData(900));
        QCOMPARE(second.readReply().status, 401);
        release(target);
    }

private:
    const Device& device(int mode)
    {
        return device(mode,
            { R"(settings:webserver/users=[{"name":"admin","password":"secret"}])",
                QStringLiteral("settings:webserver/authMode=") + Modes[mode] });
    }
    const Device& strictDevice() { return device(-1, { "settings:webserver/strict=true" }); }
    const Device& device(int key, const QStringList& settings)
    {
        auto& entry = m_devices[key];
        if (!entry)
            entry = std::make_unique<Device>(settings);
        return *entry;
    }
    // A verified request takes the brake off.
    static void release(const Device& target)
    {
        QCOMPARE(target.ask({ "127.0.0.1", Password }, "/api/event/modifyQueue", "{}").status, 200);
    }

    std::map<int, std::unique_ptr<Device>> m_devices;
    int m_value = 0;
};

NAMESPACE_TEST_MAIN(EventsTest)

#include "EventsTest.moc"
