#include <QtTest>

#include <memory>

#include <csignal>
#include <sys/resource.h>
#include <thread>

#include "Device.h"
#include "Rows.h"

namespace {

const QByteArray Counter = "/api/getData?path=demo:volatile/counter&roles=value";

// A body that would be taken, in one chunk.
QByteArray chunkedWrite()
{
    const QByteArray body = R"({"path":"demo:volatile/counter","role":"value","value":1})";
    return QByteArray::number(body.size(), 16) + "\r\n" + body + "\r\n";
}

QByteArray fieldLines(int count)
{
    QByteArray lines;
    for (int i = 0; i < count; ++i)
        lines += "X-Field-" + QByteArray::number(i) + ": 1\r\n";
    return lines;
}

} // namespace

class GuardTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void initTestCase()
    {
        m_device = std::make_unique<Device>(QStringList{ "settings:webserver/limits/headerSeconds=1",
            "settings:webserver/limits/bodySeconds=2", "settings:webserver/limits/idleSeconds=2",
            "settings:webserver/limits/connections=60", "settings:webserver/limits/bodyBytes=4096" });
    }

    void cleanup() { QCOMPARE(m_device->get(Counter).status, 200); }

    void cleanupTestCase() { QCOMPARE(m_device->stop(SIGTERM), 0); }

    void heads()
    {
        Rows<QByteArray, int, bool> row;
        const QByteArray get = "GET " + Counter + " HTTP/1.1\r\n";
        const QByteArray post = "POST /api/setData HTTP/1.1\r\nHost: x\r\nContent-Type: application/json\r\n";
        row("well-formed", get + "Host: x\r\n\r\n", 200, false);
        row("from another page's script", get + "Host: x\r\nOrigin: http://evil.example\r\n\r\n", 200, false);
        row("that asks before",
            "OPTIONS /api/setData HTTP/1.1\r\nHost: x\r\nOrigin: http://evil.example\r\n"
            "Access-Control-Request-Method: POST\r\n\r\n",
            405, false);
        row("absolute form", "GET http://x" + Counter + " HTTP/1.1\r\nHost: x\r\n\r\n", 200, false);
        row("HTTP/1.0 without Host, with a query and dot segments", "GET /x/%2e%2e" + Counter + " HTTP/1.0\r\n\r\n",
            200, true);
        row("a range on what is no file", get + "Host: x\r\nRange: bytes=0-9999999\r\n\r\n", 200, false);
        row("CONNECT with a broken authority", "CONNECT [ HTTP/1.1\r\n\r\n", 400, true);
        row("CONNECT with a broken port", "CONNECT h:x HTTP/1.1\r\n\r\n", 400, true);
        row("CONNECT", "CONNECT h:80 HTTP/1.1\r\nHost: h\r\n\r\n", 400, true);
        row("CONNECT with too many fields", "CONNECT [ HTTP/1.1\r\nHost: x\r\n" + fieldLines(100) + "\r\n", 400, true);
        row("two Host", get + "Host: x\r\nHost: y\r\n\r\n", 400, true);
        row("no Host", get + "\r\n", 400, true);
        row("Host with a query", get + "Host: evil?x=\r\n\r\n", 400, true);
        row("Host with a fragment", get + "Host: evil#\r\n\r\n", 400, true);
        row("Host with a user", get + "Host: user:pw@evil\r\n\r\n", 400, true);
        row("Host with a space", get + "Host: a b\r\n\r\n", 400, true);
        for (const char* host : { "bob's-speaker.local", "a+b:80", "my%20device",
                 "k\xC3\xBC"
                 "che.local",
                 "a%2F%3F%40" })
            row(host, get + "Host: " + host + "\r\n\r\n", 200, false);
        row("foreign Host", get + "Host: example.com\r\n\r\n", 403, false);
        row("two lengths", post + "Content-Length: 2\r\nContent-Length: 3\r\n\r\n{}}", 400, true);
        row("negative length", post + "Content-Length: -5\r\n\r\n", 400, true);
        row("length with a sign", post + "Content-Length: +2\r\n\r\n{}", 400, true);
        row("overflowing length", post + "Content-Length: 99999999999999999999\r\n\r\n", 400, true);
        row("length list", post + "Content-Length: 2, 2\r\n\r\n{}", 400, true);
        row("length and chunks",
            post + "Content-Length: 2\r\nTransfer-Encoding: chunked\r\n\r\n" + chunkedWrite() + "0\r\n\r\n", 400, true);
        row("unknown coding", post + "Transfer-Encoding: gzip, chunked\r\n\r\n0\r\n\r\n", 400, true);
        row("two codings",
            post + "Transfer-Encoding: chunked\r\nTransfer-Encoding: chunked\r\n\r\n" + chunkedWrite() + "0\r\n\r\n",
            400, true);
        row("chunks", post + "Transfer-Encoding: chunked\r\n\r\n2\r\n{}\r\n0\r\n\r\n", 400, true);
        const QByteArray field = get + "Host: x\r\n";
        row("a space before the colon", field + "X : v\r\n\r\n", 400, true);
        row("no name", field + ": v\r\n\r\n", 400, true);
        row("no colon", field + "X\r\n\r\n", 400, true);
        row("no colon, between others", field + "X: 1\r\nHost\r\nY: 2\r\n\r\n", 400, true);
        row("folded before the first field", get + " X: v\r\nHost: x\r\n\r\n", 400, true);
        row("folded", field + "X: a\r\n\tb\r\n\r\n", 400, true);
        row("hidden chunks beside a length", post + "Content-Length: 2\r\nTransfer-Encoding : chunked\r\n\r\n{}", 400,
            true);
        row("a lone carriage return", field + "X: a\rY: b\r\n\r\n", 400, true);
        row("behind a good one and its body", field + "Content-Length: 2\r\n\r\n: " + field + "X : v\r\n\r\n", 200,
            true);
        row("behind a good one", field + "\r\n" + field + "\r\n", 200, false);
        row("line feeds alone, after an empty line", "\r\nGET " + Counter + " HTTP/1.1\nHost: x\n\n", 200, false);
        row("body over the limit, not sent", post + "Content-Length: 4097\r\n\r\n", 413, true);
        row("body over the limit, announced", post + "Expect: 100-continue\r\nContent-Length: 99999\r\n\r\n", 413,
            true);
        row("chunks over the limit",
            post + "Transfer-Encoding: chunked\r\n\r\n2000\r\n" + QByteArray(8192, ' ') + "\r\n0\r\n\r\n", 413, true);
        row("chunks without end over the limit",
            post + "Transfer-Encoding: chunked\r\n\r\n20000\r\n" + QByteArray(131072, ' '), 0, true);
        row("100 fields", get + "Host: x\r\n" + fieldLines(99) + "\r\n", 200, false);
        row("101 fields", get + "Host: x\r\n" + fieldLines(100) + "\r\n", 431, true);
        row("fields without end", get + "Host: x\r\nX: " + QByteArray(200000, 'x'), 0, true);
        row("no method", " / HTTP/1.1\r\nHost: x\r\n\r\n", 400, true);
        row("long method", QByteArray(300, 'M') + " / HTTP/1.1\r\nHost: x\r\n\r\n", 400, true);
        row("HTTP/3.0", "GET / HTTP/3.0\r\nHost: x\r\n\r\n", 505, true);
        row("foreign scheme", "GET ftp://x/ HTTP/1.1\r\nHost: x\r\n\r\n", 400, true);
        row("foreign scheme, with a body that is not waited for",
            "POST ftp://x/ HTTP/1.1\r\nHost: x\r\nExpect: 100-continue\r\nContent-Length: 5\r\n\r\n", 400, true);
        row("OPTIONS *", "OPTIONS * HTTP/1.1\r\nHost: x\r\n\r\n", 404, false);
        row("HEAD on the API", "HEAD " + Counter + " HTTP/1.1\r\nHost: x\r\n\r\n", 405, false);
        row("not HTTP", QByteArray("\x16\x03\x01\x02 TLS?\r\n\r\n"), 400, true);
        for (const auto& [bytes, status, closed] : row) {
            HttpConnection connection(m_device->port());
            connection.send(bytes);
            const HttpReply reply = connection.readReply(5000, bytes.startsWith("HEAD"));
            QCOMPARE(reply.status, status);
            if (status != 0)
                QCOMPARE(reply.header("X-Robots-Tag"), QByteArray("noindex"));
            QVERIFY(reply.header("Access-Control-Allow-Origin").isNull());
            QCOMPARE(connection.isClosedWithin(closed ? 1000 : 200), closed);
        }
    }

    // The library keeps each for good.
    void namesTakeNoMemory()
    {
        Rows<QByteArray, int, QByteArray, int> row;
        const QByteArray end = " HTTP/1.1\r\nHost: x\r\n";
        row("fields", "GET " + Counter + end, 98, ": 1\r\n", 200);
        row("methods", "", 1, " /" + end, 400);
        row("schemes", "GET ", 1, "://x/" + end, 400);
        for (const auto& [before, count, after, status] : row) {
            qint64 resident = 0;
            for (int request = 0; request < 1000; ++request) {
                QByteArray head = before;
                for (int i = 0; i < count; ++i)
                    head += 'N' + QByteArray::number(request * count + i).leftJustified(6000 / count, 'n') + after;
                HttpConnection connection(m_device->port());
                connection.send(head + "\r\n");
                QCOMPARE(connection.readReply().status, status);
                if (request == 100)
                    resident = m_device->kilobytes("VmRSS:");
            }
            QVERIFY(m_device->kilobytes("VmRSS:") - resident < 2048);
        }
    }

    void nothingAfterChunksIsTakenForARequest()
    {
        HttpConnection connection(m_device->port());
        connection.send("POST /api/getData HTTP/1.1\r\nHost: x\r\nTransfer-Encoding: chunked\r\n\r\nzz\r\nGET "
            + Counter + " HTTP/1.1\r\nHost: x\r\n\r\n");
        QVERIFY(connection.readReply().status >= 400);
        QCOMPARE(connection.readReply(1000).status, 0);
    }

    void pipelinedRequestsAreAllAnswered()
    {
        // Answered at once, by no handler, from the event loop.
        for (const QByteArray& target : { QByteArray("/nothing/here"), QByteArray("*"), Counter }) {
            constexpr int Count = 60000;
            HttpConnection connection(m_device->port());
            const QByteArray request = "GET " + target + " HTTP/1.1\r\nHost: x\r\n\r\n";
            std::thread sender([&connection, &request] { connection.send(request.repeated(Count)); });
            int answered = 0;
            while (answered < Count && connection.readReply().status == (target == Counter ? 200 : 404))
                ++answered;
            if (answered < Count)
                connection.shutDownSending();
            sender.join();
            QCOMPARE(answered, Count);
        }
    }

    void silentAndDrippingClientsAreCut()
    {
        Rows<QByteArray, int, int> row;
        row("says nothing", {}, 900, 1800);
        row("half a head", "GET / HTTP/1.1\r\nHo", 900, 1800);
        row("half a body", QByteArray("POST /api/getData HTTP/1.1\r\nHost: x\r\nContent-Length: 90\r\n\r\n{"), 1900,
            2800);
        row("idle after an answer", "GET " + Counter + " HTTP/1.1\r\nHost: x\r\n\r\n", 1900, 2800);
        for (const auto& [first, atLeastMs, atMostMs] : row) {
            QElapsedTimer timer;
            timer.start();
            HttpConnection connection = m_device->connect(first);
            bool closed = false;
            while (!closed && timer.elapsed() < atMostMs) {
                closed = connection.isClosedWithin(100);
                if (!first.isEmpty() && !first.endsWith("\n"))
                    connection.send(" "); // Each byte would start a plain time-out again.
            }
            QVERIFY(closed);
            QVERIFY2(timer.elapsed() >= atLeastMs, qPrintable(QString::number(timer.elapsed())));
        }
    }

    // Those that are silent for a moment: the library has to find what comes then.
    void parkedConnectionsGoOn()
    {
        Rows<QByteArray, QByteArray> row;
        const QByteArray request = "GET " + Counter + " HTTP/1.1\r\nHost: x\r\n\r\n";
        row("new", {}, request);
        row("new, with half a head", request.left(30), request.mid(30));
        row("answered", request, request);
        row("answered, with half a head", request + request.left(30), request.mid(30));
        row("answered, then two at once", request, request + request);
        for (const auto& [before, after] : row) {
            QCOMPARE(m_device->get(Counter).status, 200);
            const int descriptors = m_device->descriptors();
            HttpConnection connection = m_device->connect(before);
            QTest::qWait(700);
            connection.send(after);
            for (int answers = (before + after).count("Host"); answers > 0; --answers)
                QCOMPARE(connection.readReply(1000).status, 200);
            QTest::qWait(700);
            connection.close();
            QTRY_VERIFY_WITH_TIMEOUT(m_device->descriptors() <= descriptors, 500);
        }
    }

    void clientsThatLeaveAtAnyStageLeaveNothingBehind()
    {
        const QByteArray request =
            "POST /api/setData HTTP/1.1\r\nHost: x\r\nContent-Type: application/json\r\n"
            "Content-Length: 75\r\n\r\n"
            R"({"path":"demo:volatile/counter","role":"value","value":{"type":"i32","value":5}})";
        int before = 0;
        qint64 resident = 0;
        for (int round = 0; round < 20; ++round) {
            for (int stage = 0; stage <= request.size(); stage += 3) {
                HttpConnection connection = m_device->connect(request.left(stage));
                if (stage % 2)
                    connection.reset();
            }
            if (round == 4) {
                QTest::qWait(1000);
                before = m_device->descriptors();
                resident = m_device->kilobytes("VmRSS:");
            }
        }
        // Until the last ones in the backlog have come and gone: the count goes up and down before.
        QTest::qWait(2500);
        QTRY_VERIFY_WITH_TIMEOUT(m_device->descriptors() <= before, 5000);
        QVERIFY(m_device->kilobytes("VmRSS:") - resident < 4096);
    }

    // Nobody reads from a paused exchange: only a watch tells that its client has gone.
    void clientsThatLeaveHeldAnswersAreNoticed()
    {
        const QByteArray wrong =
            "GET " + Counter + " HTTP/1.1\r\nHost: x\r\nAuthorization: HMAC_SHA256 YQ==.AA==.1.AA==\r\n\r\n";
        const int before = m_device->descriptors();
        Connections held = m_device->connect(20, wrong);
        QTRY_VERIFY(m_device->descriptors() >= before + 19);
        QTest::qWait(2500); // Longer than bodySeconds and idleSeconds: a held answer has no deadline.
        QVERIFY(m_device->descriptors() >= before + 15);
        for (size_t i = 0; i < held.size(); ++i)
            i % 2 ? held[i].reset() : held[i].close();
        QTRY_VERIFY_WITH_TIMEOUT(m_device->descriptors() <= before, 1500);
    }

    void whatWasDoneIsCountedOnce()
    {
        Rows<QByteArray, QByteArray> row;
        const QByteArray post = "POST /api/setData HTTP/1.1\r\nHost: x\r\n";
        row("refused/malformed", "GET / HTTP/1.1\r\nHost: x\r\nHost: y\r\n\r\n", "1");
        row("refused/fields", post + fieldLines(100) + "Content-Length: 1\r\n\r\nx", "1");
        row("refused/body", post + "Content-Length: 4097\r\n\r\n", "1");
        row("refused/host", "GET / HTTP/1.1\r\nHost: example.com\r\n\r\n", "1");
        row("bytes/received", post + "Content-Length: 2\r\n\r\n{]", "2");
        row("answers/clientError", "GET / HTTP/1.1\r\n\r\n", "6"); // The library's own refusal, and those above.
        row("answers/abandoned", {}, "2"); // Reading an answer, and sending a body.
        row("events/pending", {}, "1");
        const auto figure = [&] {
            return m_device->value("SoupServer:status/" + row.name()).toInt();
        };
        QTest::qWait(1000); // For which they hold.
        m_device->postJson("/api/event/modifyQueue", R"({"subscribe":[{"path":"demo:volatile/counter"}]})");
        QMap<QByteArray, int> expected;
        for (const auto& [bytes, more] : row)
            expected[row.name()] = figure() + more.toInt();
        HttpConnection listener = m_device->connect(httpRequest("GET", "/api/stream/player:player/audio"));
        QVERIFY(!listener.readTo("\r\n\r\n").isNull());
        listener.reset();
        HttpConnection sender(m_device->port());
        sender.send(post + "Content-Length: 2\r\n\r\n{");
        QTRY_VERIFY(m_device->value("SoupServer:status/connections/receiving").toInt() > 0);
        sender.reset();
        QCOMPARE(m_device->get("/api/setData?path=demo:volatile/counter&role=value&value=77").status, 200);
        for (const auto& [bytes, more] : row) {
            HttpConnection connection(m_device->port());
            if (connection.send(bytes) && !bytes.isEmpty())
                QVERIFY(connection.readReply().status >= 400);
        }
        QTest::qWait(1000);
        for (const auto& entry : row) {
            Q_UNUSED(entry)
            QCOMPARE(figure(), expected[row.name()]);
        }
    }

    void connectionsOverTheCapCostTheIdleOnes()
    {
        Connections idle = m_device->connect(80);
        QCOMPARE(m_device->connect(httpRequest("GET", Counter)).readReply().status, 200);
        QVERIFY(idle.front().isClosedWithin(500));
    }

    void aListenerSurvivesRunningOutOfDescriptors()
    {
        Device device({ "settings:webserver/limits/connections=2000" });
        const rlimit few{ rlim_t(device.descriptors() + 10), 4096 };
        QCOMPARE(prlimit(pid_t(device.pid()), RLIMIT_NOFILE, &few, nullptr), 0);
        Connections connections = device.connect(30);
        const auto processorTime = [&device] { // In nanoseconds.
            QFile statistics(QStringLiteral("/proc/%1/schedstat").arg(device.pid()));
            return statistics.open(QIODevice::ReadOnly) ? statistics.readAll().split(' ').first().toLongLong() : 0;
        };
        const qint64 before = processorTime();
        QTest::qWait(800);
        QVERIFY2(processorTime() - before < 200000000, qPrintable(QString::number(processorTime() - before)));
        connections.clear();
        QTRY_COMPARE_WITH_TIMEOUT(device.get(Counter).status, 200, 8000);
    }

private:
    std::unique_ptr<Device> m_device;
};

QTEST_GUILESS_MAIN(GuardTest)

#include "GuardTest.moc"
