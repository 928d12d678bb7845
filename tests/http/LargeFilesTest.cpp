#include <QtTest>

#include <algorithm>

#include <csignal>
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

constexpr int Patience = 60000; // Reading a file is slow where all else goes first.

bool isFound(HttpConnection& connection)
{
    return connection.readTo("\r\n\r\n", Patience).contains("200 OK");
}

} // namespace

class LargeFilesTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void bodiesAreViewsOfTheFile()
    {
        m_root.writeSparse("sparse", GiB);
        // It is read here, by a thread of low priority.
        QCOMPARE(m_device.connect(httpRequest("HEAD", "/sparse")).readReply(Patience, true).status, 200);
        const qint64 before = m_device.kilobytes("RssAnon:");
        Connections connections = ask("/sparse");
        for (HttpConnection& connection : connections) {
            QVERIFY(isFound(connection));
            connection.read(MiB, Patience);
        }
        const qint64 added = m_device.kilobytes("RssAnon:") - before;
        QVERIFY2(added < 4 * 1024, QByteArray::number(added) + " KiB");
        QCOMPARE(m_device.get("/sparse", { "Range: bytes=-1" }).status, 206);
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
            Connections connections = ask("/changing");
            for (HttpConnection& connection : connections)
                QVERIFY(isFound(connection));
            if (newSize >= 0)
                QCOMPARE(truncate(path.constData(), newSize), 0);
            else if (newSize == -1)
                QCOMPARE(unlink(path.constData()), 0);
            else {
                m_root.write("other", "replacement");
                QCOMPARE(rename(m_root.file("other").constData(), path.constData()), 0);
            }
            for (HttpConnection& connection : connections) {
                const QByteArray received = connection.read(2 * size, Patience);
                QCOMPARE(received.size() == size, complete);
                QVERIFY(received == QByteArray(received.size(), Filling));
                // Less the packet that was being filled.
                QVERIFY2(complete || received.size() >= newSize - MiB, QByteArray::number(received.size()));
            }
            const HttpReply after = m_device.request("HEAD", "/changing");
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
            QCOMPARE(m_device.request("HEAD", "/slowly").status, 200);
            HttpConnection connection(m_device.port());
            const int few = 65536;
            setsockopt(connection.descriptor(), SOL_SOCKET, SO_RCVBUF, &few, sizeof few);
            connection.send(httpRequest("GET", "/slowly"));
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
        Connections connections = ask("/unread");
        // Others are answered while it is read; one after the other, the longest time counts.
        HttpConnection other(m_device.port());
        qint64 longestMs = 0;
        int answers = 0;
        QElapsedTimer total;
        total.start();
        for (; !connections.front().hasData(0); ++answers) {
            QElapsedTimer timer;
            timer.start();
            other.send(httpRequest("GET", "/small"));
            QCOMPARE(other.readReply().body, QByteArray("small"));
            longestMs = std::max(longestMs, timer.elapsed());
        }
        const qint64 totalMs = total.elapsed();
        QVERIFY2(answers > 20, QByteArray::number(answers));
        QVERIFY2(longestMs < totalMs / 2, QByteArray::number(longestMs) + " of " + QByteArray::number(totalMs));
        for (HttpConnection& connection : connections)
            QVERIFY(connection.readTo("\r\n\r\n", Patience).contains("ETag: 1f5039e50bd66b290c56684d8550c6c2"));
        // Nobody waits for files whose clients have left.
        for (int i = 0; i < 20; ++i) {
            const QByteArray name = "left" + QByteArray::number(i);
            m_root.writeSparse(name, GiB);
            m_device.connect(httpRequest("GET", '/' + name));
        }
        m_root.writeSparse("after", MiB);
        QCOMPARE(m_device.request("HEAD", "/after").status, 200);
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
            connections.push_back(device.connect(httpRequest("GET", '/' + name)));
            refused += connections.back().readTo("\r\n\r\n", Patience).contains(" 500 ");
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
        m_root.write("encrypted", QByteArray(128 * MiB, Filling));
        // Files take turns: with these ahead of it, reading it takes longer than it takes all clients to ask for it.
        Connections others;
        for (const char* name : { "1", "2", "3", "4", "5", "6" }) {
            m_root.writeSparse(name, GiB / 4);
            others.push_back(device.connect(httpRequest("HEAD", QByteArray("/") + name)));
        }
        const QString url = QStringLiteral("https://127.0.0.1:%1/encrypted").arg(port);
        std::vector<QProcess> clients(readers);
        for (QProcess& client : clients)
            client.start("curl", { "-skN", url });
        for (QProcess& client : clients)
            QVERIFY(client.waitForReadyRead(Patience));
        QCOMPARE(truncate(m_root.file("encrypted").constData(), 0), 0);
        for (QProcess& client : clients) {
            QVERIFY(client.waitForFinished(Patience));
            const QByteArray received = client.readAll();
            QVERIFY(received.size() < 128 * MiB && !received.contains('\0'));
        }
    }

    void cleanupTestCase() { QCOMPARE(m_device.stop(SIGTERM), 0); }

private:
    Connections ask(const QByteArray& target) const
    {
        return m_device.connect(Readers, httpRequest("GET", target, { "Host: localhost", "Connection: close" }));
    }

    DocumentRoot m_root;
    Device m_device{ { m_root.setting(), "settings:webserver/limits/idleSeconds=1",
                         "settings:webserver/limits/stalledSeconds=4" },
        { "--log-level", "fatal" } };
};

QTEST_GUILESS_MAIN(LargeFilesTest)
#include "LargeFilesTest.moc"
