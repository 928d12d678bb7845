#include <QtTest>

#include <array>
#include <csignal>
#include <functional>
#include <memory>
#include <sys/timex.h>
#include <vector>

#include "Device.h"
#include "Rows.h"
#include "Tls.h"
#include "Upstream.h"

namespace {

const QByteArray Value = "/api/getData?path=player:player/volume&roles=value";

QString url(int port, const QByteArray& target)
{
    return QStringLiteral("https://127.0.0.1:%1%2").arg(port).arg(QString::fromLatin1(target));
}

int setCertificate(const Device& device, const QByteArray& pem)
{
    return device.set("settings:webserver/httpsCert", '"' + QByteArray(pem).replace("\n", "\\n") + '"');
}

QStringList httpsPort(int port)
{
    return { QStringLiteral("settings:webserver/httpsPort=%1").arg(port) };
}

/// Sets the machine's clock, by a nanosecond. False without the privilege.
bool nudgeClock()
{
    timex change = {};
    change.modes = ADJ_SETOFFSET | ADJ_NANO;
    change.time.tv_usec = 1;
    return ::adjtimex(&change) >= 0;
}

} // namespace

/// HTTPS with a configured certificate, and with the device certificate under the development authority.
class HttpsTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void initTestCase()
    {
        m_pair = makeCertificate();
        QVERIFY(!m_pair.key.isEmpty());
        m_port = Device::freePort();
        const QStringList limits{ "settings:webserver/limits/headerSeconds=1" };
        // Editors and shells drop the last line end.
        const TestCertificate trimmed{ m_pair.certificate.trimmed(), m_pair.key.trimmed() };
        m_device = std::make_unique<Device>(httpsSettings(m_port, trimmed) + limits);
    }

    void handshakes()
    {
        Rows<QStringList, bool> row;
        const QStringList weak{ "-cipher", "ALL:@SECLEVEL=0" };
        const QStringList tls12{ "-tls1_2" };
        row("TLS 1.3", QStringList{ "-tls1_3" }, true);
        row("TLS 1.2", tls12, true);
        row("TLS 1.1", QStringList{ "-tls1_1" } + weak, false);
        row("TLS 1.0", QStringList{ "-tls1" } + weak, false);
        for (const char* suite : { "ECDHE-RSA-AES256-GCM-SHA384", "ECDHE-RSA-CHACHA20-POLY1305" })
            row(suite, tls12 + QStringList{ "-cipher", suite }, true);
        for (const char* suite : { "AES128-GCM-SHA256", "AES256-CCM", "AES128-SHA", "ECDHE-RSA-AES128-SHA",
                 "ECDHE-RSA-AES256-SHA", "ECDHE-RSA-AES128-SHA256", "ECDHE-RSA-AES256-SHA384", "DHE-RSA-AES256-SHA256",
                 "ECDHE-RSA-CAMELLIA256-SHA384" })
            row(suite, tls12 + QStringList{ "-cipher", QString(suite) + ":@SECLEVEL=0" }, false);
        for (const auto& [arguments, accepted] : row) {
            const QByteArray said = handshake(m_port, arguments);
            QVERIFY2(said.contains("CONNECTED"), said.constData());
            QCOMPARE(said.contains("BEGIN CERTIFICATE"), accepted);
            QCOMPARE(said.contains("Cipher is (NONE)"), !accepted);
        }
    }

    // Nor do those who ask late count as slow to shake hands.
    void aParkedConnectionGoesOn()
    {
        const int port = Device::freePort();
        const Device device(httpsSettings(port, m_pair));
        std::array<QProcess, 8> clients;
        for (QProcess& client : clients)
            client.start("openssl", { "s_client", "-quiet", "-connect", QStringLiteral("127.0.0.1:%1").arg(port) });
        QTest::qWait(1700);
        const QByteArray request = "GET " + Value + " HTTP/1.1\r\nHost: x\r\n\r\n";
        const QByteArray malformed = "GET / HTTP/1.1\r\nHost: x\r\nX : v\r\n\r\n";
        for (const QByteArray& part : { request, request.left(30), request.mid(30), malformed }) {
            for (QProcess& client : clients)
                client.write(part);
            QTest::qWait(700);
        }
        for (QProcess& client : clients) {
            const QByteArray answers = client.readAllStandardOutput();
            QCOMPARE(answers.count("HTTP/1.1 200"), 2);
            QCOMPARE(answers.count("HTTP/1.1 400"), 1); // The guard sees what was decrypted.
            client.kill();
            client.waitForFinished();
        }
    }

    void whatIsNoHandshakeIsDropped()
    {
        // The beginning of a handshake; a record of the greatest length.
        const QByteArray half("\x16\x03\x01\x02\x00\x01\x00\x01\xfc\x03\x03", 11);
        const QByteArray much = QByteArray("\x16\x03\x01\xff\xff", 5) + QByteArray(4096, 'x');
        Connections connections;
        for (const QByteArray& bytes : { QByteArray(), httpRequest("GET", "/"), half.left(3), half, much }) {
            connections.emplace_back(m_port);
            connections.back().send(bytes);
        }
        QVERIFY(!servedCertificate(m_port).isEmpty()); // They keep nobody waiting.
        for (HttpConnection& connection : connections)
            QVERIFY(connection.isClosedWithin(2500));
    }

    void aHandshakeThatDripsIsDroppedByTheSameDeadline()
    {
        HttpConnection connection(m_port);
        const QByteArray hello = QByteArray("\x16\x03\x01\x02\x00\x01\x00\x01\xfc\x03\x03", 11);
        int sent = 0;
        while (sent < 30 && !connection.isClosedWithin(100) && connection.send(hello.mid(sent % hello.size(), 1)))
            ++sent;
        QVERIFY2(sent < 25, "a byte each 100 ms kept the connection for 2.5 s");
    }

    void aPairThatDoesNotBelongTogetherIsRefusedWhenSet()
    {
        Rows<QByteArray, bool> row;
        row("another certificate", makeCertificate().certificate, false);
        row("no PEM", "secret", false);
        row("empty", {}, true);
        for (const auto& [value, accepted] : row) {
            QCOMPARE(setCertificate(*m_device, value), accepted ? 200 : 500);
            QCOMPARE(servedCertificate(m_port), m_pair.certificate);
        }
    }

    void aNewCertificateWaitsForTheAnswersUnderWay()
    {
        Upstream upstream({ "HTTP/1.1 200 OK\r\nContent-Length: 5\r\n\r\nhello", {}, 0, false, 1000 });
        const int port = Device::freePort();
        Device device(httpsSettings(port, m_pair));
        QProcess curl;
        curl.start("curl", { "-sk", url(port, "/proxy/" + upstream.url().toBase64()) });
        QTRY_VERIFY(!upstream.lastRequest().isEmpty());

        const TestCertificate renewed = makeCertificate(m_pair.key);
        QCOMPARE(setCertificate(device, renewed.certificate), 200);
        QVERIFY(curl.waitForFinished());
        QCOMPARE(curl.readAll(), QByteArray("hello"));
        QTRY_COMPARE_WITH_TIMEOUT(servedCertificate(port), renewed.certificate, 5000);
        QCOMPARE(device.stop(SIGTERM), 0);
    }

    void aServerThatCannotBeMadeLeavesTheOtherRunning()
    {
        Rows<TestCertificate, QByteArray, QByteArray> row;
        const TestCertificate other = makeCertificate();
        row("a key of another certificate", TestCertificate{ m_pair.certificate, other.key }, {},
            "ERROR Webserver: Load certificate failed: ");
        row("no TLS library", m_pair, "/nonexistent", "FATAL Webserver: TLS is not available: ");
        for (const auto& [pair, modules, line] : row) {
            const int port = Device::freePort();
            if (!modules.isEmpty())
                qputenv("GIO_MODULE_DIR", modules);
            Device device(httpsSettings(port, pair));
            qunsetenv("GIO_MODULE_DIR");
            QCOMPARE(device.get(Value).status, 200);
            QVERIFY(!HttpConnection(port).isConnected());
            QCOMPARE(device.stop(SIGTERM), 0);
            const QByteArray log = device.log();
            QVERIFY2(log.contains(line), log.constData());
            QCOMPARE(log.count("FATAL Webserver: Failed to create server on port: " + QByteArray::number(port)), 1);
        }
    }

    void theAuthorityStaysAndASignalReadsItAgain()
    {
        const int port = Device::freePort();
        Device device(httpsPort(port));
        const QString file = device.stateDirectory() + "/authority.pem";
        const QByteArray authority = contentOf(file);
        QCOMPARE(device.stop(SIGTERM), 0);
        QVERIFY(device.start());
        QCOMPARE(contentOf(file), authority);
        const QByteArray before = servedCertificate(port);

        // A file that is half there is refused, and what was in use goes on.
        const TestCertificate other = makeCertificate();
        writeFile(file, other.certificate.left(100));
        ::kill(pid_t(device.pid()), SIGHUP);
        QTRY_VERIFY(device.log().contains("authority.pem: The certificate is not readable as PEM"));
        QTRY_VERIFY_WITH_TIMEOUT(!servedCertificate(port).isEmpty(), 10000);

        writeFile(file, other.certificate);
        writeFile(device.stateDirectory() + "/authority-key.pem", other.key);
        ::kill(pid_t(device.pid()), SIGHUP);
        QTRY_VERIFY_WITH_TIMEOUT(isTrusted(port, file), 10000);
        QVERIFY(servedCertificate(port) != before);
        QCOMPARE(device.get(Value).status, 200);
    }

    void anAuthorityThatCannotBeUsedIsSetAsideAndMadeAnew()
    {
        const int port = Device::freePort();
        Device device(httpsPort(port));
        const QDir state(device.stateDirectory());
        const QString certificate = state.filePath("authority.pem");
        const QString key = state.filePath("authority-key.pem");
        const QByteArray valid = contentOf(certificate);
        const auto expire = [&] {
            runTool("openssl", { "x509", "-in", certificate, "-signkey", key, "-days", "-1", "-out", certificate });
        };
        const std::vector<std::function<void()>> damages{ [&] { writeFile(certificate, {}); },
            [&] { QFile::remove(key); }, [&] { writeFile(key, m_pair.key); }, expire };
        for (const auto& damage : damages) {
            QCOMPARE(device.stop(SIGTERM), 0);
            const QByteArray before = contentOf(certificate);
            damage();
            writeFile(key + ".new", "left by a kill");
            QVERIFY(device.start());
            QTRY_VERIFY_WITH_TIMEOUT(isTrusted(port, certificate), 10000);
            QVERIFY(contentOf(certificate) != before);
            QVERIFY(!QFile::exists(key + ".new"));
        }
        QCOMPARE(state.entryList({ "authority.pem.unusable-*" }).size(), int(damages.size()));

        // No tool to make one with costs HTTPS alone.
        QCOMPARE(device.stop(SIGTERM), 0);
        QVERIFY(QFile::remove(certificate));
        const QByteArray path = qgetenv("PATH");
        qputenv("PATH", "/nonexistent");
        const bool started = device.start();
        qputenv("PATH", path);
        QVERIFY(started);
        QCOMPARE(device.get(Value).status, 200);
        QVERIFY(!HttpConnection(port).isConnected());
    }

    void aCertificateNearItsEndIsRenewedWhenTheClockIsSet()
    {
        // Certificates of 20 days, as long as its directory is there.
        const QByteArray path = qgetenv("PATH");
        auto tools = std::make_unique<QTemporaryDir>();
        const QString tool = tools->filePath("openssl");
        writeFile(tool, "#!/bin/bash\nexport PATH=" + path + "\nexec openssl \"${@/365/20}\"\n");
        QFile::setPermissions(tool, QFile::Permissions(0x7700));
        qputenv("PATH", QFile::encodeName(tools->path()) + ':' + path);
        const int port = Device::freePort();
        Device device(httpsPort(port));
        qputenv("PATH", path);
        const QByteArray before = servedCertificate(port);
        QVERIFY(!before.isEmpty());
        tools.reset();
        if (!nudgeClock())
            QSKIP("needs the privilege to set the clock");
        QTRY_VERIFY_WITH_TIMEOUT(isRenewed(port, before), 20000);
        const QByteArray renewed = servedCertificate(port);
        QVERIFY(nudgeClock());
        QTest::qWait(1000);
        QCOMPARE(servedCertificate(port), renewed);
    }

    void aChangedUseOfTheCertificateWaitsForARestart()
    {
        const QByteArray use = "settings:webserver/httpsUseDeviceCert";
        QCOMPARE(m_device->set(use, "true"), 200);
        const QByteArray authority = makeCertificate(m_pair.key).certificate;
        QCOMPARE(setCertificate(*m_device, authority), 200);
        QTest::qWait(1000);
        QCOMPARE(servedCertificate(m_port), m_pair.certificate);
        QCOMPARE(setCertificate(*m_device, m_pair.certificate), 200);
        QCOMPARE(m_device->set(use, "false"), 200);
    }

    void aRestartGivesTheDescriptorsOfHandshakesBack()
    {
        const int port = Device::freePort();
        Device device(httpsSettings(port, m_pair));
        servedCertificate(port);
        // A restart makes some threads, which have something to wake them by.
        const int most = device.descriptors() + 3;
        for (int round = 0; round < 2; ++round) {
            Connections silent;
            for (int i = 0; i < 20; ++i)
                silent.emplace_back(port);
            QTRY_VERIFY(device.descriptors() > most);
            const TestCertificate renewed = makeCertificate(m_pair.key);
            QCOMPARE(setCertificate(device, renewed.certificate), 200);
            QTRY_COMPARE_WITH_TIMEOUT(servedCertificate(port), renewed.certificate, 5000);
            QTRY_VERIFY2(device.descriptors() <= most, qPrintable(QString::number(device.descriptors() - most)));
        }
    }

    void anotherHandshakeOnAConnectionEndsIt()
    {
        for (const QByteArray& request : { "GET " + Value + " HTTP/1.1\r\nHost: x\r\n\r\n", QByteArray() }) {
            QProcess client;
            client.setProcessChannelMode(QProcess::MergedChannels);
            client.start("openssl", { "s_client", "-tls1_2", "-connect", QStringLiteral("127.0.0.1:%1").arg(m_port) });
            client.write(request);
            QTRY_VERIFY(client.peek(100000).contains(request.isEmpty() ? "Verify return code" : "200 OK"));
            client.write("R\n");
            QVERIFY(client.waitForFinished());
            const QByteArray said = client.readAll();
            QVERIFY2(!said.mid(said.indexOf("RENEGOTIATING")).contains("verify"), said.constData());
        }
    }

    void signalsThatKeepComingDoNotPutTheRenewalOff()
    {
        Upstream upstream({ {}, {}, 0, true });
        const int port = Device::freePort();
        Device device(httpsPort(port));
        const QByteArray before = servedCertificate(port);
        QProcess waiting;
        waiting.start("curl", { "-sk", url(port, "/proxy/" + upstream.url().toBase64()) });
        QTRY_COMPARE(upstream.waiting(), 1);
        for (int i = 0; i < 16 && upstream.waiting() > 0; ++i) {
            ::kill(pid_t(device.pid()), SIGHUP);
            QTest::qWait(500);
        }
        QCOMPARE(upstream.waiting(), 0);
        QTRY_VERIFY_WITH_TIMEOUT(isRenewed(port, before), 10000);
        QCOMPARE(device.stop(SIGTERM), 0);
    }

    void aLanguageReachesBothServersAtOnce()
    {
        const QByteArray ask = "Accept-Language: xx";
        for (const QByteArray language : { "en", "de" }) {
            QCOMPARE(m_device->set("settings:ui/language", '"' + language + '"'), 200);
            const QByteArray https = runTool("curl", { "-sSik", "-H", ask, url(m_port, Value) }).output;
            QVERIFY2(https.contains("Content-Language: " + language), https.constData());
            QCOMPARE(m_device->get(Value, { ask }).header("Content-Language"), language);
        }
        QVERIFY(m_device->get(Value).header("Content-Language").isNull());
    }

    void strictTransportIsDemandedWhenTheOwnerSays()
    {
        Rows<QStringList, QByteArray> row;
        row("an answer", {}, "200 OK");
        row("none of ours", { "-H", "Transfer-Encoding: gzip" }, "400 Bad Request");
        row("a body that is waited for", { "-d", "{}", "-H", "Expect: 100-continue" }, "400 Bad Request");
        row("a body over the limit", { "--data-binary", "@/bin/bash", "-H", "Transfer-Encoding: chunked" }, "413 ");
        for (const auto& [arguments, status] : row) {
            for (const QByteArray seconds : { "600", "0" }) {
                QCOMPARE(m_device->set("settings:webserver/strictTransportSeconds", seconds), 200);
                const QByteArray said = runTool("curl", QStringList{ "-sSik", url(m_port, Value) } + arguments).output;
                const QByteArray answer = said.mid(said.lastIndexOf("HTTP/1.1 ")); // After "100 Continue".
                QVERIFY2(answer.startsWith("HTTP/1.1 " + status), said.constData());
                QCOMPARE(answer.count("Strict-Transport-Security: max-age=600\r\n"), seconds == "600" ? 1 : 0);
                QVERIFY(m_device->get(Value).header("Strict-Transport-Security").isNull());
            }
        }
    }

private:
    static bool isRenewed(int port, const QByteArray& before)
    {
        const QByteArray served = servedCertificate(port);
        return !served.isEmpty() && served != before;
    }

    TestCertificate m_pair;
    int m_port = 0;
    std::unique_ptr<Device> m_device;
};

QTEST_GUILESS_MAIN(HttpsTest)

#include "HttpsTest.moc"
