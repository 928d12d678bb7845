#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonObject>
#include <QProcess>
#include <QTest>

#include <csignal>
#include <functional>
#include <memory>
#include <sys/timex.h>
#include <vector>

#include "Device.h"
#include "Tls.h"
#include "Upstream.h"

Q_DECLARE_METATYPE(TestCertificate)

namespace {

const QByteArray Value = "/api/getData?path=player:player/volume&roles=value";

QString url(int port, const QByteArray& target)
{
    return QStringLiteral("https://127.0.0.1:%1%2").arg(port).arg(QString::fromLatin1(target));
}

QByteArray setSetting(const char* name, const QJsonObject& value)
{
    const QString path = QStringLiteral("settings:webserver/") + name;
    return QJsonDocument({ { "path", path }, { "role", "value" }, { "value", value } }).toJson();
}

QByteArray setCertificate(const QByteArray& pem)
{
    return setSetting("httpsCert", { { "type", "string" }, { "value", QString(pem) } });
}

/// Sets the machine's clock, by a nanosecond. False without the privilege.
bool nudgeClock()
{
    timex change = {};
    change.modes = ADJ_SETOFFSET | ADJ_NANO;
    change.time.tv_usec = 1;
    return ::adjtimex(&change) >= 0;
}

QByteArray contentOf(const QString& name)
{
    QFile file(name);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

void replace(const QString& name, const QByteArray& content)
{
    QFile file(name);
    QVERIFY(file.open(QIODevice::WriteOnly | QIODevice::Truncate));
    file.write(content);
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
        QVERIFY(m_device->isRunning());
    }

    void theConfiguredCertificateIsServedAndTrustedByAddress()
    {
        QCOMPARE(servedCertificate(m_port), m_pair.certificate);
        const QString file = m_device->stateDirectory() + "/trusted.pem";
        replace(file, m_pair.certificate);
        const ToolResult fetched = runTool("curl", { "-sS", "--cacert", file, url(m_port, Value) });
        QCOMPARE(fetched.status, 0);
        QCOMPARE(fetched.output, m_device->get(Value).body);
    }

    void handshakes_data()
    {
        QTest::addColumn<QStringList>("arguments");
        QTest::addColumn<bool>("accepted");
        const QStringList weak{ "-cipher", "ALL:@SECLEVEL=0" };
        const QStringList tls12{ "-tls1_2" };
        QTest::newRow("TLS 1.3") << QStringList{ "-tls1_3" } << true;
        QTest::newRow("TLS 1.2") << tls12 << true;
        QTest::newRow("TLS 1.1") << QStringList{ "-tls1_1" } + weak << false;
        QTest::newRow("TLS 1.0") << QStringList{ "-tls1" } + weak << false;
        for (const char* suite : { "ECDHE-RSA-AES256-GCM-SHA384", "ECDHE-RSA-CHACHA20-POLY1305" })
            QTest::newRow(suite) << tls12 + QStringList{ "-cipher", suite } << true;
        for (const char* suite : { "AES128-GCM-SHA256", "AES256-CCM", "AES128-SHA", "ECDHE-RSA-AES128-SHA",
                 "ECDHE-RSA-AES256-SHA", "ECDHE-RSA-AES128-SHA256", "ECDHE-RSA-AES256-SHA384", "DHE-RSA-AES256-SHA256",
                 "ECDHE-RSA-CAMELLIA256-SHA384" })
            QTest::newRow(suite) << tls12 + QStringList{ "-cipher", QString(suite) + ":@SECLEVEL=0" } << false;
    }

    void handshakes()
    {
        QFETCH(QStringList, arguments);
        QFETCH(bool, accepted);
        const QByteArray said = handshake(m_port, arguments);
        QVERIFY2(said.contains("CONNECTED"), said.constData());
        QCOMPARE(said.contains("BEGIN CERTIFICATE"), accepted);
        QCOMPARE(said.contains("Cipher is (NONE)"), !accepted);
    }

    void aParkedConnectionGoesOn()
    {
        QProcess client;
        client.start("openssl", { "s_client", "-quiet", "-connect", QStringLiteral("127.0.0.1:%1").arg(m_port) });
        const QByteArray request = "GET " + Value + " HTTP/1.1\r\nHost: x\r\n\r\n";
        for (const QByteArray& part : { request, request.left(30), request.mid(30) }) {
            client.write(part);
            QTest::qWait(700);
        }
        QCOMPARE(client.readAllStandardOutput().count("HTTP/1.1 200"), 2);
        client.kill();
        client.waitForFinished();
    }

    void whatIsNoHandshakeIsDropped_data()
    {
        QTest::addColumn<QByteArray>("bytes");
        QTest::newRow("silence") << QByteArray();
        QTest::newRow("plain HTTP") << QByteArray("GET / HTTP/1.1\r\nHost: x\r\n\r\n");
        QTest::newRow("half a record head") << QByteArray("\x16\x03\x01", 3);
        QTest::newRow("a record head without its record")
            << QByteArray("\x16\x03\x01\x02\x00\x01\x00\x01\xfc\x03\x03", 11);
        QTest::newRow("a record of the greatest length")
            << QByteArray("\x16\x03\x01\xff\xff", 5) + QByteArray(4096, 'x');
    }

    void whatIsNoHandshakeIsDropped()
    {
        QFETCH(QByteArray, bytes);
        HttpConnection connection(m_port);
        connection.send(bytes);
        QVERIFY(connection.isClosedWithin(2500));
        QVERIFY(!servedCertificate(m_port).isEmpty());
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

    void silentHandshakesKeepNobodyWaiting()
    {
        std::vector<std::unique_ptr<HttpConnection>> silent;
        for (int i = 0; i < 200; ++i)
            silent.push_back(std::make_unique<HttpConnection>(m_port));
        QVERIFY(!servedCertificate(m_port).isEmpty());
        QVERIFY(silent.back()->isClosedWithin(3000));
    }

    void aPairThatDoesNotBelongTogetherIsRefusedWhenSet_data()
    {
        QTest::addColumn<QByteArray>("value");
        QTest::addColumn<bool>("accepted");
        QTest::newRow("another certificate") << makeCertificate().certificate << false;
        QTest::newRow("no PEM") << QByteArray("secret") << false;
        QTest::newRow("empty") << QByteArray() << true;
        QTest::newRow("the same again") << m_pair.certificate << true;
    }

    void aPairThatDoesNotBelongTogetherIsRefusedWhenSet()
    {
        QFETCH(QByteArray, value);
        QFETCH(bool, accepted);
        const HttpReply reply = m_device->postJson("/api/setData", setCertificate(value));
        QCOMPARE(reply.status == 200, accepted);
        QVERIFY(accepted || !reply.errorMessage().isEmpty());
        QCOMPARE(servedCertificate(m_port), m_pair.certificate);
    }

    void aNewCertificateWaitsForTheAnswersUnderWay()
    {
        const std::string answer = "HTTP/1.1 200 OK\r\nContent-Length: 5\r\n\r\nhello";
        Upstream upstream({ { "/slow", { answer, 1, false, 1000 } } });
        const int port = Device::freePort();
        Device device(httpsSettings(port, m_pair));
        QProcess curl;
        const QByteArray slow = "http://127.0.0.1:" + QByteArray::number(upstream.port()) + "/slow";
        curl.start("curl", { "-sk", url(port, "/proxy/" + slow.toBase64()) });
        QTRY_VERIFY(!upstream.lastRequest().empty());

        const TestCertificate renewed = makeCertificate(m_pair.key);
        QCOMPARE(device.postJson("/api/setData", setCertificate(renewed.certificate)).status, 200);
        QVERIFY(curl.waitForFinished());
        QCOMPARE(curl.readAll(), QByteArray("hello"));
        QTRY_COMPARE_WITH_TIMEOUT(servedCertificate(port), renewed.certificate, 5000);
        QCOMPARE(device.stop(SIGTERM), 0);
    }

    void aServerThatCannotBeMadeLeavesTheOtherRunning_data()
    {
        QTest::addColumn<TestCertificate>("pair");
        QTest::addColumn<QByteArray>("modules");
        QTest::addColumn<QByteArray>("line");
        const TestCertificate other = makeCertificate();
        QTest::newRow("a key of another certificate") << TestCertificate{ m_pair.certificate,
            other.key } << QByteArray() << QByteArray("ERROR Webserver: Load certificate failed: ");
        QTest::newRow("no certificate") << TestCertificate{ "x", other.key } << QByteArray()
                                        << QByteArray("ERROR Webserver: Load certificate failed: ");
        QTest::newRow("no TLS library") << m_pair << QByteArray("/nonexistent")
                                        << QByteArray("FATAL Webserver: TLS is not available: ");
    }

    void aServerThatCannotBeMadeLeavesTheOtherRunning()
    {
        QFETCH(TestCertificate, pair);
        QFETCH(QByteArray, modules);
        QFETCH(QByteArray, line);
        const int port = Device::freePort();
        if (!modules.isEmpty())
            qputenv("GIO_MODULE_DIR", modules);
        Device device(httpsSettings(port, pair));
        qunsetenv("GIO_MODULE_DIR");
        QVERIFY(device.isRunning());
        QCOMPARE(device.get(Value).status, 200);
        QVERIFY(!HttpConnection(port).isConnected());
        QCOMPARE(device.stop(SIGTERM), 0);
        const QByteArray log = device.log();
        QVERIFY2(log.contains(line), log.constData());
        QCOMPARE(log.count("FATAL Webserver: Failed to create server on port: " + QByteArray::number(port)), 1);
    }

    void theDeviceCertificateIsTrustedThroughTheAuthority()
    {
        // A name that somebody has prepared must lead nowhere.
        const QString victim = m_device->stateDirectory() + "/victim";
        replace(victim, "untouched");
        // Under the lock: other devices, of tests that run beside this one, have their work files there.
        const QStringList prepare{ "/tmp/soup-dev.lock", "ln", "-sfn", victim, "/tmp/soup-key.pem" };
        QCOMPARE(runTool("flock", prepare).status, 0);
        const int port = Device::freePort();
        Device device({ QStringLiteral("settings:webserver/httpsPort=%1").arg(port) });
        const QString authority = device.stateDirectory() + "/authority.pem";

        QVERIFY(isTrusted(port, authority));
        const ToolResult fetched = runTool("curl", { "-sS", "--cacert", authority, url(port, Value) });
        QCOMPARE(fetched.output, device.get(Value).body);
        QVERIFY(runTool("curl", { "-sS", url(port, Value) }).status != 0);

        const QByteArray subject = certificateText(servedCertificate(port), { "-subject", "-nameopt", "compat" });
        QVERIFY2(subject.endsWith("/CN=Tidekit-device\n"), subject.constData());
        QCOMPARE(contentOf(victim), QByteArray("untouched"));
        QCOMPARE(QFileInfo("/tmp/soup-key.pem").permissions() & 0x77, QFile::Permissions());
    }

    void theAuthorityStaysAndASignalReadsItAgain()
    {
        const int port = Device::freePort();
        Device device({ QStringLiteral("settings:webserver/httpsPort=%1").arg(port) });
        const QString file = device.stateDirectory() + "/authority.pem";
        const QByteArray authority = contentOf(file);
        QCOMPARE(device.stop(SIGTERM), 0);
        QVERIFY(device.start());
        QCOMPARE(contentOf(file), authority);
        const QByteArray before = servedCertificate(port);

        // A file that is half there is refused, and what was in use goes on.
        const TestCertificate other = makeCertificate();
        replace(file, other.certificate.left(100));
        ::kill(pid_t(device.pid()), SIGHUP);
        QTRY_VERIFY(device.log().contains("authority.pem: The certificate is not readable as PEM"));
        QTRY_VERIFY_WITH_TIMEOUT(!servedCertificate(port).isEmpty(), 10000);

        replace(file, other.certificate);
        replace(device.stateDirectory() + "/authority-key.pem", other.key);
        ::kill(pid_t(device.pid()), SIGHUP);
        QTRY_VERIFY_WITH_TIMEOUT(isTrusted(port, file), 10000);
        QVERIFY(servedCertificate(port) != before);
        QCOMPARE(device.get(Value).status, 200);
    }

    void anAuthorityThatCannotBeUsedIsSetAsideAndMadeAnew()
    {
        const int port = Device::freePort();
        Device device({ QStringLiteral("settings:webserver/httpsPort=%1").arg(port) });
        const QDir state(device.stateDirectory());
        const QString certificate = state.filePath("authority.pem");
        const QString key = state.filePath("authority-key.pem");
        const QByteArray valid = contentOf(certificate);
        const auto expire = [&] {
            runTool("openssl", { "x509", "-in", certificate, "-signkey", key, "-days", "-1", "-out", certificate });
        };
        const std::vector<std::function<void()>> damages{ [&] { replace(certificate, {}); },
            [&] { QFile::remove(key); }, [&] { replace(key, m_pair.key); }, expire };
        for (const auto& damage : damages) {
            QCOMPARE(device.stop(SIGTERM), 0);
            const QByteArray before = contentOf(certificate);
            damage();
            replace(key + ".new", "left by a kill");
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
        replace(tool, "#!/bin/bash\nexport PATH=" + path + "\nexec openssl \"${@/365/20}\"\n");
        QFile::setPermissions(tool, QFile::Permissions(0x7700));
        qputenv("PATH", QFile::encodeName(tools->path()) + ':' + path);
        const int port = Device::freePort();
        Device device({ QStringLiteral("settings:webserver/httpsPort=%1").arg(port) });
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
        const auto use = [this](bool device) {
            const QJsonObject value{ { "type", "bool" }, { "value", device } };
            return m_device->postJson("/api/setData", setSetting("httpsUseDeviceCert", value)).status;
        };
        QCOMPARE(use(true), 200);
        const QByteArray authority = makeCertificate(m_pair.key).certificate;
        QCOMPARE(m_device->postJson("/api/setData", setCertificate(authority)).status, 200);
        QTest::qWait(1000);
        QCOMPARE(servedCertificate(m_port), m_pair.certificate);
        QCOMPARE(m_device->postJson("/api/setData", setCertificate(m_pair.certificate)).status, 200);
        QCOMPARE(use(false), 200);
    }

    void aRestartGivesTheDescriptorsOfHandshakesBack()
    {
        const int port = Device::freePort();
        Device device(httpsSettings(port, m_pair));
        servedCertificate(port);
        const QDir descriptors(QStringLiteral("/proc/%1/fd").arg(device.pid()));
        const auto count = [&] {
            return descriptors.entryList(QDir::System | QDir::Files).size();
        };
        const auto most = count() + 3; // A restart makes some threads, which have something to wake them by.
        for (int round = 0; round < 2; ++round) {
            std::vector<std::unique_ptr<HttpConnection>> silent;
            for (int i = 0; i < 20; ++i)
                silent.push_back(std::make_unique<HttpConnection>(port));
            QTRY_VERIFY(count() > most);
            const TestCertificate renewed = makeCertificate(m_pair.key);
            QCOMPARE(device.postJson("/api/setData", setCertificate(renewed.certificate)).status, 200);
            QTRY_COMPARE_WITH_TIMEOUT(servedCertificate(port), renewed.certificate, 5000);
            QTRY_VERIFY2(count() <= most, qPrintable(QString::number(count() - most)));
        }
    }

    void aSecondHandshakeThatStallsGivesItsDescriptorBack()
    {
        const int port = Device::freePort();
        Device device(httpsSettings(port, m_pair) + QStringList{ "settings:webserver/limits/idleSeconds=3" });
        const QDir descriptors(QStringLiteral("/proc/%1/fd").arg(device.pid()));
        servedCertificate(port);
        const auto before = descriptors.entryList(QDir::System | QDir::Files).size();
        QProcess client;
        client.setProcessChannelMode(QProcess::MergedChannels);
        client.start("openssl", { "s_client", "-tls1_2", "-connect", QStringLiteral("127.0.0.1:%1").arg(port) });
        client.write("GET " + Value + " HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n");
        QTRY_VERIFY(client.peek(100000).contains("200 OK"));
        // The device finds the beginning of a handshake whose client says nothing more.
        ::kill(pid_t(device.pid()), SIGSTOP);
        client.write("R\n");
        QTRY_VERIFY(client.peek(100000).contains("RENEGOTIATING"));
        QTest::qWait(200);
        ::kill(pid_t(client.processId()), SIGSTOP);
        ::kill(pid_t(device.pid()), SIGCONT);
        QTRY_VERIFY(descriptors.entryList(QDir::System | QDir::Files).size() > before);
        QTRY_COMPARE_WITH_TIMEOUT(descriptors.entryList(QDir::System | QDir::Files).size(), before, 15000);
        client.kill();
        client.waitForFinished();
    }

    void signalsThatKeepComingDoNotPutTheRenewalOff()
    {
        Upstream upstream({ { "/hang", { "", 1, true } } });
        const int port = Device::freePort();
        Device device({ QStringLiteral("settings:webserver/httpsPort=%1").arg(port) });
        const QByteArray before = servedCertificate(port);
        QProcess waiting;
        const QByteArray hang = "http://127.0.0.1:" + QByteArray::number(upstream.port()) + "/hang";
        waiting.start("curl", { "-sk", url(port, "/proxy/" + hang.toBase64()) });
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
        const QByteArray english = "settings:ui/language";
        const auto languageOf = [this] {
            const QByteArray https =
                runTool("curl", { "-sSik", "-H", "Accept-Language: xx", url(m_port, Value) }).output;
            const int from = https.indexOf("Content-Language: ");
            return m_device->get(Value, { "Accept-Language: xx" }).header("Content-Language") + ' '
                + (from < 0 ? QByteArray() : https.mid(from + 18, 2));
        };
        QCOMPARE(languageOf(), QByteArray("en en"));
        QCOMPARE(
            m_device->postJson("/api/setData", R"({"path":")" + english + R"(","role":"value","value":"de"})").status,
            200);
        QCOMPARE(languageOf(), QByteArray("de de"));
        QVERIFY(m_device->get(Value).header("Content-Language").isNull());
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
