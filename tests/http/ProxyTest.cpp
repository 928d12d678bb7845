#include <QCoreApplication>
#include <QElapsedTimer>
#include <QTest>

#include <csignal>
#include <memory>

#include "Device.h"
#include "Namespace.h"
#include "Upstream.h"

namespace {

constexpr long long Limit = 5 * 1024 * 1024;
const QByteArray NotFetched = "Could not fetch original content from source";
const QByteArray NoUrl = "The original requested url could not be found.";

std::string ok(long long length, const std::string& fields, const std::string& body)
{
    return "HTTP/1.1 200 OK\r\nContent-Length: " + std::to_string(length) + "\r\n" + fields + "\r\n" + body;
}

std::map<std::string, Upstream::Answer> script()
{
    return {
        { "/ok", { ok(5, "Content-Type: text/x; charset=y\r\nSet-Cookie: a=b\r\nETag: c\r\n", "hello") } },
        { "/untyped", { ok(2, "", "hi") } },
        { "/empty", { ok(0, "Content-Type: text/x\r\n", "") } },
        { "/created", { "HTTP/1.1 201 Created\r\nContent-Length: 2\r\n\r\nhi" } },
        { "/moved", { "HTTP/1.1 301 Moved\r\nLocation: /ok\r\nContent-Length: 0\r\n\r\n" } },
        { "/error", { "HTTP/1.1 500 Oops\r\nContent-Length: 2\r\n\r\nhi" } },
        { "/short", { ok(10, "", "hello") } },
        { "/garbage", { "SSH-2.0-x\r\n" } },
        { "/nothing", { "" } },
        { "/limit", { ok(Limit, "", "x"), Limit } },
        { "/over", { ok(Limit + 1, "", "x"), Limit + 1 } },
        { "/tenGiB", { "HTTP/1.1 200 OK\r\n\r\nx", 10LL * 1024 * 1024 * 1024 } },
        { "/hang", { "", 1, true } },
        { "/hangInside", { ok(10, "", "hello"), 1, true } },
    };
}

} // namespace

/// The reverse proxy before a scripted source, for clients on this machine and for remote ones.
class ProxyTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void initTestCase()
    {
        QVERIFY(m_device.isRunning());
        // Answered in the last test, while the others run.
        m_hangSince.start();
        m_hanging = std::make_unique<HttpConnection>(m_device.port());
        m_hanging->send(request("http://127.0.0.1:" + port() + "/hang"));
        QTRY_COMPARE(m_upstream.waiting(), 1);
    }

    void theSourceDecides_data()
    {
        QTest::addColumn<QByteArray>("path");
        QTest::addColumn<int>("status");
        QTest::addColumn<QByteArray>("body");
        QTest::addColumn<QByteArray>("contentType");
        const auto fetched = [](const char* path, const QByteArray& body, const QByteArray& type) {
            QTest::newRow(path) << QByteArray(path) << 200 << body << type;
        };
        fetched("/ok", "hello", "text/x; charset=y");
        fetched("/untyped", "hi", "");
        fetched("/empty", "", "text/x");
        fetched("/limit", QByteArray(Limit, 'x'), "");
        for (const char* path :
            { "/created", "/moved", "/error", "/short", "/garbage", "/nothing", "/over", "/tenGiB", "/unknown" })
            QTest::newRow(path) << QByteArray(path) << 404 << NotFetched << QByteArray("text/plain");
    }

    void theSourceDecides()
    {
        QFETCH(QByteArray, path);
        QFETCH(int, status);
        const long long sentBefore = m_upstream.bytesSent();
        const HttpReply reply = fetch("127.0.0.1", "http://127.0.0.1:" + port() + path);
        QCOMPARE(reply.status, status);
        QTEST(reply.body, "body");
        QTEST(reply.header("Content-Type") + "", "contentType");
        QVERIFY(reply.header("Set-Cookie").isNull() && reply.header("ETag").isNull());
        QCOMPARE(reply.header("Content-Length"), QByteArray::number(reply.body.size()));
        QVERIFY2(m_upstream.bytesSent() - sentBefore < 8 * Limit, "A source was read on without end");
    }

    void theAddressMustBeThere_data()
    {
        QTest::addColumn<QByteArray>("target");
        QTest::addColumn<QByteArray>("body");
        QTest::newRow("none") << QByteArray("/proxy/") << NoUrl;
        QTest::newRow("no Base64") << QByteArray("/proxy/%7F%7F") << NotFetched;
        QTest::newRow("no URL") << QByteArray("/proxy/") + QByteArray("hello").toBase64() << NotFetched;
        QTest::newRow("another scheme") << QByteArray("/proxy/") + QByteArray("file:///etc/passwd").toBase64()
                                        << NotFetched;
        QTest::newRow("no port there") << QByteArray("/proxy/") + QByteArray("http://127.0.0.1:1/").toBase64()
                                       << NotFetched;
    }

    void theAddressMustBeThere()
    {
        QFETCH(QByteArray, target);
        const HttpReply reply = m_device.get(target);
        QCOMPARE(reply.status, 404);
        QCOMPARE(reply.header("Content-Type"), QByteArray("text/plain"));
        QTEST(reply.body, "body");
    }

    void nothingOfTheClientIsPassedOn()
    {
        m_device.get("/proxy/" + QByteArray("http://127.0.0.1:" + port() + "/ok").toBase64(),
            { "Cookie: secret=1", "Authorization: HMAC_SHA256 secret", "X-Own: secret" });
        const QByteArray sent = QByteArray::fromStdString(m_upstream.lastRequest());
        QVERIFY2(sent.startsWith("GET /ok HTTP/1.1\r\n") && !sent.contains("secret"), sent.constData());
    }

    void aClientThatLeavesEndsTheFetch()
    {
        for (const char* path : { "/hang", "/hangInside" }) {
            auto leaver = std::make_unique<HttpConnection>(m_device.port());
            leaver->send(request("http://127.0.0.1:" + port() + path));
            QTRY_COMPARE(m_upstream.waiting(), 2);
            leaver->reset();
            QTRY_COMPARE_WITH_TIMEOUT(m_upstream.waiting(), 1, 3000);
        }
    }

    void aDeviceThatStopsEndsItsFetches()
    {
        Device other;
        HttpConnection waiting(other.port());
        waiting.send(request("http://127.0.0.1:" + port() + "/hang"));
        QTRY_COMPARE(m_upstream.waiting(), 2);
        QCOMPARE(other.stop(SIGTERM), 0);
        QTRY_COMPARE(m_upstream.waiting(), 1);
    }

    void remoteClientsDoNotReachTheDeviceItself_data()
    {
        QTest::addColumn<QByteArray>("host");
        QTest::addColumn<int>("status");
        for (const char* host : { "127.0.0.1", "127.1.2.3", "2130706433", "localhost", "LOCALHOST", "0.0.0.0", "[::1]",
                 "[::]", "[::ffff:127.0.0.1]", "[::ffff:7f00:1]", "[::ffff:0.0.0.0]" })
            QTest::newRow(host) << QByteArray(host) << 404;
        QTest::newRow("elsewhere") << QByteArray(RemoteAddress) << 200;
        QTest::newRow("elsewhere, mapped") << QByteArray("[::ffff:192.0.2.1]") << 200;
    }

    void remoteClientsDoNotReachTheDeviceItself()
    {
        QFETCH(QByteArray, host);
        QFETCH(int, status);
        const HttpReply reply = fetch(RemoteAddress, "http://" + host + ':' + port() + "/ok");
        QCOMPARE(reply.status, status);
        QCOMPARE(reply.body, status == 200 ? QByteArray("hello") : NotFetched);
        if (host != "2130706433" && host != "[::]")
            QCOMPARE(fetch("127.0.0.1", "http://" + host + ':' + port() + "/ok").status, 200);
    }

    void aRemoteClientWritesNothingThroughTheProxy()
    {
        const QByteArray own = QByteArray::number(m_device.port());
        const QByteArray before = m_device.value("demo:permissions/default");
        for (const QByteArray host : { "127.0.0.1", "localhost", "192.0.2.1" }) {
            const QByteArray write = "/api/setData?path=demo:permissions/default&role=value&value=77";
            QCOMPARE(fetch(RemoteAddress, "http://" + host + ':' + own + write).status, 404);
        }
        QCOMPARE(m_device.value("demo:permissions/default"), before);
    }

    void onlyAllowedHostsAreFetched_data()
    {
        QTest::addColumn<QByteArray>("host");
        QTest::addColumn<int>("status");
        QTest::newRow("listed") << QByteArray("192.0.2.1") << 200;
        QTest::newRow("listed name") << QByteArray("LocalHost") << 200;
        QTest::newRow("another address of it") << QByteArray("127.0.0.1") << 404;
        QTest::newRow("as a user name") << QByteArray("localhost@127.0.0.1") << 404;
    }

    void onlyAllowedHostsAreFetched()
    {
        QFETCH(QByteArray, host);
        Device device({ R"(settings:webserver/proxyAllowedHosts=["192.0.2.1","localhost"])" });
        const QByteArray target = QByteArray("http://" + host + ':' + port() + "/ok").toBase64();
        QTEST(device.get("/proxy/" + target).status, "status");
    }

    void aSourceThatHangsIsGivenUpAfter30Seconds()
    {
        const HttpReply reply = m_hanging->readReply(40000);
        QCOMPARE(reply.status, 404);
        QCOMPARE(reply.body, NotFetched);
        QVERIFY2(m_hangSince.elapsed() >= 29500, qPrintable(QString::number(m_hangSince.elapsed())));
        QTRY_COMPARE(m_upstream.waiting(), 0);
    }

private:
    QByteArray port() const { return QByteArray::number(m_upstream.port()); }

    static QByteArray request(const QByteArray& url)
    {
        return httpRequest("GET", "/proxy/" + url.toBase64(), { "Host: 127.0.0.1" });
    }

    HttpReply fetch(const QByteArray& deviceAddress, const QByteArray& url) const
    {
        HttpConnection connection(m_device.port(), deviceAddress);
        connection.send(request(url));
        return connection.readReply();
    }

    Upstream m_upstream{ script() };
    Device m_device;
    QElapsedTimer m_hangSince;
    std::unique_ptr<HttpConnection> m_hanging;
};

int main(int argc, char** argv)
{
    if (!enterNetworkNamespace())
        return 1;
    QCoreApplication application(argc, argv);
    ProxyTest test;
    return QTest::qExec(&test, argc, argv);
}

#include "ProxyTest.moc"
