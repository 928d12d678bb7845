#include <QtTest>

#include <atomic>
#include <csignal>
#include <optional>
#include <thread>

#include "EventClient.h"
#include "Rows.h"

namespace {

const QByteArray Playlist = "player:player/playlist";

/// One client's connection, opened anew when it was cut off.
class Session {
public:
    explicit Session(int port) : m_port(port) { }

    HttpConnection& connection()
    {
        if (!m_connection)
            m_connection.emplace(m_port);
        return *m_connection;
    }
    void send(const QByteArray& target, bool keepAlive = true)
    {
        connection().send(httpRequest("GET", target, { "Host: x", keepAlive ? "X: x" : "Connection: close" }));
    }
    QJsonDocument get(const QByteArray& target)
    {
        send(target);
        return connection().readReply().json();
    }
    void cut() { m_connection.reset(); }

private:
    int m_port;
    std::optional<HttpConnection> m_connection;
};

/// A copy of the playlist's titles, kept as CMEventQueue tells. Invalid rows are known to be there and not read yet.
class ListMirror {
public:
    explicit ListMirror(int port) : m_reader(port) { }

    void readAll()
    {
        const QJsonObject reply = rows(0, 100000, 0);
        m_rows = reply.value("rows").toArray().toVariantList();
        m_version = reply.value("rowsVersion").toDouble();
    }

    void receive(const QJsonArray& events)
    {
        for (const QJsonValue event : events) {
            const QJsonArray changes = event.toObject().value("rowsEvents").toArray();
            const QJsonArray versions = event.toObject().value("rowsVersions").toArray();
            for (int i = 0; i < changes.size(); ++i) {
                if (versions.at(i).toDouble() > m_version)
                    apply(changes.at(i).toObject());
            }
            m_version = qMax(m_version, event.toObject().value("rowsVersion").toDouble());
        }
    }

    void apply(const QJsonObject& change)
    {
        const int index = change.value("index").toInt();
        switch (change.value("type").toInt()) {
        case 0:
            return readAll();
        case 1:
            return m_rows.insert(index, QVariant());
        case 2:
            return m_rows.removeAt(index);
        default:
            m_rows[index] = QVariant();
        }
    }

    bool readUnread()
    {
        for (int i = 0; i < m_rows.size(); ++i) {
            if (m_rows.at(i).isValid())
                continue;
            const QJsonArray row = rows(i, i, qint64(m_version)).value("rows").toArray();
            if (row.isEmpty())
                return false; // Outdated: there are more events.
            m_rows[i] = row.at(0).toVariant();
        }
        return true;
    }

    const QVariantList& titles() const { return m_rows; }

private:
    QJsonObject rows(int from, int to, qint64 version)
    {
        return m_reader
            .get("/api/getRows?roles=title&path=" + Playlist + "&from=" + QByteArray::number(from)
                + "&to=" + QByteArray::number(to) + "&version=" + QByteArray::number(version))
            .object();
    }

    Session m_reader;
    QVariantList m_rows;
    double m_version = 0; // Below 2^53.
};

/// Changes the playlist at random, a thousand times a second, until told to stop.
class Changer {
public:
    explicit Changer(int port) : m_thread([this, port] { change(port); }) { }
    ~Changer() { finish(); }
    void finish()
    {
        m_stop = true;
        if (m_thread.joinable())
            m_thread.join();
    }
    int count() const { return m_count; }

private:
    void change(int port)
    {
        HttpConnection connection(port);
        QRandomGenerator random(7);
        QElapsedTimer timer;
        timer.start();
        for (int rows = 500; !m_stop; ++m_count) {
            if (m_count > timer.elapsed())
                QThread::msleep(1);
            const QByteArray index = QByteArray::number(random.bounded(400));
            const QByteArray toIndex = QByteArray::number(random.bounded(400));
            const int kind = rows > 520 ? 1 : rows < 480 ? 0 : random.bounded(3);
            rows += kind == 0 ? 1 : kind == 1 ? -1 : 0;
            const char* const commands[] = { "Insert", "Remove", "Move" };
            const QByteArray more[] = { ",\"title\":\"T" + QByteArray::number(m_count) + '"', {},
                ",\"toIndex\":" + toIndex };
            const QByteArray body =
                Device::setBody(Playlist + commands[kind], "{\"index\":" + index + more[kind] + '}', "activate");
            connection.send(httpRequest("POST", "/api/setData", { "Host: x", "Content-Type: application/json" }, body));
            if (connection.readReply().status != 200)
                return;
        }
    }

    std::atomic<bool> m_stop{ false };
    std::atomic<int> m_count{ 0 };
    std::thread m_thread;
};

} // namespace

class EventDeliveryTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void anAnswerThatWasNotReadIsKept()
    {
        Rows<bool, bool, int> row;
        const char* const leaving[] = { " just before the change", " before", " unread" };
        for (const bool keepAlive : { true, false })
            for (const bool reset : { false, true })
                for (const int leaves : { 0, 1, 2 })
                    row(QByteArray(keepAlive ? "keep-alive" : "close") + (reset ? ", reset" : ", closed")
                            + leaving[leaves],
                        keepAlive, reset, leaves);
        row("keep-alive, closed unread after 3.5 s", true, false, 3);
        for (const auto& [keepAlive, reset, leaves] : row) {
            const QByteArray queue = m_client.subscribeItem(Counter);
            Session leaver(m_device.port());
            leaver.send(EventClient::pollTarget(queue, 30), keepAlive);
            QVERIFY(!leaver.connection().hasData(100));
            if (leaves >= 2) {
                QVERIFY(m_client.setCounter(++m_value));
                QVERIFY(leaver.connection().hasData(1000));
            }
            if (leaves == 3)
                QTest::qWait(3500);
            if (reset)
                leaver.connection().reset();
            leaver.cut();
            if (leaves == 1)
                QTest::qWait(900);
            if (leaves < 2)
                QVERIFY(m_client.setCounter(++m_value));
            QCOMPARE(counterIn(m_client.poll(queue, 2)), m_value);
            QCOMPARE(m_client.poll(queue), QJsonArray());
        }
    }

    void anAnswerOnTheWayIsKept()
    {
        Rows<int, bool> row;
        for (const int gap : { 0, 50, 200, 350, 600 })
            for (const bool closes : { false, true })
                row(QByteArray::number(gap) + (closes ? " ms, closed" : " ms, open"), gap, closes);
        for (const auto& [gap, closes] : row) {
            const QByteArray queue = m_client.subscribeItem(Counter);
            Session leaver(m_device.port());
            leaver.send(EventClient::pollTarget(queue, 30));
            QVERIFY(!leaver.connection().hasData(100));
            QVERIFY(leaver.connection().holdBack(true));
            QVERIFY(m_client.setCounter(++m_value));
            QTest::qWait(gap);
            if (closes)
                leaver.cut();
            QCOMPARE(counterIn(m_client.poll(queue, 2)), m_value);
            QCOMPARE(m_client.poll(queue), QJsonArray());
        }
    }

    void anAnswerThatWasReadIsNotToldAgain()
    {
        Rows<bool, bool, QByteArray> row;
        row("same connection", true, true, {});
        row("another connection, the first open", true, false, {});
        row("another connection, the first closed", false, false, {});
        const auto add = [&](const char* name, const QByteArray& more) {
            row(name, true, false, more);
        };
        add("a stray line end", "\r\n");
        add("a request that is cut off", "GET /api/get");
        add("a poll that is given up", httpRequest("GET", EventClient::pollTarget("x", 30), { "Host: x" }));
        add("a download that is given up",
            httpRequest("GET", "/api/getRows?roles=title&path=demo:lists/large&from=0&to=9999", { "Host: x" }));
        for (const auto& [keepAlive, samePoller, more] : row) {
            const QByteArray queue = m_client.subscribeItem(Counter);
            Session first(m_device.port());
            Session second(m_device.port());
            for (int i = 0; i < (more.isNull() ? 100 : 12); ++i) {
                QVERIFY(m_client.setCounter(++m_value));
                first.send(EventClient::pollTarget(queue, 30), keepAlive);
                QCOMPARE(counterIn(first.connection().readReply().json().array()), m_value);
                if (!keepAlive)
                    QVERIFY(first.connection().isClosedWithin(1000));
                if (!more.isNull()) {
                    first.connection().send(more);
                    first.connection().hasData(i % 2 * 20);
                    first.connection().reset();
                }
                if (!keepAlive || !more.isNull())
                    first.cut();
                Session& next = samePoller ? first : second;
                QCOMPARE(next.get(EventClient::pollTarget(queue, 0)).array(), QJsonArray());
            }
        }
    }

    // The device reads the newer request first: the stopped one finds both.
    void aPollWhoseClientAsksElsewhereComesTooLate()
    {
        const QByteArray queue = m_client.subscribeItem(Counter);
        for (int i = 0; i < 5; ++i) {
            Session first(m_device.port());
            Session second(m_device.port());
            QCOMPARE(first.get(EventClient::pollTarget(queue, 0)).array(), QJsonArray());
            QVERIFY(m_client.setCounter(++m_value));
            ::kill(pid_t(m_device.pid()), SIGSTOP);
            first.send(EventClient::pollTarget(queue, 30));
            first.connection().reset();
            second.send(EventClient::pollTarget(queue, 30));
            ::kill(pid_t(m_device.pid()), SIGCONT);
            QCOMPARE(counterIn(second.connection().readReply().json().array()), m_value);
            QCOMPARE(second.get(EventClient::pollTarget(queue, 0)).array(), QJsonArray());
        }
    }

    // With the client's sending side closed on a slow way, and with a server that closes connections soon.
    void theEndOfAConnectionIsNoLoss()
    {
        Device device({ "settings:webserver/limits/idleSeconds=1" });
        const EventClient client(&device);
        const QByteArray queue = client.subscribeItem(Counter);
        for (const bool halfClosed : { true, false }) {
            HttpConnection poller(device.port());
            EventClient::startPoll(&poller, queue);
            if (halfClosed)
                poller.shutDownSending();
            QVERIFY(!poller.hasData(50));
            QVERIFY(poller.holdBack(true));
            QVERIFY(client.setCounter(++m_value));
            QTest::qWait(50);
            QVERIFY(poller.holdBack(false));
            QCOMPARE(counterIn(poller.readReply().json().array()), m_value);
            QVERIFY(poller.isClosedWithin(3000));
            QCOMPARE(client.poll(queue), QJsonArray());
        }
    }

    void oneConnectionThatPollsManyQueuesHoldsOneDescriptor()
    {
        QList<QByteArray> queues;
        for (int i = 0; i < 100; ++i)
            queues.append(m_client.subscribeItem(Counter));
        QVERIFY(m_client.setCounter(++m_value));
        Session poller(m_device.port());
        poller.connection();
        const int before = m_device.descriptors();
        for (const QByteArray& queue : queues)
            QCOMPARE(counterIn(poller.get(EventClient::pollTarget(queue, 0)).array()), m_value);
        QVERIFY(m_device.descriptors() <= before + 2);
    }

    // Whatever the connection says, the count decides.
    void aCountOfAnswersDecides()
    {
        const QByteArray queue = m_client.subscribeItem(Counter);
        QVERIFY(m_client.setCounter(++m_value));
        for (const int received : { 0, 0, 0 })
            QCOMPARE(counterIn(m_client.poll(queue, 0, "&received=" + QByteArray::number(received))), m_value);
        QCOMPARE(m_client.poll(queue, 0, "&received=1"), QJsonArray());
    }

    void aListIsMirroredWhilePollsAreCutOff()
    {
        Rows<bool, bool> row;
        row("plain client", false, true);
        row("plain client, a connection for each poll", false, false);
        row("counting client", true, true);
        for (const auto& [counts, keepAlive] : row) {
            const QByteArray queue = m_client.subscribe("[{\"path\":\"" + Playlist + "\",\"type\":\"rows\"}]");
            Changer changer(m_device.port());
            ListMirror mirror(m_device.port());
            mirror.readAll();
            Session poller(m_device.port());
            QRandomGenerator random(counts ? 3 : 4);
            int received = 0;
            int cuts = 0;
            const auto target = [&](int timeout) {
                return EventClient::pollTarget(queue, timeout)
                    + (counts ? "&received=" + QByteArray::number(received) : QByteArray());
            };
            const auto receive = [&] {
                const QJsonArray events = poller.connection().readReply().json().array();
                mirror.receive(events);
                received += events.isEmpty() ? 0 : 1;
                if (!keepAlive)
                    poller.cut();
                return events;
            };
            const QDeadlineTimer limit(2500);
            while (!limit.hasExpired()) {
                poller.send(target(10), keepAlive);
                if (random.bounded(3) == 0) {
                    QThread::usleep(ulong(random.bounded(4000)));
                    if (random.bounded(2) == 0)
                        poller.connection().reset();
                    poller.cut();
                    ++cuts;
                    continue;
                }
                receive(); // Empty when the server sees a poll that was cut off later than this one.
                if (random.bounded(20) == 0)
                    mirror.readAll();
            }
            changer.finish();
            do {
                poller.send(target(0), keepAlive);
            } while (!receive().isEmpty());
            QVERIFY(mirror.readUnread());
            ListMirror truth(m_device.port());
            truth.readAll();
            QVERIFY(changer.count() > 200 && cuts > 50);
            QCOMPARE(mirror.titles(), truth.titles());
        }
    }

    void aThousandPollsSeeOneChangeAndTheShutdown()
    {
        Device device; // With the default limits.
        const EventClient client(&device);
        Connections pollers;
        QList<QByteArray> queues;
        for (int i = 0; i < 1000; ++i) {
            queues.append(client.subscribeItem(Counter));
            QVERIFY(!queues.last().isEmpty());
            pollers.push_back(device.connect(httpRequest("GET", EventClient::pollTarget(queues.last(), 60))));
        }
        QVERIFY(client.setCounter(++m_value));
        for (int i = 0; i < 1000; ++i) {
            QCOMPARE(counterIn(pollers[size_t(i)].readReply().json().array()), m_value);
            if (i < 300)
                EventClient::startPoll(&pollers[size_t(i)], queues.at(i), 60);
        }
        while (pollers.size() > 300)
            pollers.pop_back();
        QVERIFY(!pollers.back().hasData(100));
        const QDeadlineTimer limit(2000);
        QCOMPARE(device.stop(SIGTERM), 0);
        QVERIFY(!limit.hasExpired());
        for (HttpConnection& poller : pollers)
            QCOMPARE(poller.readReply(100).body, QByteArray("[]"));
    }

private:
    Device m_device;
    EventClient m_client{ &m_device };
    int m_value = 0;
};

QTEST_GUILESS_MAIN(EventDeliveryTest)
#include "EventDeliveryTest.moc"
