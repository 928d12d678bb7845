#include <QtTest>

#include <csignal>

#include "Device.h"
#include "Rows.h"
#include "Signer.h"

namespace {

const QByteArray Type = "Content-Type: multipart/form-data; boundary=XyZ";
const QByteArray End = "--XyZ--\r\n";
constexpr int LimitBytes = 12 * 1024 * 1024;

QByteArray part(const QByteArray& name, const QByteArray& data)
{
    return "--XyZ\r\nContent-Disposition: form-data; name=\"" + name + "\"; filename=\"x.bin\"\r\n\r\n" + data + "\r\n";
}

QByteArray sum(const QByteArray& data)
{
    return QCryptographicHash::hash(data, QCryptographicHash::Sha256).toHex();
}

QByteArray text(const QByteArray& value)
{
    return '"' + value + '"';
}

QByteArray kept(const QByteArray& data)
{
    return "{\"bytes\":" + QByteArray::number(data.size()) + ",\"sha256\":\"" + sum(data) + "\"}";
}

QByteArray image()
{
    QByteArray data(2 * 1024 * 1024, '\0');
    for (int i = 0; i < data.size(); ++i)
        data[i] = char((unsigned(i) * 7919U) >> 7);
    return data;
}

} // namespace

/// POST /firmware/update: what is kept, what is refused, and that the last whole image stays whatever happens.
class UploadTest : public QObject {
    Q_OBJECT
private Q_SLOTS:
    void bodies()
    {
        const QByteArray data = image();
        const QByteArray whole = part("firmware", data) + End;
        Rows<QByteArray, int, QByteArray> row; // A body; the answer's body, or the error's message.
        row("one part", whole, 200, kept(data));
        row("sum before", part("sha256", sum(data)) + whole, 200, kept(data));
        row("sum behind", part("firmware", data) + part("sha256", sum(data) + "  x.bin\n") + End, 200, kept(data));
        row("wrong sum", part("sha256", sum("x")) + whole, 500,
            "The image does not have the SHA-256 sum that was sent with it");
        row("no sum", part("sha256", "beef") + whole, 400, "The sum is no SHA-256 sum in hexadecimal digits.");
        row("two images", part("firmware", "x") + whole, 400, "There are two images.");
        row("two images, with much to come", part("firmware", "x") + part("firmware", QByteArray(LimitBytes - 9, 'x')),
            400, "There are two images.");
        row("another part is large", part("a", QByteArray(LimitBytes, 'x')) + whole.left(99), 413,
            "The other parts are too large.");
        row("no image", part("a", "b") + End, 400, "There is no part \"firmware\".");
        row("empty image", part("firmware", "") + End, 400, "The image is empty.");
        row("no body", "", 400, "There is no body.");
        row("no boundary", whole, 400, "The boundary of the multipart body is missing or invalid.");
        row("10,000 tiny parts", part("a", "").repeated(10000) + End, 400, "There are too many parts.");
        row("over the limit", part("firmware", QByteArray(LimitBytes + 1, 'x')) + End, 413, "The image is too large.");
        for (const auto& [body, status, answer] : row) {
            const QByteArray type =
                row.name() == "no boundary" ? QByteArray("Content-Type: multipart/form-data") : Type;
            const HttpReply reply = m_device.request("POST", "/firmware/update", { type }, body);
            QCOMPARE(reply.status, status);
            QCOMPARE(reply.status == 200 ? reply.body : reply.errorMessage(), answer);
            QCOMPARE(reply.header("X-Robots-Tag"), QByteArray("noindex"));
        }
        QCOMPARE(storedImage(), data);
    }

    // A client that leaves, another that comes meanwhile, and a kill: none of them touches what is kept.
    void interrupted()
    {
        const QByteArray before = storedImage();
        HttpConnection leaver(m_device.port());
        const QByteArray half = part("firmware", QByteArray(500000, 'x'));
        const auto begin = [&half](HttpConnection& connection) {
            return connection.send("POST /firmware/update HTTP/1.1\r\nHost: localhost\r\n" + Type
                + "\r\nContent-Length: 1000000\r\n\r\n" + half);
        };
        QVERIFY(begin(leaver));
        QTRY_COMPARE(m_device.value("system:update/state"), text("receiving"));
        const HttpReply busy = m_device.request("POST", "/firmware/update", { Type }, part("firmware", "y") + End);
        QCOMPARE(busy.status, 409);
        leaver.reset();
        QTRY_COMPARE(m_device.value("system:update/error"), text("The image is incomplete"));
        QCOMPARE(storedImage(), before);

        HttpConnection victim(m_device.port());
        QVERIFY(begin(victim));
        QTRY_COMPARE(m_device.value("system:update/state"), text("receiving"));
        m_device.stop(SIGKILL);
        QVERIFY(m_device.start());
        QCOMPARE(storedImage(), before);
        QVERIFY(!QFile::exists(m_device.stateDirectory() + "/update/incoming"));
        QCOMPARE(m_device.value("system:update/sha256"), text(sum(before)));
        const HttpReply again = m_device.request("POST", "/firmware/update", { Type }, part("firmware", "new") + End);
        QCOMPARE(again.body, kept("new"));
        QCOMPARE(storedImage(), QByteArray("new"));
    }

    // Signed over the URI alone; a wrong signature is refused before the body, which the client is not told to send.
    void authorizedBeforeTheBody()
    {
        const QByteArray uri = m_device.baseUrl() + "/firmware/update";
        const QByteArray body = part("firmware", "signed") + End;
        const HttpReply good =
            m_device.request("POST", "/firmware/update", { Type, Signer("admin", "").forGet(uri) }, body);
        QCOMPARE(good.status, 200);
        for (const char* framing : { "Content-Length: 50", "Content-Length: 5000000", "X-Body: none" }) {
            HttpConnection connection(m_device.port());
            connection.send("POST /firmware/update HTTP/1.1\r\nHost: localhost\r\nExpect: 100-continue\r\n" + Type
                + "\r\n" + Signer("admin", "wrong").forGet(uri) + "\r\n" + framing + "\r\n\r\n");
            const HttpReply refused = connection.readReply();
            QCOMPARE(refused.status, 401);
            QVERIFY(connection.isClosedWithin(2000));
        }
        QCOMPARE(storedImage(), QByteArray("signed"));
    }

    // Other multipart bodies go to their handlers as they are.
    void othersAreUntouched()
    {
        const QByteArray body = part("firmware", "x") + End;
        QCOMPARE(m_device.request("POST", "/firmware/updates", { Type }, body).status, 404);
        QCOMPARE(storedImage(), QByteArray("signed"));
    }

private:
    QByteArray storedImage() const { return contentOf(m_device.stateDirectory() + "/update/current/image"); }

    Device m_device{ { "settings:webserver/limits/updateBytes=" + QString::number(LimitBytes) } };
};

QTEST_GUILESS_MAIN(UploadTest)

#include "UploadTest.moc"
