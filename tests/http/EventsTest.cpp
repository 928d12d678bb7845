#include <QCoreApplication>
#include <QTest>

#include <map>
#include <memory>

#include "EventClient.h"
#include "Namespace.h"
#include "Signer.h"

namespace {

const QByteArray Users = R"(settings:webserver/users=[{"name":"admin","password":"secret"}])";
const std::array<const char*, 4> Modes{ "off", "writes", "writesAndEvents", "everything" };
const std::array<const char*, 3> Credentials{ "none", "good", "wrong" };

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
    void failures_data()
    {
        QTest::addColumn<bool>("strict");
        QTest::addColumn<QByteArray>("method");
        QTest::addColumn<QByteArray>("target");
        QTest::addColumn<QByteArray>("body");
        QTest::addColumn<int>("status");
        QTest::addColumn<QByteArray>("text");
        const auto add = [](const char* name, const char* method, const QByteArray& target, const QByteArray& body,
                             int status, const char* text, bool strict = false) {
            QTest::newRow(name) << strict << QByteArray(method) << target << body << status << QByteArray(text);
        };
        add("operation in lower case", "GET", "modifyqueue", {}, 501, NotImplemented);
        add("no operation", "GET", "", {}, 501, NotImplemented);
        add("more behind the operation", "GET", "pollQueue/x", {}, 501, NotImplemented);
        add("modify by PUT", "PUT", "modifyQueue", "{}", 501, InvalidMethod);
        add("poll by DELETE", "DELETE", "pollQueue", {}, 501, NotImplemented);
        add("modify by GET, strict", "GET", "modifyQueue", {}, 501, InvalidMethod, true);
        add("poll by GET, strict", "GET", "pollQueue?queueId=x", {}, 400, "Unknown queue id!", true);
        add("modify with a form, strict", "POST", "modifyQueue", "subscribe=[]", 400, BadModify, true);
        add("poll with a form, strict", "POST", "pollQueue", "queueId=x", 400, BadPoll, true);
        for (const char* const operation : { "modifyQueue", "pollQueue" }) {
            const bool modify = operation[0] == 'm';
            const char* const text = modify ? BadModify : BadPoll;
            const auto bad = [&](const char* name, const char* method, const QByteArray& query,
                                 const QByteArray& body) {
                add(qPrintable(QString("%1: %2").arg(operation, name)), method, operation + query, body, 400, text);
            };
            bad("subscribe is no JSON", "GET", "?subscribe=[", {});
            bad("unsubscribe is no JSON", "GET", "?unsubscribe=nonsense", {});
            bad("subscribe is no list", "GET", "?subscribe=%7B%7D", {});
            bad("timeout is no number", "GET", "?timeout=abc", {});
            bad("timeout is empty", "GET", "?timeout=", {});
            bad("timeout does not fit", "GET", "?timeout=2147483648", {});
            bad("received is no number", "GET", "?received=1x", {});
            bad("body is no JSON", "POST", {}, "{\"subscribe\":");
            bad("body is a list", "POST", {}, "[]");
            bad("subscribe is an object", "POST", {}, R"({"subscribe":{"path":"a:b"}})");
            bad("timeout is a fraction", "POST", {}, R"({"timeout":4.7})");
            bad("timeout is null", "POST", {}, R"({"timeout":null})");
            add(qPrintable(QString("%1: unknown queue").arg(operation)), "POST", operation,
                R"({"queueId":"3f2b9c1e-0000-4000-8000-000000000000"})", 400, modify ? Refused : "Unknown queue id!");
        }
        add("subscription without a path", "POST", "modifyQueue", R"({"subscribe":[{}]})", 400, Refused);
        add("subscription to an invalid path", "POST", "modifyQueue", R"({"subscribe":[{"path":"a b"}]})", 400,
            Refused);
        add("subscription of an unknown type", "POST", "modifyQueue", R"({"subscribe":[{"path":"a:b","type":"x"}]})",
            400, Refused);
    }

    void failures()
    {
        QFETCH(bool, strict);
        QFETCH(QByteArray, method);
        QFETCH(QByteArray, target);
        QFETCH(QByteArray, body);
        QFETCH(int, status);
        QFETCH(QByteArray, text);
        Device& target_ = strict ? strictDevice() : device(1);
        const bool json = body.startsWith('{') || body.startsWith('[');
        const QByteArray type = json ? "application/json" : "application/x-www-form-urlencoded";
        const HttpReply reply = target_.request(method, "/api/event/" + target, { "Content-Type: " + type }, body);
        QCOMPARE(reply.status, status);
        QCOMPARE(reply.body, text);
        QCOMPARE(reply.header("Content-Type"), QByteArray("text/plain"));
        QCOMPARE(reply.header("X-Robots-Tag"), QByteArray("noindex"));
        QCOMPARE(reply.header("WWW-Authenticate"), QByteArray());
    }

    void requestsCanBeSentInMoreThanOneForm_data()
    {
        QTest::addColumn<QByteArray>("method");
        QTest::addColumn<QByteArray>("type");
        QTest::addColumn<QByteArray>("parameters");
        QTest::addColumn<bool>("subscribes");
        const QByteArray list = R"([{"path":"demo:volatile/counter"}])";
        const QByteArray encoded = "subscribe=" + list.toPercentEncoding();
        const QByteArray json = "{\"subscribe\":" + list + '}';
        QTest::newRow("query") << QByteArray("GET") << QByteArray() << encoded << true;
        QTest::newRow("JSON") << QByteArray("POST") << QByteArray("application/json; charset=utf-8") << json << true;
        QTest::newRow("form") << QByteArray("POST") << QByteArray("application/x-www-form-urlencoded") << encoded
                              << true;
        QTest::newRow("a type that is not read") << QByteArray("POST") << QByteArray("text/plain") << json << false;
        QTest::newRow("nothing") << QByteArray("POST") << QByteArray("application/json") << QByteArray() << false;
    }

    void requestsCanBeSentInMoreThanOneForm()
    {
        QFETCH(QByteArray, method);
        QFETCH(QByteArray, type);
        QFETCH(QByteArray, parameters);
        QFETCH(bool, subscribes);
        const bool get = method == "GET";
        const HttpReply reply =
            device(1).request(method, "/api/event/modifyQueue" + (get ? '?' + parameters : QByteArray()),
                { "Content-Type: " + type }, get ? QByteArray() : parameters);
        QCOMPARE(reply.header("Content-Type"), QByteArray("application/json"));
        const QByteArray queue = EventClient::idOf(reply);
        QVERIFY2(!queue.isEmpty(), reply.body.constData());
        EventClient client(&device(1));
        QCOMPARE(client.poll(queue), QJsonArray());
        QVERIFY(client.setCounter(++m_value));
        const HttpReply answer =
            device(1).postJson("/api/event/pollQueue", "{\"queueId\":\"" + queue + "\",\"timeout\":0}");
        QCOMPARE(answer.status, 200);
        QCOMPARE(answer.header("Content-Type"), QByteArray("application/json"));
        QCOMPARE(counterIn(answer.json().array()), subscribes ? m_value : -1);
        QCOMPARE(client.poll(queue), QJsonArray());
    }

    void legacyPaths_data()
    {
        QTest::addColumn<QByteArray>("subscribe");
        QTest::addColumn<QByteArray>("then"); // A second modifyQueue.
        QTest::addColumn<QStringList>("paths");
        const QByteArray old = R"([{"path":"/player/volume"}])";
        const QByteArray current = R"([{"path":"player:player/volume"}])";
        const QStringList once{ "player:player/volume" };
        const QStringList both{ "player:player/volume", "/player/volume" };
        QTest::newRow("current") << current << QByteArray() << once;
        QTest::newRow("legacy") << old << QByteArray() << both;
        QTest::newRow("legacy unsubscription marks nothing")
            << current << QByteArray(R"("unsubscribe":[{"path":"/player/mute"}])") << once;
        QTest::newRow("legacy unsubscription ends the current one")
            << current << QByteArray(R"("unsubscribe":)" + old) << QStringList();
        QTest::newRow("legacy subscription added later") << current << QByteArray(R"("subscribe":)" + old) << both;
        QTest::newRow("the mark stays") << old << "\"unsubscribe\":" + old + ",\"subscribe\":" + current << both;
    }

    void legacyPaths()
    {
        QFETCH(QByteArray, subscribe);
        QFETCH(QByteArray, then);
        QFETCH(QStringList, paths);
        EventClient client(&device(1));
        const QByteArray queue = client.subscribe(subscribe);
        if (!then.isEmpty())
            QCOMPARE(EventClient::idOf(
                         device(1).postJson("/api/event/modifyQueue", "{\"queueId\":\"" + queue + "\"," + then + '}')),
                queue);
        QVERIFY(client.set("player:player/volume", QByteArray::number(++m_value % 100)));
        QCOMPARE(summary(client.poll(queue)), paths);
    }

    void aMoveArrivesAsRemovalAndInsertion()
    {
        EventClient client(&device(1));
        const QByteArray queue = client.subscribe(R"([{"path":"/player/playlist","type":"rows"}])");
        QVERIFY(client.set("player:player/playlistInsert", R"({"index":2,"title":"New"})", "activate"));
        QVERIFY(client.set("player:player/playlistMove", R"({"index":2,"toIndex":5})", "activate"));
        QVERIFY(client.set("player:player/playlistRemove", R"({"index":5})", "activate"));
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

    void aPollEndsAtItsTimeout()
    {
        Device& target = device(1);
        const EventClient client(&target);
        const std::array<QByteArray, 4> timeouts{ "", "&timeout=-3", "&timeout=1", "&timeout=0" };
        const std::array<int, 4> expected{ 5000, 5000, 1000, 0 };
        std::vector<std::unique_ptr<HttpConnection>> connections;
        QElapsedTimer timer;
        timer.start();
        for (const QByteArray& timeout : timeouts) {
            connections.push_back(std::make_unique<HttpConnection>(target.port()));
            connections.back()->send(httpRequest(
                "GET", "/api/event/pollQueue?queueId=" + client.subscribeItem(Counter) + timeout, { "Host: x" }));
        }
        for (size_t i = timeouts.size(); i-- > 0;) {
            const int early = expected[i] - 100 - int(timer.elapsed());
            QVERIFY2(early <= 0 || !connections[i]->hasData(early), timeouts[i].constData());
            const HttpReply reply = connections[i]->readReply();
            QCOMPARE(reply.status, 200);
            QCOMPARE(reply.body, QByteArray("[]"));
            QVERIFY2(timer.elapsed() < expected[i] + 1000, timeouts[i].constData());
        }
    }

    void changingTheQueueDoesNotProlongItsPoll()
    {
        const EventClient client(&device(1));
        const QByteArray queue = client.subscribeItem(Counter);
        HttpConnection waiting(device(1).port());
        QElapsedTimer timer;
        timer.start();
        EventClient::startPoll(&waiting, queue, 2);
        QVERIFY(!waiting.hasData(1500));
        QCOMPARE(device(1).postJson("/api/event/modifyQueue", "{\"queueId\":\"" + queue + "\"}").status, 200);
        QCOMPARE(waiting.readReply().body, QByteArray("[]"));
        QVERIFY2(timer.elapsed() < 3000, qPrintable(QString::number(timer.elapsed())));
    }

    void ofTwoPollsTheEarlierIsAnsweredWithNothing()
    {
        EventClient client(&device(1));
        const QByteArray queue = client.subscribeItem(Counter);
        HttpConnection first(device(1).port());
        EventClient::startPoll(&first, queue);
        QVERIFY(!first.hasData(200));
        HttpConnection second(device(1).port());
        EventClient::startPoll(&second, queue);
        QCOMPARE(first.readReply().body, QByteArray("[]"));
        QVERIFY(!second.hasData(200));
        QVERIFY(client.setCounter(++m_value));
        QCOMPARE(counterIn(second.readReply().json().array()), m_value);
        QCOMPARE(client.poll(queue), QJsonArray());
    }

    void authorization_data()
    {
        QTest::addColumn<int>("mode");
        QTest::addColumn<int>("credentials");
        QTest::addColumn<bool>("remote");
        for (int mode = 0; mode < 4; ++mode)
            for (int credentials = 0; credentials < 3; ++credentials)
                for (const bool remote : { false, true })
                    QTest::addRow("%s, %s signature, %s", Modes[size_t(mode)], Credentials[size_t(credentials)],
                        remote ? "remote" : "local")
                        << mode << credentials << remote;
    }

    void authorization()
    {
        QFETCH(int, mode);
        QFETCH(int, credentials);
        QFETCH(bool, remote);
        Device& target = device(mode);
        for (const QByteArray path : { "demo:permissions/open", "demo:permissions/default",
                 "demo:permissions/protected", "demo:permissions/internal", "demo:nothing/here" }) {
            const bool open = path.endsWith("open");
            const bool allowed = credentials != 2 && (!remote || mode < 2 || credentials == 1 || open);
            const QByteArray list = "[{\"path\":\"" + path + "\"}]";
            const QByteArray queue = EventClient(&target).subscribe(list);
            for (const bool post : { false, true }) {
                for (const bool modify : { false, true }) {
                    const QByteArray operation = modify ? "modifyQueue" : "pollQueue";
                    const QByteArray query =
                        modify ? "subscribe=" + list.toPercentEncoding() : "timeout=0&queueId=" + queue;
                    const QByteArray body =
                        modify ? "{\"subscribe\":" + list + '}' : "{\"timeout\":0,\"queueId\":\"" + queue + "\"}";
                    const HttpReply reply = ask(target, remote, credentials,
                        "/api/event/" + operation + (post ? QByteArray() : '?' + query), post ? body : QByteArray());
                    const QByteArray what = operation + ' ' + path + (post ? " POST" : " GET");
                    QVERIFY2(reply.status == (allowed ? 200 : 401), what + ' ' + QByteArray::number(reply.status));
                    QCOMPARE(reply.header("WWW-Authenticate"),
                        allowed ? QByteArray() : QByteArray("HMAC_SHA256, HMAC_SHA256_AES256"));
                    if (!allowed)
                        QCOMPARE(reply.body, QByteArray("Forbidden"));
                    if (credentials == 2)
                        release(target);
                }
            }
        }
    }

    void internalNodesAreToldToLocalClientsOnly()
    {
        Device& target = device(0);
        EventClient client(&target);
        const QByteArray queue =
            client.subscribe(R"([{"path":"demo:permissions/internal"},{"path":"demo:permissions/default"}])");
        QVERIFY(client.set("demo:permissions/internal", QByteArray::number(++m_value)));
        QVERIFY(client.set("demo:permissions/default", QByteArray::number(++m_value)));
        for (const int credentials : { 0, 1 }) {
            const HttpReply reply = ask(target, true, credentials, EventClient::pollTarget(queue, 0), {});
            QCOMPARE(
                summary(reply.json().array()), credentials ? QStringList() : QStringList("demo:permissions/default"));
        }
        QCOMPARE(summary(client.poll(queue)), QStringList("demo:permissions/internal"));
    }

    void oneAddressHasABoundedNumberOfQueues()
    {
        Device target({ "settings:webserver/limits/queuesPerClient=2" });
        const auto make = [&](bool remote) {
            return ask(target, remote, 0, "/api/event/modifyQueue", "{}");
        };
        const QByteArray queue = EventClient::idOf(make(true));
        QCOMPARE(make(true).status, 200);
        const HttpReply refused = make(true);
        QCOMPARE(refused.status, 429);
        QCOMPARE(refused.body, QByteArray("Too many queues!"));
        QCOMPARE(ask(target, true, 0, "/api/event/modifyQueue", "{\"queueId\":\"" + queue + "\"}").status, 200);
        for (int i = 0; i < 4; ++i)
            QCOMPARE(make(false).status, 200);
    }

    // Setting the first password protects the command that set it.
    void accessFollowsTheNodesPermission()
    {
        Device target({ "settings:webserver/authMode=writesAndEvents" });
        const QByteArray list = R"([{"path":"settings:webserver/changePassword"}])";
        const HttpReply made = ask(target, true, 0, "/api/event/modifyQueue", "{\"subscribe\":" + list + '}');
        const QByteArray queue = EventClient::idOf(made);
        QVERIFY2(!queue.isEmpty(), made.body.constData());
        HttpConnection waiting(target.port(), RemoteAddress);
        EventClient::startPoll(&waiting, queue, 2);
        QVERIFY(!waiting.hasData(200));
        QVERIFY(EventClient(&target).set("settings:webserver/changePassword",
            R"({"name":"admin","oldPassword":"","newPassword":"secret"})", "activate"));
        QCOMPARE(waiting.readReply().body, QByteArray("[]")); // At its timeout.
        QCOMPARE(ask(target, true, 0, EventClient::pollTarget(queue, 0), {}).status, 401);
        const HttpReply reply = ask(target, true, 1, EventClient::pollTarget(queue, 0), {});
        QCOMPARE(summary(reply.json().array()), QStringList("settings:webserver/changePassword"));
    }

    void failuresAreHeldBackAndAVerifiedRequestReleasesThem()
    {
        Device& target = device(1);
        release(target);
        QElapsedTimer timer;
        timer.start();
        QCOMPARE(ask(target, false, 2, "/api/event/modifyQueue", "{}").status, 401);
        QVERIFY(timer.elapsed() < 900);
        HttpConnection second(target.port());
        const QByteArray queue = EventClient(&target).subscribeItem(Counter); // Others are not held up.
        sendTo(&second, target, false, 2, EventClient::pollTarget(queue, 0), {});
        QVERIFY(!second.hasData(900));
        QCOMPARE(second.readReply().status, 401);
        QVERIFY2(timer.elapsed() >= 1000 && timer.elapsed() < 5000, qPrintable(QString::number(timer.elapsed())));
        QCOMPARE(ask(target, false, 1, EventClient::pollTarget(queue, 0), {}).status, 200);
        timer.restart();
        QCOMPARE(ask(target, false, 2, "/api/event/modifyQueue", "{}").status, 401);
        QVERIFY(timer.elapsed() < 900);
        release(target);
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
    Device& strictDevice()
    {
        auto& entry = m_devices[-1];
        if (!entry)
            entry = std::make_unique<Device>(QStringList{ "settings:webserver/strict=true" });
        return *entry;
    }

    /// POST with a body, GET without; `credentials` as the names above.
    static void sendTo(HttpConnection* connection, const Device& target, bool remote, int credentials,
        const QByteArray& path, const QByteArray& body)
    {
        const QByteArray host = (remote ? RemoteAddress : "127.0.0.1") + (':' + QByteArray::number(target.port()));
        const QByteArray uri = "http://" + host + path;
        const Signer signer("admin", credentials == 1 ? "secret" : "wrong");
        QList<QByteArray> headers{ "Host: " + host, "Content-Type: application/json" };
        if (credentials != 0)
            headers.append(body.isEmpty() ? signer.forGet(uri) : signer.forPost(uri, body));
        connection->send(httpRequest(body.isEmpty() ? "GET" : "POST", path, headers, body));
    }
    static HttpReply ask(
        const Device& target, bool remote, int credentials, const QByteArray& path, const QByteArray& body)
    {
        HttpConnection connection(target.port(), remote ? RemoteAddress : "127.0.0.1");
        sendTo(&connection, target, remote, credentials, path, body);
        return connection.readReply();
    }
    // A verified request takes the brake off.
    static void release(const Device& target)
    {
        QCOMPARE(ask(target, false, 1, "/api/event/modifyQueue", "{}").status, 200);
    }

    std::map<int, std::unique_ptr<Device>> m_devices;
    int m_value = 0;
};

int main(int argc, char** argv)
{
    if (!enterNetworkNamespace())
        return 1;
    QCoreApplication application(argc, argv);
    EventsTest test;
    return QTest::qExec(&test, argc, argv);
}

#include "EventsTest.moc"
