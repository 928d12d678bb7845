#include <QElapsedTimer>
#include <QtTest>

#include <memory>

#include "HttpClient.h"
#include "HttpServerScript.h"

namespace {

constexpr int Limit = 1000;

HttpClientOptions options(int timeoutMs = 5000)
{
    HttpClientOptions result;
    result.setReadSizeLimit(Limit);
    result.setTimeoutMs(timeoutMs);
    return result;
}

/// A fetch and what became of it.
class Fetch {
public:
    int calls = 0;
    HttpClientResult result;
    HttpClient::Handle handle;

    explicit Fetch(const QString& url, const HttpClientOptions& how = options())
    {
        handle = HttpClient::get(ZarkUrl(url), how, [this](const HttpClientResult& answer) {
            handle.cancel(); // Too late, and harmless.
            ++calls;
            result = answer;
        });
    }
    ~Fetch() { handle.cancel(); }
    bool wait() const
    {
        return calls == 0 && QTest::qWaitFor([this] { return calls > 0; }, 10000);
    }
};

/// What the callbacks of the fetches hold that run when the application ends.
std::weak_ptr<int> heldByLastFetches;

QByteArray reply(const QByteArray& status, const QByteArray& fields, const QByteArray& body)
{
    return "HTTP/1.1 " + status + "\r\n" + fields + "\r\n" + body;
}

} // namespace

class HttpClientTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void responseBecomesResult_data()
    {
        QTest::addColumn<QByteArray>("response");
        QTest::addColumn<int>("status");
        QTest::addColumn<QByteArray>("body");

        const auto row = [](const char* name, const QByteArray& response, int status, const QByteArray& body = {}) {
            QTest::newRow(name) << response << status << body;
        };
        const QByteArray full(Limit, 'x');
        const QByteArray chunked = "Transfer-Encoding: chunked\r\n";
        const QByteArray type = "X-Type: seen\r\n";

        row("chunked, after an interim one and before a trailer",
            "HTTP/1.1 103 Hints\r\nX-Type: no\r\n\r\n"
                + reply("200 OK", type + chunked, "2\r\nab\r\n3\r\ncde\r\n0\r\nX-Type: no\r\n\r\n"),
            200, "abcde");
        row("redirect is not followed", reply("301 Moved", type + "Location: /\r\nContent-Length: 3\r\n", "old"), 301,
            "old");
        row("compressed stays as it is", reply("200 OK", type + "Content-Encoding: gzip\r\n", "\x1f\x8bxx"), 200,
            "\x1f\x8bxx");
        row("exactly the limit", reply("200 OK", type + "Content-Length: 1000\r\n", full), 200, full);
        row("exactly the limit, until close", reply("200 OK", type, full), 200, full);
        row("length over the limit", reply("200 OK", "Content-Length: 1001\r\n", ""), HttpClientResult::TooLarge);
        row("length over all limits", reply("200 OK", "Content-Length: 99999999999999999999\r\n", ""),
            HttpClientResult::TooLarge);
        row("over the limit, chunked", reply("200 OK", chunked, "3e8\r\n" + full + "\r\n1\r\nx\r\n"),
            HttpClientResult::TooLarge);
        row("over the limit, until close", reply("200 OK", {}, full + "x"), HttpClientResult::TooLarge);
        row("not HTTP", "SSH-2.0-Open\r\n\r\n", HttpClientResult::Unreachable);
        row("closed in the body", reply("200 OK", "Content-Length: 6\r\n", "hello"), HttpClientResult::Unreachable);
    }

    void responseBecomesResult()
    {
        QFETCH(QByteArray, response);
        QFETCH(int, status);
        HttpServerScript server(response);
        Fetch fetch(server.url());
        QVERIFY(fetch.wait());
        QCOMPARE(fetch.result.status, status);
        QTEST(fetch.result.body, "body");
        QCOMPARE(fetch.result.headers.value("x-TYPE", "none"), QByteArray(status > 0 ? "seen" : "none"));
        QTest::qWait(20);
        QCOMPARE(fetch.calls, 1);
        QCOMPARE(server.connections, 1);
    }

    void requestNamesTheServerAndNothingElse()
    {
        qputenv("http_proxy", "http://127.0.0.1:1");
        HttpServerScript server(reply("200 OK", "Content-Length: 0\r\nSet-Cookie: a=b\r\n", ""));
        const QString authority = QStringLiteral("LocalHost:%1").arg(server.serverPort());
        const QString url =
            QStringLiteral("HTTP://name:secret@") + authority + QStringLiteral("/./a b/%0d%0aX:y?q=\u00e4&r=%26#part");
        for (int i = 0; i < 2; ++i) { // The second one too: no cookie.
            Fetch fetch(url);
            QVERIFY(fetch.wait());
            QCOMPARE(server.request,
                "GET /./a%20b/%0D%0AX:y?q=%C3%A4&r=%26 HTTP/1.1\r\nHost: " + authority.toLower().toLatin1()
                    + "\r\nAccept: */*\r\nAccept-Encoding: identity\r\nConnection: close\r\n\r\n");
        }
    }

    void whatDoesNotEndIsEnded_data()
    {
        QTest::addColumn<QByteArray>("head");
        QTest::addColumn<QByteArray>("flood");
        QTest::addColumn<int>("status");
        const QByteArray interim = "HTTP/1.1 100 Go\r\n\r\n";
        const auto row = [](const char* name, const QByteArray& head, const QByteArray& flood, int status) {
            QTest::newRow(name) << head << flood << status;
        };
        row("silence", {}, {}, HttpClientResult::TimedOut);
        row("half a body", reply("200 OK", "Content-Length: 6\r\n", "hello"), {}, HttpClientResult::TimedOut);
        row("body", reply("200 OK", {}, ""), QByteArray(64 * 1024, 'x'), HttpClientResult::TooLarge);
        row("header fields", "HTTP/1.1 200 OK\r\n", QByteArray("A: b\r\n").repeated(1000),
            HttpClientResult::Unreachable);
        row("interim responses", interim, interim.repeated(1000), HttpClientResult::Unreachable);
        row("trailer", reply("200 OK", "Transfer-Encoding: chunked\r\n", "0\r\n"),
            QByteArray("A: b\r\n").repeated(1000), HttpClientResult::Unreachable);
    }

    void whatDoesNotEndIsEnded()
    {
        QFETCH(QByteArray, head);
        QFETCH(QByteArray, flood);
        QFETCH(int, status);
        HttpServerScript server(head, flood.isEmpty() ? HttpServerScript::Hang : HttpServerScript::Flood, flood);
        QElapsedTimer clock;
        clock.start();
        Fetch fetch(server.url(), options(flood.isEmpty() ? 150 : 5000));
        QVERIFY(fetch.wait());
        QCOMPARE(fetch.result.status, status);
        QCOMPARE(fetch.result.body, QByteArray());
        QVERIFY(clock.elapsed() < 4000 && server.written < 16 * 1024 * 1024);
        QTRY_COMPARE(server.gone, 1);
    }

    void theMeterEndsTheBody()
    {
        HttpServerScript server(reply("200 OK", {}, QByteArray(600, 'x')), HttpServerScript::Hang);
        HttpClientOptions how = options();
        int metered = 0;
        how.setBodyMeter([&metered](int bytes) { return (metered += bytes) < 600; });
        Fetch fetch(server.url(), how);
        QVERIFY(fetch.wait());
        QCOMPARE(fetch.result.status, int(HttpClientResult::TooLarge));
        QCOMPARE(metered, 600);
    }

    void filterJudgesTheAddressThatIsConnectedTo_data()
    {
        QTest::addColumn<QString>("host");
        for (const char* host : { "localhost", "127.0.0.1", "2130706433", "[::ffff:127.0.0.1]", "0.0.0.0", "[::1]" })
            QTest::newRow(host) << host;
    }

    void filterJudgesTheAddressThatIsConnectedTo()
    {
        QFETCH(QString, host);
        // Left open by the server: a fetch must not go over another one's connection, either.
        HttpServerScript server(
            reply("200 OK", "Content-Length: 0\r\n", ""), HttpServerScript::Hang, {}, QHostAddress::Any);
        HttpServerScript silent({}, HttpServerScript::Hang);
        const Fetch another(silent.url()); // What fetches share stays while one is under way.
        QList<QHostAddress> judged;
        for (const bool accept : { true, false }) {
            HttpClientOptions how = options();
            how.setAddressFilter([&judged, accept](const QHostAddress& address) {
                judged.append(address);
                return accept;
            });
            Fetch fetch(server.url(host), how);
            QVERIFY(fetch.wait());
            QCOMPARE(fetch.result.status, accept ? 200 : int(HttpClientResult::Refused));
        }
        QTest::qWait(20);
        QCOMPARE(server.connections, 1);
        for (const QHostAddress& address : qAsConst(judged))
            QVERIFY2(address.isLoopback() || address == QHostAddress::AnyIPv4, qPrintable(address.toString()));
    }

    void unfetchableIsReported_data()
    {
        QTest::addColumn<QString>("url");
        QTest::addColumn<int>("status");
        QTcpServer closed;
        closed.listen(QHostAddress::LocalHost);
        QTest::newRow("closed port") << QStringLiteral("http://127.0.0.1:%1/").arg(closed.serverPort())
                                     << int(HttpClientResult::Unreachable);
        QTest::newRow("unknown name") << "http://nobody.invalid/" << int(HttpClientResult::Unreachable);
        for (const char* url : { "file:///etc/passwd", "http:///path", "", "http://127.0.0.1\r\nX: y/" })
            QTest::newRow(url) << url << int(HttpClientResult::Refused);
    }

    void unfetchableIsReported()
    {
        QFETCH(QString, url);
        Fetch fetch(url);
        QVERIFY(fetch.wait());
        QTEST(fetch.result.status, "status");
    }

    void cancelEndsWithoutCallback_data()
    {
        QTest::addColumn<QByteArray>("response");
        QTest::addColumn<int>("stage");
        QTest::newRow("at once") << QByteArray() << 0;
        QTest::newRow("from inside the filter") << QByteArray() << 1;
        QTest::newRow("before the header") << QByteArray() << 2;
        QTest::newRow("in the body") << reply("200 OK", "Content-Length: 6\r\n", "hello") << 3;
    }

    void cancelEndsWithoutCallback()
    {
        QFETCH(QByteArray, response);
        QFETCH(int, stage);
        HttpServerScript server(response, HttpServerScript::Hang);
        auto held = std::make_shared<int>(0); // Whatever the callback holds is let go.
        HttpClient::Handle handle;
        HttpClientOptions how = options(300);
        bool judged = false;
        how.setAddressFilter([&](const QHostAddress&) {
            judged = true;
            if (stage == 1)
                handle.cancel();
            return true;
        });
        handle = HttpClient::get(ZarkUrl(server.url()), how, [held](const HttpClientResult&) { ++*held; });
        if (stage >= 1)
            QTRY_VERIFY(judged);
        if (stage >= 2)
            QTRY_COMPARE(server.connections, 1);
        if (stage == 3)
            QTRY_VERIFY(server.written > 0);

        handle.cancel();
        handle.cancel();
        QTRY_COMPARE(held.use_count(), 1L);
        QTest::qWait(400);
        QCOMPARE(*held, 0);
        QCOMPARE(server.gone, server.connections);
        QCOMPARE(judged, stage > 0);
    }

    void fetchMayRunWhenTheProcessEnds()
    {
        m_last.reset(new HttpServerScript(reply("200 OK", "Content-Length: 6\r\n", "hello"), HttpServerScript::Hang));
        const auto held = std::make_shared<int>(0);
        heldByLastFetches = held;
        for (const char* host : { "127.0.0.1", "localhost" })
            HttpClient::get(ZarkUrl(m_last->url(QString::fromLatin1(host))), options(60000),
                [held](const HttpClientResult&) { ++*held; });
        QTRY_VERIFY(m_last->connections >= 1);
        QCOMPARE(*held, 0);
    }

private:
    QScopedPointer<HttpServerScript> m_last;
};

int main(int argc, char* argv[])
{
    int result = 0;
    {
        QCoreApplication application(argc, argv);
        HttpClientTest test;
        result = QTest::qExec(&test, argc, argv);
    }
    if (!heldByLastFetches.expired())
        qFatal("A fetch has outlived the application.");
    return result;
}

#include "HttpClientTest.moc"
