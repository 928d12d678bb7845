#include <QTcpSocket>
#include <QtTest>

#include "Handler.h"
#include "Message.h"
#include "Rows.h"
#include "Server.h"
#include "ServerLimits.h"

namespace {

enum Conduct { Takes, LeavesAlone, RefusesLater, RefusesMidway };

constexpr int Limit = 4096;

/// Answers once it has seen a whole body, which it takes as it arrives.
class EarlyHandler : public Handler {
public:
    explicit EarlyHandler(Conduct conduct) : Handler(QString(), nullptr), m_conduct(conduct) { }
    qint64 received() const { return m_received; }

    void handle(Message* message) override
    {
        if (m_conduct == LeavesAlone)
            return;
        message->setAccumulate(false);
        connect(message, &Message::gotChunk, this, [this, message](const char*, unsigned int length) {
            m_received += length;
            if (m_conduct == RefusesMidway)
                message->setStatus(400, QString());
            else if (m_received == message->header("X-Size").toLongLong())
                message->setStatus(200, QString());
        });
        if (m_conduct != RefusesLater)
            return;
        message->pause();
        QTimer::singleShot(50, message, [message] {
            message->setStatus(401, QString());
            message->unpause();
        });
    }

private:
    Conduct m_conduct;
    qint64 m_received = 0;
};

} // namespace

class StreamedBodyTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void earlyHandlersDecideOnTheLimit()
    {
        Rows<int, QByteArray, int, int, int, QStringList, bool> row;
        const QByteArray plain = "POST / HTTP/1.1\r\nHost: x\r\nContent-Length: %1\r\n";
        const QByteArray waiting = plain + "Expect: 100-continue\r\n";
        const QByteArray chunked = "POST / HTTP/1.1\r\nHost: x\r\nTransfer-Encoding: chunked\r\n";
        const QByteArray old = "POST / HTTP/1.0\r\nHost: x\r\nContent-Length: %1\r\n";
        row("over the limit", Takes, plain, 99999, 99999, 99999, { "100", "200" }, false);
        row("over the limit, in chunks", Takes, chunked, 99999, 99999, 99999, { "200" }, true);
        row("within the limit", Takes, plain, 99, 99, 99, { "200" }, false);
        row("waited for", Takes, waiting, 99, 99, 99, { "100", "200" }, false);
        row("slow, and stalled in the end", Takes, plain, 99999, 99998, 99998, { "100", "408" }, true);
        row("never still, for too long", Takes, plain, 99999, 99998, 2 * Limit, { "100", "408" }, true);
        row("left alone", LeavesAlone, plain, 99999, 0, 0, { "413" }, true);
        row("over HTTP/1.0", Takes, old, 99999, 0, 0, { "413" }, true);
        row("refused unread", RefusesLater, plain, 99999, 0, 0, { "401" }, true);
        row("refused before it is waited for", RefusesLater, waiting, 99, 0, 0, { "401" }, true);
        row("refused midway", RefusesMidway, plain, 9999, 9999, 9999, { "100", "400" }, true);
        row("refused midway, long", RefusesMidway, plain, 999999, 99999, -1, { "100", "408" }, true);
        for (const auto& [conduct, head, size, sent, received, statuses, closed] : row) {
            ServerLimits limits;
            limits.bodyBytes = Limit;
            limits.bodySeconds = 1;
            limits.stalledSeconds = 2;
            limits.uploadSeconds = row.name() == "never still, for too long" ? 2 : 3600;
            Server server(0, QString(), QString(), false, limits, nullptr);
            auto* early = new EarlyHandler(Conduct(conduct));
            server.addHandler(QStringLiteral("/"), new Handler(QString(), nullptr));
            server.addEarlyHandler(QStringLiteral("/"), early);
            server.start();
            QTcpSocket client;
            client.connectToHost(QStringLiteral("127.0.0.1"), quint16(server.listeningPort()));
            const QByteArray length = QByteArray::number(size);
            client.write(QByteArray(head).replace("%1", length) + "X-Size: " + length + "\r\n\r\n");
            const bool isChunked = head.contains("chunked");
            if (isChunked)
                client.write(QByteArray::number(size, 16) + "\r\n");
            const QByteArray body(sent, 'x');
            const bool isSlow = sent == size - 1;
            client.write(body.left(isSlow ? Limit : sent));
            // Both waits together are longer than a body may stall, and each than one in memory may take.
            for (const QByteArray& part : { body.mid(Limit, Limit), body.mid(2 * Limit) }) {
                if (isSlow) {
                    QTest::qWait(1200);
                    client.write(part);
                }
            }
            if (isChunked)
                client.write("\r\n0\r\n\r\n");
            QByteArray answer;
            const auto answered = [&] {
                answer += client.readAll();
                QStringList codes;
                auto match = QRegularExpression("HTTP/1\\.\\d (\\d+)").globalMatch(QString::fromLatin1(answer));
                while (match.hasNext())
                    codes.append(match.next().captured(1));
                return codes;
            };
            QTRY_COMPARE(answered(), statuses);
            QTRY_COMPARE(client.state() == QAbstractSocket::UnconnectedState, closed);
            if (received >= 0)
                QCOMPARE(early->received(), received);
            // The answer's fields survive the interim answer.
            QVERIFY(answer.mid(answer.lastIndexOf("HTTP/1")).contains("X-Robots-Tag: noindex"));
        }
    }
};

QTEST_GUILESS_MAIN(StreamedBodyTest)

#include "StreamedBodyTest.moc"
