#include <QtTest>

#include <memory>

#include "Files.h"
#include "HttpClient.h"
#include "Rows.h"
#include "Upstream.h"

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

/// What a callback holds that nobody ends, looked at when the application is no more.
struct LastFetch {
    std::weak_ptr<int> holds;
    ~LastFetch()
    {
        if (!holds.expired())
            qFatal("A fetch has outlived the application.");
    }
} lastFetch;

QByteArray reply(const QByteArray& status, const QByteArray& fields, const QByteArray& body)
{
    return "HTTP/1.1 " + status + "\r\n" + fields + "\r\n" + body;
}

} // namespace

class HttpClientTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void requestNamesTheServerAndNothingElse()
    {
        qputenv("http_proxy", "http://127.0.0.1:1");
        Upstream server({ reply("200 OK", "Content-Length: 0\r\nSet-Cookie: a=b\r\n", "") });
        const QString authority = QStringLiteral("LocalHost:%1").arg(server.port());
        const QString url =
            QStringLiteral("HTTP://name:secret@") + authority + QStringLiteral("/./a b/%0d%0aX:y?q=\u00e4&r=%26#part");
        for (int i = 0; i < 2; ++i) { // The second one too: no cookie.
            Fetch fetch(url);
            QVERIFY(fetch.wait());
            QCOMPARE(server.lastRequest(),
                "GET /./a%20b/%0D%0AX:y?q=%C3%A4&r=%26 HTTP/1.1\r\nHost: " + authority.toLower().toLatin1()
                    + "\r\nAccept: */*\r\nAccept-Encoding: identity\r\nConnection: close\r\n\r\n");
        }
    }

    void aBodyOverTheLimitIsRefused()
    {
        Upstream server({ reply("200 OK", {}, QByteArray(Limit + 1, 'x')), {}, 0, true });
        Fetch fetch(server.url());
        QVERIFY(fetch.wait());
        QCOMPARE(fetch.result.status, int(HttpClientResult::TooLarge));
        QCOMPARE(fetch.result.body, QByteArray());
    }

    void filterJudgesTheAddressThatIsConnectedTo()
    {
        for (const char* host : { "localhost", "127.0.0.1", "2130706433", "[::ffff:127.0.0.1]", "0.0.0.0", "[::1]" }) {
            // Left open by the server: a fetch must not go over another one's connection, either.
            Upstream server({ reply("200 OK", "Content-Length: 0\r\n", ""), {}, 0, true });
            Upstream silent({ {}, {}, 0, true });
            const Fetch another(silent.url()); // What fetches share stays while one is under way.
            QList<QHostAddress> judged;
            for (const bool accept : { true, false }) {
                HttpClientOptions how = options();
                how.setAddressFilter([&judged, accept](const QHostAddress& address) {
                    judged.append(address);
                    return accept;
                });
                Fetch fetch(server.url("/", host), how);
                QVERIFY(fetch.wait());
                QCOMPARE(fetch.result.status, accept ? 200 : int(HttpClientResult::Refused));
            }
            QTest::qWait(20);
            QCOMPARE(server.connections(), 1);
            for (const QHostAddress& address : qAsConst(judged))
                QVERIFY2(address.isLoopback() || address == QHostAddress::AnyIPv4, qPrintable(address.toString()));
        }
    }

    void unfetchableIsReported()
    {
        Rows<QString, int> row;
        row("closed port", "http://127.0.0.1:1/", HttpClientResult::Unreachable);
        row("unknown name", "http://nobody.invalid/", HttpClientResult::Unreachable);
        for (const char* url : { "file:///etc/passwd", "http:///path", "", "http://127.0.0.1\r\nX: y/" })
            row(url, url, HttpClientResult::Refused);
        for (const auto& [url, status] : row) {
            Fetch fetch(url);
            QVERIFY(fetch.wait());
            QCOMPARE(fetch.result.status, status);
        }
    }

    void certificateMustBeTheNames()
    {
        const QTemporaryDir directory;
        const QString certificate = directory.filePath("cert.pem");
        const QString key = directory.filePath("key.pem");
        const QStringList make{ "req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1", "-nodes",
            "-subj", "/CN=localhost", "-addext", "subjectAltName=DNS:localhost", "-keyout", key, "-out", certificate };
        QCOMPARE(runTool("openssl", make).status, 0);
        QProcess server;
        server.start("openssl", { "s_server", "-accept", "0", "-cert", certificate, "-key", key, "-www" });
        QTRY_VERIFY(server.peek(1000).contains("ACCEPT [::]:"));
        const QByteArray said = server.readAll();
        const QString port = said.mid(said.indexOf("[::]:") + 5).split('\n').first();
        Rows<QString, QString, int> row;
        row("trusted and the name's", "localhost", certificate, 200);
        row("of another name", "127.0.0.1", certificate, HttpClientResult::Unreachable);
        row("not trusted", "localhost", {}, HttpClientResult::Unreachable);
        for (const auto& [host, trusted, status] : row) {
            trusted.isEmpty() ? qunsetenv("SSL_CERT_FILE") : qputenv("SSL_CERT_FILE", trusted.toLocal8Bit());
            HttpClientOptions how = options();
            how.setReadSizeLimit(100000);
            Fetch fetch("https://" + host + ':' + port + '/', how);
            QVERIFY(fetch.wait());
            QCOMPARE(fetch.result.status, status);
        }
        server.kill();
        server.waitForFinished();
    }

    void cancelEndsWithoutCallback()
    {
        Rows<QByteArray, int> row;
        row("at once", {}, 0);
        row("from inside the filter", {}, 1);
        row("before the header", {}, 2);
        row("in the body", reply("200 OK", "Content-Length: 6\r\n", "hello"), 3);
        for (const auto& [response, stage] : row) {
            Upstream server({ response, {}, 0, true });
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
                QTRY_COMPARE(server.connections(), 1);
            if (stage == 3)
                QTRY_VERIFY(server.bytesSent() > 0);

            handle.cancel();
            handle.cancel();
            QTRY_COMPARE(held.use_count(), 1L);
            QTest::qWait(400);
            QCOMPARE(*held, 0);
            QTRY_COMPARE(server.open(), 0);
            QCOMPARE(judged, stage > 0);
        }
    }

    void aFetchMayRunWhenTheProcessEnds()
    {
        static Upstream server({ {}, {}, 0, true });
        const auto mine = std::make_shared<int>();
        lastFetch.holds = mine;
        HttpClient::get(ZarkUrl(server.url()), options(60000), [mine](const HttpClientResult&) { QFAIL("called"); });
        QTRY_COMPARE(server.waiting(), 1);
    }
};

QTEST_GUILESS_MAIN(HttpClientTest)
#include "HttpClientTest.moc"
