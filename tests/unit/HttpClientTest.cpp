#include <QElapsedTimer>
#include <QEventLoop>
#include <QTimer>
#include <QtTest>

#include <memory>
#include <vector>

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
            ++calls;
            result = answer;
            m_loop.quit();
        });
    }
    bool wait()
    {
        QTimer::singleShot(10000, &m_loop, &QEventLoop::quit);
        if (calls == 0)
            m_loop.exec();
        return calls > 0;
    }

private:
    QEventLoop m_loop;
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
        const QByteArray limit = QByteArray::number(Limit);
        const QByteArray chunked = "Transfer-Encoding: chunked\r\n";
        const QByteArray type = "X-Type: seen\r\n";

        row("length", reply("200 OK", type + "Content-Length: 5\r\n", "hello and more"), 200, "hello");
        row("until close", reply("200 OK", type, "hello"), 200, "hello");
        row("version 1.0, no reason, bare line ends", "HTTP/1.0 200\nx-type:seen\n\nhello", 200, "hello");
        row("empty", reply("200 OK", type + "Content-Length: 0\r\n", ""), 200);
        row("no content", reply("204 No Content", type, "ignored"), 204);
        row("redirect is not followed", reply("301 Moved", type + "Location: /\r\nContent-Length: 3\r\n", "old"), 301,
            "old");
        row("interim first", "HTTP/1.1 103 Hints\r\nLink: x\r\n\r\n" + reply("200 OK", type, "late"), 200, "late");
        row("compressed stays as it is", reply("200 OK", type + "Content-Encoding: gzip\r\n", "\x1f\x8bxx"), 200,
            "\x1f\x8bxx");
        row("chunked", reply("200 OK", type + chunked, "2\r\nab\r\n3;x=y\r\ncde\r\n0\r\nT: r\r\n\r\n"), 200, "abcde");
        row("exactly the limit", reply("200 OK", type + "Content-Length: " + limit + "\r\n", full), 200, full);
        row("exactly the limit, chunked", reply("200 OK", type + chunked, "3e8\r\n" + full + "\r\n0\r\n\r\n"), 200,
            full);

        row("length over the limit", reply("200 OK", "Content-Length: 1001\r\n", ""), HttpClientResult::TooLarge);
        row("length over all limits", reply("200 OK", "Content-Length: 99999999999999999999\r\n", ""),
            HttpClientResult::TooLarge);
        row("over the limit, chunked", reply("200 OK", chunked, "3e8\r\n" + full + "\r\n1\r\n"),
            HttpClientResult::TooLarge);
        row("huge chunk", reply("200 OK", chunked, "ffffffffffffffffffff\r\n"), HttpClientResult::TooLarge);
        row("over the limit, until close", reply("200 OK", {}, full + "x"), HttpClientResult::TooLarge);

        row("not HTTP", "SSH-2.0-Open\r\n\r\n", HttpClientResult::Unreachable);
        row("closed in the body", reply("200 OK", "Content-Length: 6\r\n", "hello"), HttpClientResult::Unreachable);
        row("closed before the last chunk", reply("200 OK", chunked, "5\r\nhello\r\n"), HttpClientResult::Unreachable);
        row("two lengths", reply("200 OK", "Content-Length: 1\r\nContent-Length: 2\r\n", "ab"),
            HttpClientResult::Unreachable);
        row("negative length", reply("200 OK", "Content-Length: -1\r\n", "ab"), HttpClientResult::Unreachable);
        row("unknown coding", reply("200 OK", "Transfer-Encoding: gzip, chunked\r\n", ""),
            HttpClientResult::Unreachable);
        row("other protocol", reply("101 Switching", {}, ""), HttpClientResult::Unreachable);
    }

    void responseBecomesResult()
    {
        QFETCH(QByteArray, response);
        QFETCH(int, status);
        QFETCH(QByteArray, body);
        HttpServerScript server(response);

        Fetch fetch(server.url());
        QCOMPARE(fetch.calls, 0);
        QVERIFY(fetch.wait());

        QCOMPARE(fetch.result.status, status);
        QCOMPARE(fetch.result.body, body);
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
            QStringLiteral("HTTP://name:secret@") + authority + QStringLiteral("/a b/%0d%0aX:y?q=\u00e4&r=%26#part");
        for (int i = 0; i < 2; ++i) { // The second one too: no cookie.
            Fetch fetch(url);
            QVERIFY(fetch.wait());
            QCOMPARE(fetch.result.status, 200);
            QCOMPARE(server.request,
                "GET /a%20b/%0D%0AX:y?q=%C3%A4&r=%26 HTTP/1.1\r\nHost: " + authority.toLower().toLatin1()
                    + "\r\nAccept: */*\r\nAccept-Encoding: identity\r\nConnection: close\r\n\r\n");
        }
    }

    void deadlineCoversTheWholeExchange_data()
    {
        QTest::addColumn<QByteArray>("response");
        QTest::newRow("before the header") << QByteArray();
        QTest::newRow("in the body") << reply("200 OK", "Content-Length: 6\r\n", "hello");
        QTest::newRow("in an open body") << reply("200 OK", {}, "hello");
    }

    void deadlineCoversTheWholeExchange()
    {
        QFETCH(QByteArray, response);
        HttpServerScript server(response, HttpServerScript::Hang);
        QElapsedTimer clock;
        clock.start();
        Fetch fetch(server.url(), options(150));
        QVERIFY(fetch.wait());
        QCOMPARE(fetch.result.status, int(HttpClientResult::TimedOut));
        QCOMPARE(fetch.result.body, QByteArray());
        QVERIFY2(clock.elapsed() >= 140 && clock.elapsed() < 2000, QByteArray::number(clock.elapsed()));
        QTRY_COMPARE(server.gone, 1);
    }

    void endlessBodyStopsAtTheLimit_data()
    {
        QTest::addColumn<QByteArray>("head");
        QTest::addColumn<QByteArray>("flood");
        QTest::addColumn<int>("status");
        const QByteArray block(64 * 1024, 'x');
        QTest::newRow("until close") << reply("200 OK", {}, "") << block << int(HttpClientResult::TooLarge);
        QTest::newRow("chunked") << reply("200 OK", "Transfer-Encoding: chunked\r\n", "")
                                 << "10000\r\n" + block + "\r\n"
                                 << int(HttpClientResult::TooLarge);
        QTest::newRow("header line") << QByteArray("HTTP/1.1 200 OK\r\nX: ") << block
                                     << int(HttpClientResult::Unreachable);
        QTest::newRow("header fields") << QByteArray("HTTP/1.1 200 OK\r\n") << QByteArray("A: b\r\n").repeated(1000)
                                       << int(HttpClientResult::Unreachable);
        QTest::newRow("trailers") << reply("200 OK", "Transfer-Encoding: chunked\r\n", "0\r\n")
                                  << QByteArray("A: b\r\n").repeated(1000) << int(HttpClientResult::Unreachable);
        QTest::newRow("chunk extension") << reply("200 OK", "Transfer-Encoding: chunked\r\n", "1;") << block
                                         << int(HttpClientResult::Unreachable);
        QTest::newRow("interim responses")
            << QByteArray("HTTP/1.1 100 Go\r\n\r\n") << QByteArray("HTTP/1.1 100 Go\r\n\r\n").repeated(1000)
            << int(HttpClientResult::Unreachable);
    }

    void endlessBodyStopsAtTheLimit()
    {
        QFETCH(QByteArray, head);
        QFETCH(QByteArray, flood);
        QFETCH(int, status);
        HttpServerScript server(head, HttpServerScript::Flood, flood);
        HttpClientOptions how = options(20000);
        how.setReadSizeLimit(1024 * 1024);
        Fetch fetch(server.url(), how);
        QVERIFY(fetch.wait());
        QCOMPARE(fetch.result.status, status);
        QTRY_COMPARE(server.gone, 1);
        QVERIFY2(server.written < 16 * 1024 * 1024, QByteArray::number(server.written));
    }

    void filterJudgesTheAddressThatIsConnectedTo_data()
    {
        QTest::addColumn<QString>("host");
        QTest::newRow("name") << "localhost";
        QTest::newRow("IPv4") << "127.0.0.1";
        QTest::newRow("IPv4 as one number") << "2130706433";
        QTest::newRow("IPv4 in IPv6") << "[::ffff:127.0.0.1]";
        QTest::newRow("any address") << "0.0.0.0";
        QTest::newRow("IPv6") << "[::1]";
    }

    void filterJudgesTheAddressThatIsConnectedTo()
    {
        QFETCH(QString, host);
        HttpServerScript server(
            reply("200 OK", "Content-Length: 0\r\n", ""), HttpServerScript::Close, {}, QHostAddress::Any);
        QList<QHostAddress> judged;
        bool accept = false;
        HttpClientOptions how = options();
        how.setAddressFilter([&](const QHostAddress& address) {
            judged.append(address);
            return accept;
        });

        Fetch refused(server.url(host), how);
        QVERIFY(refused.wait());
        QCOMPARE(refused.result.status, int(HttpClientResult::Refused));
        QVERIFY(!judged.isEmpty());
        for (const QHostAddress& address : qAsConst(judged))
            QVERIFY2(address.isLoopback() || address == QHostAddress::AnyIPv4, qPrintable(address.toString()));
        QTest::qWait(20);
        QCOMPARE(server.connections, 0);

        accept = true;
        Fetch accepted(server.url(host), how);
        QVERIFY(accepted.wait());
        QCOMPARE(accepted.result.status, 200);
    }

    void nextAddressIsTriedWhenOneFails()
    {
        // Where "localhost" is both ::1 and 127.0.0.1, whichever comes first is refused by the one or the other server.
        for (const auto& address : { QHostAddress::LocalHost, QHostAddress::LocalHostIPv6 }) {
            HttpServerScript server(reply("200 OK", "Content-Length: 0\r\n", ""), HttpServerScript::Close, {}, address);
            QList<QHostAddress> judged;
            HttpClientOptions how = options();
            how.setAddressFilter([&](const QHostAddress& candidate) {
                judged.append(candidate);
                return true;
            });
            Fetch fetch(server.url(QStringLiteral("localhost")), how);
            QVERIFY(fetch.wait());
            QCOMPARE(
                fetch.result.status, judged.contains(QHostAddress(address)) ? 200 : int(HttpClientResult::Unreachable));
        }
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
        QTest::newRow("file") << "file:///etc/passwd" << int(HttpClientResult::Refused);
        QTest::newRow("no host") << "http:///path" << int(HttpClientResult::Refused);
        QTest::newRow("empty") << "" << int(HttpClientResult::Refused);
        QTest::newRow("line end in the host") << "http://127.0.0.1\r\nX: y/" << int(HttpClientResult::Refused);
    }

    void unfetchableIsReported()
    {
        QFETCH(QString, url);
        QFETCH(int, status);
        Fetch fetch(url);
        QCOMPARE(fetch.calls, 0);
        QVERIFY(fetch.wait());
        QCOMPARE(fetch.result.status, status);
    }

    void cancelEndsWithoutCallback_data()
    {
        QTest::addColumn<QString>("host");
        QTest::addColumn<QByteArray>("response");
        QTest::addColumn<int>("stage"); // 0: at once, 1: after one turn of the loop, 2: connected, 3: bytes are read.
        const QByteArray part = reply("200 OK", "Content-Length: 6\r\n", "hello");
        QTest::newRow("at once") << "127.0.0.1" << part << 0;
        QTest::newRow("while the name is looked up") << "localhost" << part << 1;
        QTest::newRow("while connecting") << "127.0.0.1" << part << 1;
        QTest::newRow("before the header") << "127.0.0.1" << QByteArray() << 2;
        QTest::newRow("in the body") << "127.0.0.1" << part << 3;
    }

    void cancelEndsWithoutCallback()
    {
        QFETCH(QString, host);
        QFETCH(QByteArray, response);
        QFETCH(int, stage);
        HttpServerScript server(response, HttpServerScript::Hang);
        auto held = std::make_shared<int>(0); // Whatever the callback holds is let go.
        HttpClient::Handle handle =
            HttpClient::get(ZarkUrl(server.url(host)), options(300), [held](const HttpClientResult&) { ++*held; });
        QCOMPARE(held.use_count(), 2L);
        if (stage == 1)
            QCoreApplication::sendPostedEvents();
        if (stage >= 2)
            QTRY_COMPARE(server.connections, 1);
        if (stage == 3)
            QTRY_VERIFY(server.written > 0);

        handle.cancel();
        handle.cancel();
        QCOMPARE(held.use_count(), 1L);
        QTest::qWait(400);
        QCOMPARE(*held, 0);
        QCOMPARE(server.gone, server.connections);
        QVERIFY(stage > 0 || server.connections == 0);
    }

    void handleAndCallbackOutliveTheFetch()
    {
        HttpServerScript server(reply("200 OK", "Content-Length: 2\r\n", "ok"));
        HttpClient::Handle handle;
        QByteArray body;
        int calls = 0;
        handle = HttpClient::get(ZarkUrl(server.url()), options(), [&](const HttpClientResult& result) {
            handle.cancel(); // From inside: too late, and harmless.
            ++calls;
            body = result.body;
        });
        QTRY_COMPARE(calls, 1);
        QTest::qWait(20);
        handle.cancel();
        HttpClient::Handle().cancel();
        QCOMPARE(calls, 1);
        QCOMPARE(body, QByteArray("ok"));
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
