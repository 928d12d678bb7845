#include <QtTest>

#include <algorithm>
#include <memory>
#include <vector>

#include <csignal>
#include <gio/gio.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include "Device.h"
#include "DocumentRoot.h"
#include "Rows.h"
#include "Tls.h"

namespace {

constexpr int MiB = 1024 * 1024;
constexpr qint64 GiB = 1024LL * MiB;
constexpr int Readers = 8;
constexpr char Filling = 'x';

using Connections = std::vector<std::unique_ptr<HttpConnection>>;

constexpr int Patience = 60000; // Reading a file is slow where all else goes first.

bool isFound(HttpConnection& connection)
{
    return connection.readTo("\r\n\r\n", Patience).contains("200 OK");
}

struct Unref {
    void operator()(gpointer object) const { g_object_unref(object); }
};
using TlsConnection = std::unique_ptr<GIOStream, Unref>;

gboolean acceptAny(GTlsConnection*, GTlsCertificate*, GTlsCertificateFlags, gpointer)
{
    return TRUE;
}

/// Null when the handshake fails.
TlsConnection connectTls(int port)
{
    const std::unique_ptr<GSocketClient, Unref> client(g_socket_client_new());
    g_socket_client_set_timeout(client.get(), 60);
    const TlsConnection tcp(G_IO_STREAM(
        g_socket_client_connect_to_host(client.get(), "127.0.0.1", static_cast<guint16>(port), nullptr, nullptr)));
    TlsConnection tls(tcp ? g_tls_client_connection_new(tcp.get(), nullptr, nullptr) : nullptr);
    if (!tls)
        return nullptr;
    g_signal_connect(tls.get(), "accept-certificate", G_CALLBACK(acceptAny), nullptr);
    return g_tls_connection_handshake(G_TLS_CONNECTION(tls.get()), nullptr, nullptr) ? std::move(tls) : nullptr;
}

} // namespace

class LargeFilesTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void initTestCase()
    {
        m_device = std::make_unique<Device>(QStringList{ m_root.setting(), "settings:webserver/limits/idleSeconds=1",
                                                "settings:webserver/limits/stalledSeconds=4" },
            QStringList{ "--log-level", "fatal" });
        QVERIFY(m_device->isRunning());
    }

    void bodiesAreViewsOfTheFile()
    {
        m_root.writeSparse("sparse", GiB);
        // It is read here, by a thread of low priority.
        HttpConnection first(m_device->port());
        first.send(httpRequest("HEAD", "/sparse", { "Host: localhost", "Connection: close" }));
        QCOMPARE(first.readReply(60000, true).status, 200);
        const qint64 before = m_device->kilobytes("RssAnon:");
        const Connections connections = ask("/sparse");
        for (const auto& connection : connections) {
            QVERIFY(isFound(*connection));
            connection->read(MiB, Patience);
        }
        const qint64 added = m_device->kilobytes("RssAnon:") - before;
        QVERIFY2(added < 4 * 1024, QByteArray::number(added) + " KiB");
        QCOMPARE(m_device->get("/sparse", { "Range: bytes=-1" }).status, 206);
    }

    void filesThatChangeCutTheirReaders()
    {
        Rows<int, bool> row;
        row("emptied", 0, false);
        row("shortened", int(16 * MiB), false);
        row("removed", -1, true);
        row("replaced", -2, true);
        for (const auto& [newSize, complete] : row) {
            constexpr int size = 24 * MiB;
            m_root.write("changing", QByteArray(size, Filling));
            const QByteArray path = m_root.file("changing");
            const Connections connections = ask("/changing");
            for (const auto& connection : connections)
                QVERIFY(isFound(*connection));
            if (newSize >= 0)
                QCOMPARE(truncate(path.constData(), newSize), 0);
            else if (newSize == -1)
                QCOMPARE(unlink(path.constData()), 0);
            else {
                m_root.write("other", "replacement");
                QCOMPARE(rename(m_root.file("other").constData(), path.constData()), 0);
            }
            for (const auto& connection : connections) {
                const QByteArray received = connection->read(2 * size, Patience);
                QCOMPARE(received.size() == size, complete);
                QVERIFY(received == QByteArray(received.size(), Filling));
                // Less the packet that was being filled.
                QVERIFY2(complete || received.size() >= newSize - MiB, QByteArray::number(received.size()));
            }
            const HttpReply after = m_device->request("HEAD", "/changing");
            QCOMPARE(after.status, newSize == -1 ? 404 : 200);
            if (newSize != -1)
                QCOMPARE(after.header("Content-Length").toInt(), newSize == -2 ? 11 : newSize);
        }
    }

    void readersThatGoOnGetAll()
    {
        Rows<bool, int, bool> row;
        row("slow", false, 2000, true);
        row("slow, half-closed", true, 2000, true);
        row("stalled", false, 6000, false);
        for (const auto& [halfClosed, pauseMs, complete] : row) {
            constexpr int size = 24 * MiB;
            m_root.write("slowly", QByteArray(size, Filling));
            // Once it is known: who is half-closed is given up while the file is still being read.
            QCOMPARE(m_device->request("HEAD", "/slowly").status, 200);
            HttpConnection connection(m_device->port());
            const int few = 65536;
            setsockopt(connection.descriptor(), SOL_SOCKET, SO_RCVBUF, &few, sizeof few);
            connection.send(httpRequest("GET", "/slowly", { "Host: localhost" }));
            if (halfClosed)
                connection.shutDownSending();
            QVERIFY(isFound(connection));
            int received = 0;
            // The last part lies in the kernel's buffers when the server is done with it.
            for (const int end : { 10 * MiB, size - MiB, size }) {
                QTest::qWait(pauseMs);
                received += connection.read(end - received, Patience).size();
                if (received < end)
                    break;
            }
            QCOMPARE(received == size, complete);
        }
    }

    void readingAFileLeavesRoomForOthers()
    {
        m_root.writeSparse("unread", GiB / 4);
        m_root.write("small", "small");
        const Connections connections = ask("/unread");
        // Others are answered while it is read; one after the other, the longest time counts.
        HttpConnection other(m_device->port());
        qint64 longestMs = 0;
        int answers = 0;
        QElapsedTimer total;
        total.start();
        for (; !connections.front()->hasData(0); ++answers) {
            QElapsedTimer timer;
            timer.start();
            other.send(httpRequest("GET", "/small", { "Host: localhost" }));
            QCOMPARE(other.readReply().body, QByteArray("small"));
            longestMs = std::max(longestMs, timer.elapsed());
        }
        const qint64 totalMs = total.elapsed();
        QVERIFY2(answers > 20, QByteArray::number(answers));
        QVERIFY2(longestMs < totalMs / 2, QByteArray::number(longestMs) + " of " + QByteArray::number(totalMs));
        for (const auto& connection : connections)
            QVERIFY(connection->readTo("\r\n\r\n", Patience).contains("ETag: 1f5039e50bd66b290c56684d8550c6c2"));
        // Nobody waits for files whose clients have left.
        for (int i = 0; i < 20; ++i) {
            const QByteArray name = "left" + QByteArray::number(i);
            m_root.writeSparse(name, GiB);
            HttpConnection(m_device->port()).send(httpRequest("GET", '/' + name, { "Host: localhost" }));
        }
        m_root.writeSparse("after", MiB);
        QCOMPARE(m_device->request("HEAD", "/after").status, 200);
    }

    void filesLeaveAddressSpaceToOthers()
    {
        const Device device({ m_root.setting() }, { "--log-level", "fatal" });
        const auto limit = rlim_t(device.kilobytes("VmSize:") * 1024 + 300 * MiB);
        const rlimit space{ limit, limit };
        QCOMPARE(prlimit(pid_t(device.pid()), RLIMIT_AS, &space, nullptr), 0);
        Connections connections;
        int refused = 0;
        for (int i = 0; i < 8; ++i) {
            const QByteArray name = "mapped" + QByteArray::number(i);
            m_root.writeSparse(name, 64 * MiB);
            connections.push_back(std::make_unique<HttpConnection>(device.port()));
            connections.back()->send(httpRequest("GET", '/' + name, { "Host: localhost" }));
            refused += connections.back()->readTo("\r\n\r\n", Patience).contains(" 500 ");
        }
        QVERIFY2(refused > 3 && refused < 8, QByteArray::number(refused));
        QVERIFY(device.kilobytes("VmSize:") * 1024 + 64 * MiB <= qint64(limit));
        connections.clear();
        QTRY_COMPARE(device.request("HEAD", "/mapped7").status, 200);
    }

    // Encryption reads the mapping in the server, and not in the kernel: there the missing part of a file reads as
    // zeros.
    void noneOfManyReadersGetsZeros()
    {
        constexpr int readers = 80; // More than one mapping can be sent to.
        const int port = Device::freePort();
        const Device device(QStringList{ m_root.setting() } + httpsSettings(port, makeCertificate()),
            QStringList{ "--log-level", "fatal" });
        QVERIFY(device.isRunning());
        m_root.write("encrypted", QByteArray(128 * MiB, Filling));
        // Files take turns: with these ahead of it, reading it takes longer than it takes all clients to ask for it.
        Connections others;
        for (const char* name : { "1", "2", "3", "4", "5", "6" }) {
            m_root.writeSparse(name, GiB / 4);
            others.push_back(std::make_unique<HttpConnection>(device.port()));
            others.back()->send(httpRequest("HEAD", QByteArray("/") + name, { "Host: localhost" }));
        }
        std::vector<TlsConnection> clients;
        const QByteArray request = httpRequest("GET", "/encrypted", { "Host: localhost", "Connection: close" });
        for (int i = 0; i < readers; ++i) {
            clients.push_back(connectTls(port));
            QVERIFY(clients.back());
            // At once: the server gives up silent connections.
            QVERIFY(g_output_stream_write_all(g_io_stream_get_output_stream(clients.back().get()), request.constData(),
                static_cast<gsize>(request.size()), nullptr, nullptr, nullptr));
        }
        std::vector<char> block(256 * 1024);
        const auto read = [&](const TlsConnection& client) {
            return g_input_stream_read(
                g_io_stream_get_input_stream(client.get()), block.data(), block.size(), nullptr, nullptr);
        };
        for (const auto& client : clients)
            QVERIFY(read(client) > 0);
        QCOMPARE(truncate(m_root.file("encrypted").constData(), 0), 0);
        for (const auto& client : clients) {
            for (gssize count = read(client); count > 0; count = read(client))
                QVERIFY(std::find(block.begin(), block.begin() + count, '\0') == block.begin() + count);
        }
    }
    void cleanupTestCase() { QCOMPARE(m_device->stop(SIGTERM), 0); }

private:
    /// Connections that have asked for the file and read the head of the answer.
    Connections ask(const QByteArray& target) const
    {
        Connections connections;
        for (int i = 0; i < Readers; ++i) {
            connections.push_back(std::make_unique<HttpConnection>(m_device->port()));
            connections.back()->send(httpRequest("GET", target, { "Host: localhost", "Connection: close" }));
        }
        return connections;
    }

    DocumentRoot m_root;
    std::unique_ptr<Device> m_device;
};

QTEST_GUILESS_MAIN(LargeFilesTest)
#include "LargeFilesTest.moc"
