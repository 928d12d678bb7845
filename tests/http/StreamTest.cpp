#include <QSslSocket>
#include <QtTest>

#include <array>
#include <csignal>

#include "Device.h"
#include "Rows.h"
#include "Tls.h"

namespace {

const QByteArray Audio = "/api/stream/player:player/audio";

QByteArray request(const QByteArray& method, const QByteArray& target, const char* version = "1.1")
{
    return method + ' ' + target + " HTTP/" + version + "\r\nHost: localhost\r\n\r\n";
}

} // namespace

/// Streams of nodes: what leaves, and what a stream costs while its client is slow or gone.
class StreamTest : public QObject {
    Q_OBJECT
private Q_SLOTS:
    void answers()
    {
        Rows<QByteArray, int, QByteArray> row;
        const QByteArray json = "application/json";
        row("HEAD", request("HEAD", Audio), 200, "audio/wav");
        row("HEAD, encoded once more", request("HEAD", "/api/stream/player%3Aplayer%2Faudio"), 200, "audio/wav");
        row("HEAD, old form", request("HEAD", "/api/stream//player/audio"), 200, "audio/wav");
        row("no node", request("GET", "/api/stream/player:player/nothing"), 404, json);
        row("no path", request("GET", "/api/stream/"), 404, json);
        row("another method", request("PUT", Audio), 405, json);
        for (const auto& [request, status, type] : row) {
            const HttpReply reply = m_device.connect(request).readReply(10000, request.startsWith("HEAD"));
            QCOMPARE(reply.status, status);
            QCOMPARE(reply.header("Content-Type"), type);
            QCOMPARE(reply.header("Allow"), status == 405 ? QByteArray("GET, HEAD") : QByteArray());
        }
    }

    // Fifty at once, the same bytes for all, while their neighbours read nothing, and for two more than sockets hold;
    // the pipes go with the clients.
    void manyAtOnce()
    {
        constexpr int Streams = 50;
        constexpr int Length = 300000;
        const QByteArray overTls = listenOverTls();
        const int before = m_device.descriptors();
        Connections connections;
        for (int i = 0; i < 2 * Streams; ++i)
            connections.push_back(m_device.connect(request("GET", Audio, i % 4 ? "1.1" : "1.0")));
        QByteArray first;
        for (int i = 0; i < Streams; ++i) {
            HttpConnection& connection = connections[size_t(2 * i)];
            const bool isChunked = connection.readTo("\r\n\r\n").contains("chunked");
            QCOMPARE(isChunked, i % 2 == 1);
            const int length = i < 2 ? 30 * Length : Length;
            const QByteArray body = isChunked ? connection.readChunks(length) : connection.read(length);
            QCOMPARE(body.size(), length);
            if (first.isEmpty())
                first = body;
            QVERIFY(first.startsWith(body));
        }
        QVERIFY(first.startsWith("RIFF") && first.mid(44, Length * 29) == first.mid(244, Length * 29));
        QVERIFY(overTls == first);
        QCOMPARE(m_device.value("player:player/volume").isEmpty(), false);
        connections.clear();
        QTRY_VERIFY_WITH_TIMEOUT(m_device.descriptors() <= before, 1500);
        QVERIFY(m_device.value("SoupServer:status/bytes/sent").toInt() > 90 * Length);
    }

    // SIGHUP configures the log anew: readers come to the end, and can begin again.
    void theLogOutlivesItsConfiguration()
    {
        HttpConnection before = m_device.connect(request("GET", "/api/stream/system:log/lines"));
        QVERIFY(before.hasData(10000));
        QCOMPARE(kill(pid_t(m_device.pid()), SIGHUP), 0);
        QVERIFY(!before.readReply().body.isEmpty());
        HttpConnection after = m_device.connect(request("GET", "/api/stream/system:log/lines"));
        QVERIFY(after.hasData(10000));
    }

    // TLS would say good-bye to them first, and there is no room for that.
    void clientsThatReadNothingDelayNoStop()
    {
        std::array<QSslSocket, 8> clients;
        for (QSslSocket& client : clients) {
            client.setPeerVerifyMode(QSslSocket::VerifyNone);
            client.connectToHostEncrypted("127.0.0.1", quint16(m_httpsPort));
            QVERIFY(client.waitForEncrypted());
            client.write(request("GET", Audio));
            QVERIFY(client.waitForReadyRead());
        }
        QVERIFY(!listenOverTls().isEmpty()); // As long as it takes to fill the sockets of all.
        QCOMPARE(m_device.stop(SIGTERM), 0);
    }

private:
    QByteArray listenOverTls() const
    {
        QProcess curl;
        const QString url = QStringLiteral("https://127.0.0.1:%1%2").arg(m_httpsPort).arg(QString::fromLatin1(Audio));
        curl.start("sh", { "-c", "curl -sk " + url + " | head -c 9000000" });
        curl.waitForFinished();
        return curl.readAllStandardOutput();
    }

    const int m_httpsPort = Device::freePort();
    Device m_device{ httpsSettings(m_httpsPort, makeCertificate()) };
};

QTEST_GUILESS_MAIN(StreamTest)

#include "StreamTest.moc"
