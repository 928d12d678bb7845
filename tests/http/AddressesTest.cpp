#include <QtTest>

#include <memory>

#include "Device.h"
#include "Namespace.h"
#include "Tls.h"

namespace {

const QByteArray Updating = "Updating IP addr list: ";

bool ip(const QString& arguments)
{
    return runTool("ip", arguments.split(' ')).status == 0;
}

} // namespace

/// The device certificate follows the addresses of this machine's interfaces.
class AddressesTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void init()
    {
        // Interfaces that make themselves no IPv6 address have the test's alone, and none that comes later.
        for (const char* interface : { "default", "zark0" })
            writeFile(QStringLiteral("/proc/sys/net/ipv6/conf/%1/addr_gen_mode").arg(interface), "1");
        m_device.reset(); // The one of the test before would follow these changes, too.
        QVERIFY(ip("address flush dev zark0") && ip("address add 192.0.2.1/24 dev zark0"));
        m_port = Device::freePort();
        m_device =
            std::make_unique<Device>(QStringList{ QStringLiteral("settings:webserver/httpsPort=%1").arg(m_port) });
    }

    void theCertificateFollowsAndTheKeyStays()
    {
        QVERIFY(names().contains("IP Address:192.0.2.1, IP Address:127.0.0.1"));
        const QByteArray key = publicKey();
        QVERIFY(ip("address add 192.0.2.77/24 dev zark0"));
        QTRY_VERIFY_WITH_TIMEOUT(names().contains("IP Address:192.0.2.1, IP Address:192.0.2.77, "), 20000);
        QCOMPARE(publicKey(), key);
        QVERIFY(ip("address add 2001:db8::7/64 dev zark0 nodad"));
        QTRY_VERIFY_WITH_TIMEOUT(names().contains("2001:DB8:0:0:0:0:0:7"), 20000);
        QVERIFY(ip("address del 192.0.2.77/24 dev zark0"));
        QTRY_VERIFY_WITH_TIMEOUT(isServedWithout("192.0.2.77"), 20000);
        QCOMPARE(publicKey(), key);
        QVERIFY(isTrusted(m_port, m_device->stateDirectory() + "/authority.pem", "192.0.2.1"));
    }

    void theSameAddressesInAnotherOrderChangeNothing()
    {
        QVERIFY(ip("address add 192.0.2.77/24 dev zark0"));
        QTRY_VERIFY_WITH_TIMEOUT(names().contains("192.0.2.77"), 20000);
        const QByteArray before = servedCertificate(m_port);
        QTRY_COMPARE(m_device->log().count(Updating), 2);
        // Moved to another interface: the list is told anew, in another order, with the same members.
        QVERIFY(ip("link add aaa0 type veth peer name aaa1") && ip("link set aaa0 up") && ip("link set aaa1 up"));
        QVERIFY(ip("address add 192.0.2.77/32 dev aaa0") && ip("address del 192.0.2.77/24 dev zark0"));
        QTRY_VERIFY(m_device->value("system:network/info").contains("192.0.2.77"));
        QTest::qWait(1500);
        QVERIFY(ip("link del aaa0"));
        QTRY_VERIFY_WITH_TIMEOUT(isServedWithout("192.0.2.77"), 20000);
        QVERIFY(!before.isEmpty());
        QTRY_COMPARE(m_device->log().count(Updating), 3); // For the removal.
        QTest::qWait(300);
        QCOMPARE(m_device->log().count(Updating), 3);
    }

    void noAddressStopsHttpsAndTheNextStartsIt()
    {
        QVERIFY(HttpConnection(m_port).isConnected());
        QVERIFY(ip("address flush dev zark0"));
        QTRY_VERIFY_WITH_TIMEOUT(!HttpConnection(m_port).isConnected(), 20000);
        QCOMPARE(m_device->get("/api/getData?path=player:player/volume&roles=value").status, 200);
        QVERIFY(ip("address add 192.0.2.5/24 dev zark0"));
        QTRY_VERIFY_WITH_TIMEOUT(names().contains("IP Address:192.0.2.5, IP Address:127.0.0.1"), 20000);
    }

private:
    QByteArray names() const { return certificateText(servedCertificate(m_port), { "-ext", "subjectAltName" }); }
    // One look: between two the server may have stopped for the next certificate.
    bool isServedWithout(const QByteArray& address) const
    {
        const QByteArray served = names();
        return !served.isEmpty() && !served.contains(address);
    }
    QByteArray publicKey() const { return certificateText(servedCertificate(m_port), { "-pubkey" }); }

    int m_port = 0;
    std::unique_ptr<Device> m_device;
};

NAMESPACE_TEST_MAIN(AddressesTest)

#include "AddressesTest.moc"
