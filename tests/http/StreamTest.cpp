#include <QDir>
#include <QTest>

#include <csignal>
#include <memory>
#include <vector>

#include <poll.h>
#include <sys/socket.h>

#include "Device.h"

namespace {

const QByteArray Audio = "/api/stream/player:player/audio";

QByteArray request(const QByteArray& method, const QByteArray& target, const char* version = "1.1")
{
    return method + ' ' + target + " HTTP/" + version + "\r\nHost: localhost\r\n\r\n";
}

int descriptorsOf(qint64 pid)
{
    return QDir(QStringLiteral("/proc/%1/fd").arg(pid)).entryList(QDir::Files | QDir::System).size();
}

/// The first `length` bytes of a chunked answer's body; shorter when the answer is no stream or stalls.
QByteArray streamed(int descriptor, int length)
{
    QByteArray received;
    QByteArray body;
    bool inBody = false;
    char buffer[65536];
    while (body.size() < length) {
        pollfd polled = { descriptor, POLLIN, 0 };
        const ssize_t count = poll(&polled, 1, 10000) > 0 ? recv(descriptor, buffer, sizeof buffer, 0) : 0;
        if (count <= 0)
            return body;
        received.append(buffer, int(count));
        const int head = received.indexOf("\r\n\r\n");
        if (!inBody && head >= 0) {
            inBody = received.left(head).contains("Transfer-Encoding: chunked");
            received.remove(0, head + 4);
        }
        for (int line = received.indexOf("\r\n"); inBody && line > 0; line = received.indexOf("\r\n")) {
            const int size = received.left(line).toInt(nullptr, 16);
            if (received.size() < line + size + 4)
                break;
            body += received.mid(line + 2, size);
            received.remove(0, line + size + 4);
        }
    }
    return body.left(length);
}

} // namespace

/// Streams of nodes: what leaves, and what a stream costs while its client is slow or gone.
class StreamTest : public QObject {
    Q_OBJECT
private Q_SLOTS:
    void initTestCase() { QVERIFY(m_device.isRunning()); }

    void answers()
    {
        struct Row {
            const char* name;
            QByteArray request;
            int status;
            QByteArray type;
        };
        const QByteArray json = "application/json";
        const Row rows[] = {
            { "HEAD", request("HEAD", Audio), 200, "audio/wav" },
            { "HEAD, encoded once more", request("HEAD", "/api/stream/player%3Aplayer%2Faudio"), 200, "audio/wav" },
            { "HEAD, old form", request("HEAD", "/api/stream//player/audio"), 200, "audio/wav" },
            { "no stream", request("GET", "/api/stream/player:player/volume"), 404, json },
            { "no node", request("GET", "/api/stream/player:player/nothing"), 404, json },
            { "no path", request("GET", "/api/stream/"), 404, json },
            { "another method", request("PUT", Audio), 405, json },
        };
        for (const Row& row : rows) {
            HttpConnection connection(m_device.port());
            connection.send(row.request);
            const HttpReply reply = connection.readReply(10000, row.request.startsWith("HEAD"));
            QVERIFY2(reply.status == row.status, row.name);
            QCOMPARE(reply.header("Content-Type"), row.type);
            QCOMPARE(reply.header("Allow"), row.status == 405 ? QByteArray("GET, HEAD") : QByteArray());
        }
        HttpConnection old(m_device.port());
        old.send(request("GET", Audio, "1.0"));
        char head[4096];
        const QByteArray start(head, int(recv(old.descriptor(), head, sizeof head, 0)));
        QVERIFY(start.startsWith("HTTP/1.0 200") || start.startsWith("HTTP/1.1 200"));
        QVERIFY(!start.contains("chunked"));
    }

    // Fifty at once, the same bytes for all, while their neighbours read nothing; the pipes go with the clients.
    void manyAtOnce()
    {
        constexpr int Streams = 50;
        constexpr int Length = 300000;
        const int before = descriptorsOf(m_device.pid());
        std::vector<std::unique_ptr<HttpConnection>> connections;
        for (int i = 0; i < 2 * Streams; ++i) {
            connections.push_back(std::make_unique<HttpConnection>(m_device.port()));
            QVERIFY(connections.back()->send(request("GET", Audio)));
        }
        QByteArray first;
        for (int i = 0; i < Streams; ++i) {
            const QByteArray body = streamed(connections[size_t(2 * i)]->descriptor(), Length);
            QCOMPARE(body.size(), Length);
            if (first.isEmpty())
                first = body;
            QVERIFY(body.startsWith("RIFF") && body == first);
        }
        QCOMPARE(m_device.value("player:player/volume").isEmpty(), false);
        connections.clear();
        QTRY_VERIFY_WITH_TIMEOUT(descriptorsOf(m_device.pid()) <= before, 1500);
    }

    // SIGHUP configures the log anew: readers come to the end, and can begin again.
    void theLogOutlivesItsConfiguration()
    {
        HttpConnection before(m_device.port());
        before.send(request("GET", "/api/stream/system:log/lines"));
        QVERIFY(streamed(before.descriptor(), 10).size() == 10);
        QCOMPARE(kill(pid_t(m_device.pid()), SIGHUP), 0);
        QByteArray rest;
        QTRY_VERIFY((rest += received(before.descriptor())).endsWith("0\r\n\r\n"));
        HttpConnection after(m_device.port());
        after.send(request("GET", "/api/stream/system:log/lines"));
        QCOMPARE(streamed(after.descriptor(), 10).size(), 10);
    }

private:
    static QByteArray received(int descriptor)
    {
        char buffer[4096];
        const ssize_t count = recv(descriptor, buffer, sizeof buffer, MSG_DONTWAIT);
        return QByteArray(buffer, int(qMax<ssize_t>(count, 0)));
    }

    Device m_device;
};

QTEST_GUILESS_MAIN(StreamTest)

#include "StreamTest.moc"
