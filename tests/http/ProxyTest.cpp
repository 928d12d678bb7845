#include <QtTest>

#include <arpa/inet.h>
#include <csignal>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <sched.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <unistd.h>

#include "Device.h"
#include "Namespace.h"
#include "Rows.h"
#include "Upstream.h"

namespace {

constexpr int Limit = 5 * 1024 * 1024;
const QByteArray NotFetched = "Could not fetch original content from source";
const QByteArray NoUrl = "The original requested url could not be found.";

QByteArray ok(qint64 length, const QByteArray& fields, const QByteArray& body)
{
    return "HTTP/1.1 200 OK\r\nContent-Length: " + QByteArray::number(length) + "\r\n" + fields + "\r\n" + body;
}

std::map<QByteArray, Upstream::Answer> script()
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
        { "/limit", { ok(Limit, "", ""), "x", Limit } },
        { "/over", { ok(Limit + 1, "", ""), "x", Limit + 1 } },
        { "/tenGiB", { "HTTP/1.1 200 OK\r\n\r\n", "x", 10LL * 1024 * 1024 * 1024 } },
        { "/hang", { {}, {}, 0, true } },
        { "/hangInside", { ok(10, "", "hello"), {}, 0, true } },
    };
}

bool run(const std::string& commands)
{
    return std::system(commands.c_str()) == 0;
}

/// A source on another machine: in a network namespace behind a link of its own, at 198.51.100.2.
std::unique_ptr<Upstream> makeNeighbour()
{
    std::unique_ptr<Upstream> source;
    std::thread([&source] {
        if (unshare(CLONE_NEWNET) == 0
            && run("ip link add out0 type veth peer name zark2 netns " + std::to_string(getpid())
                + " && ip link set out0 up && ip address add 198.51.100.2/24 dev out0"))
            source = std::make_unique<Upstream>(script());
    }).join();
    const bool linked = run("ip link set zark2 up && ip address add 198.51.100.1/24 dev zark2"
                            " && ip address add 203.0.113.7/32 dev lo");
    return linked ? std::move(source) : nullptr;
}

/// Names are asked of a server that takes the question and says nothing; "known.example" is this machine.
bool muteNames(const QTemporaryDir& directory)
{
    const auto replace = [&directory](const char* name, const char* content) {
        const std::string file = directory.filePath(QString::fromLatin1(name)).toStdString();
        std::ofstream(file) << content;
        return mount(file.c_str(), (std::string("/etc/") + name).c_str(), nullptr, MS_BIND, nullptr) == 0;
    };
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(53);
    inet_pton(AF_INET, "127.0.0.1", &address.sin_addr);
    const int silent = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0); // For as long as the process runs.
    return bind(silent, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0 && unshare(CLONE_NEWNS) == 0
        && mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0
        && replace("resolv.conf", "nameserver 127.0.0.1\n") && replace("hosts", "127.0.0.1 known.example\n");
}

int threads(qint64 pid)
{
    return int(QDir(QStringLiteral("/proc/%1/task").arg(pid)).entryList(QDir::Dirs | QDir::NoDotAndDotDot).size());
}

} // namespace

/// The reverse proxy before a scripted source, for clients on this machine and for remote ones.
class ProxyTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void initTestCase()
    {
        m_neighbour = makeNeighbour();
        QVERIFY(m_neighbour);
        // Answered in the last test, while the others run.
        m_hangSince.start();
        m_hanging = std::make_unique<HttpConnection>(m_device.connect(request(m_upstream.url("/hang"))));
        QTRY_COMPARE(m_upstream.waiting(), 1);
    }

    void theSourceDecides()
    {
        Rows<QByteArray, int, QByteArray, QByteArray> row;
        const auto fetched = [&](const char* path, const QByteArray& body, const QByteArray& type) {
            row(path, path, 200, body, type);
        };
        fetched("/ok", "hello", "text/x; charset=y");
        fetched("/untyped", "hi", "");
        fetched("/empty", "", "text/x");
        fetched("/limit", QByteArray(Limit, 'x'), "");
        for (const char* path :
            { "/created", "/moved", "/error", "/short", "/garbage", "/nothing", "/over", "/tenGiB", "/unknown" })
            row(path, path, 404, NotFetched, "text/plain");
        for (const auto& [path, status, body, contentType] : row) {
            const qint64 sentBefore = m_upstream.bytesSent();
            const HttpReply reply = fetch("127.0.0.1", m_upstream.url(path));
            QCOMPARE(reply.status, status);
            QCOMPARE(reply.body, body);
            QCOMPARE(reply.header("Content-Type"), contentType);
            QCOMPARE(reply.header("Content-Type").isNull(), path == "/untyped" || path == "/limit");
            QCOMPARE(reply.header("Content-Security-Policy"), QByteArray(status == 200 ? "sandbox" : ""));
            QCOMPARE(reply.header("X-Content-Type-Options"), QByteArray(status == 200 ? "nosniff" : ""));
            QVERIFY(reply.header("Set-Cookie").isNull() && reply.header("ETag").isNull());
            QCOMPARE(reply.header("Content-Length"), QByteArray::number(reply.body.size()));
            QVERIFY2(m_upstream.bytesSent() - sentBefore < 8 * Limit, "A source was read on without end");
        }
    }

    void theAddressMustBeThere()
    {
        for (const QByteArray encoded :
            { "", "%7F%7F", "aGVsbG8=" /* hello */, "ZmlsZTovLy9ldGMvcGFzc3dk" /* a file: */ }) {
            const HttpReply reply = m_device.get("/proxy/" + encoded);
            QCOMPARE(reply.status, 404);
            QCOMPARE(reply.header("Content-Type"), QByteArray("text/plain"));
            QCOMPARE(reply.body, encoded.isEmpty() ? NoUrl : NotFetched);
        }
    }

    void nothingOfTheClientIsPassedOn()
    {
        m_device.get("/proxy/" + m_upstream.url("/ok").toBase64(),
            { "Cookie: secret=1", "Authorization: HMAC_SHA256 secret", "X-Own: secret" });
        const QByteArray sent = m_upstream.lastRequest();
        QVERIFY2(sent.startsWith("GET /ok HTTP/1.1\r\n") && !sent.contains("secret"), sent.constData());
    }

    void aClientThatLeavesEndsTheFetch()
    {
        for (const char* path : { "/hang", "/hangInside" }) {
            HttpConnection leaver = m_device.connect(request(m_upstream.url(path)));
            QTRY_COMPARE(m_upstream.waiting(), 2);
            leaver.reset();
            QTRY_COMPARE_WITH_TIMEOUT(m_upstream.waiting(), 1, 3000);
        }
    }

    void aSilentNameServerDelaysNothing()
    {
        Device device(
            { "settings:webserver/limits/proxyFetches=100", "settings:webserver/limits/proxyFetchesPerClient=100" });
        const int threadsBefore = threads(device.pid());
        const QByteArray silent = request("http://silent.example/");
        Connections clients = device.connect(30, silent);
        QTRY_VERIFY(threads(device.pid()) >= threadsBefore + 30);
        QCOMPARE(device.connect(request(m_upstream.url("/ok", "known.example"))).readReply().status, 200);
        // Those who leave leave their look-ups behind.
        clients.push_back(device.connect(request(m_upstream.url("/hang"))));
        QTRY_COMPARE(m_upstream.waiting(), 2);
        clients.clear();
        QTRY_COMPARE(m_upstream.waiting(), 1);
        clients = device.connect(30, silent);
        QCOMPARE(clients.back().readReply().status, 404);
        QVERIFY(threads(device.pid()) <= threadsBefore + 34);

        const HttpConnection last = device.connect(request(m_upstream.url("/hang")));
        QTRY_COMPARE(m_upstream.waiting(), 2);
        const QDeadlineTimer limit(2000);
        QCOMPARE(device.stop(SIGTERM), 0);
        QVERIFY(!limit.hasExpired());
        QTRY_COMPARE(m_upstream.waiting(), 1);
    }

    void fetchesShareABudget()
    {
        Device device({ "settings:webserver/limits/proxyFetches=3", "settings:webserver/limits/proxyFetchesPerClient=2",
            "settings:webserver/limits/proxyBytes=16000000" });
        const QByteArray hang = m_neighbour->url("/hang", "198.51.100.2");
        const auto ask = [&](const QByteArray& from, const QByteArray& url) {
            return device.connect(request(url), from);
        };
        HttpConnection one = ask("127.0.0.1", m_upstream.url("/limit")); // Fetched and not read.
        HttpConnection other = ask(RemoteAddress, hang);
        QTRY_COMPARE(m_neighbour->waiting(), 1);
        QTRY_VERIFY(one.hasData(0));
        QCOMPARE(
            ask("127.0.0.1", m_upstream.url("/limit")).readReply().body, NotFetched); // Half of 16 MB are not 10 MiB.
        const HttpConnection second = ask("127.0.0.1", hang);
        QTRY_COMPARE(m_neighbour->waiting(), 2);
        QCOMPARE(ask("127.0.0.1", m_upstream.url("/ok")).readReply().body, NotFetched); // Three in all.
        other.reset();
        QTRY_COMPARE(m_neighbour->waiting(), 1);
        QCOMPARE(ask("127.0.0.1", m_upstream.url("/ok")).readReply().body, NotFetched); // Two for one.
        one.reset();
        QTRY_COMPARE(ask("127.0.0.1", m_upstream.url("/limit")).readReply().body.size(), int(Limit));
    }

    void remoteClientsDoNotReachTheDeviceItself()
    {
        const QList<QByteArray> hosts{ "127.0.0.1", "127.1.2.3", "2130706433", "localhost", "LOCALHOST", "0.0.0.0",
            "[::1]", "[::]", "[::ffff:127.0.0.1]", "[::ffff:7f00:1]", "[::ffff:0.0.0.0]", "known.example",
            RemoteAddress, "[::ffff:192.0.2.1]", "198.51.100.1", "203.0.113.7" };
        for (const QByteArray& host : hosts) {
            QVERIFY2(fetch(RemoteAddress, m_upstream.url("/ok", host)).body == NotFetched, host);
            QVERIFY2(fetch("127.0.0.1", m_upstream.url("/ok", host)).body == "hello", host);
        }
        QCOMPARE(fetch(RemoteAddress, m_neighbour->url("/ok", "198.51.100.2")).body, QByteArray("hello"));
    }

    void onlyAllowedHostsAreFetched()
    {
        Device device({ R"(settings:webserver/proxyAllowedHosts=["192.0.2.1","localhost"])" });
        const auto status = [&](const QByteArray& host) {
            return device.get("/proxy/" + m_upstream.url("/ok", host).toBase64()).status;
        };
        QCOMPARE(status("LocalHost"), 200);
        QCOMPARE(status("127.0.0.1"), 404);
        QCOMPARE(status("localhost@127.0.0.1"), 404);
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
    static QByteArray request(const QByteArray& url)
    {
        return httpRequest("GET", "/proxy/" + url.toBase64(), { "Host: 127.0.0.1" });
    }

    HttpReply fetch(const QByteArray& deviceAddress, const QByteArray& url) const
    {
        return m_device.connect(request(url), deviceAddress).readReply();
    }

    Upstream m_upstream{ script() };
    std::unique_ptr<Upstream> m_neighbour;
    Device m_device;
    QElapsedTimer m_hangSince;
    std::unique_ptr<HttpConnection> m_hanging;
};

int main(int argc, char** argv)
{
    const QTemporaryDir names;
    if (!enterNetworkNamespace() || !muteNames(names)) {
        perror("No namespaces");
        return 1;
    }
    QCoreApplication application(argc, argv);
    ProxyTest test;
    return QTest::qExec(&test, argc, argv);
}

#include "ProxyTest.moc"
