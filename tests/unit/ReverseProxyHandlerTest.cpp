#include <QHostAddress>
#include <QtTest>

#include "ReverseProxyHandler.h"
#include "Rows.h"

class ReverseProxyHandlerTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void remoteClientsFetchOnlyWhatIsElsewhere()
    {
        Rows<QString, bool> row;
        for (const char* address : { "192.0.2.1", "10.0.0.1", "8.8.8.8", "169.253.255.255", "169.255.0.0", "128.0.0.1",
                 "1.0.0.0", "2001:db8::1", "fd00::1", "::ffff:192.0.2.1", "64:ff9b::192.0.2.1", "2002:c000:201::1" })
            row(address, address, true);
        for (const char* address : { "127.0.0.1", "127.255.255.254", "0.0.0.0", "0.1.2.3", "169.254.169.254", "::1",
                 "::", "fe80::1", "febf::1", "fe80::1%eth0", "::ffff:127.0.0.1", "::ffff:0.0.0.0", "::ffff:169.254.0.1",
                 "::ffff:7f00:1", "::127.0.0.1", "64:ff9b::127.0.0.1", "64:ff9b::7f00:1",
                 "2002:7f00:1::", "198.51.100.7", "::ffff:198.51.100.7", "2001:db8::7", "2001:db8::7%eth0", "" })
            row(*address ? address : "none", address, false);
        for (const auto& [address, fetchable] : row) {
            const QList<QHostAddress> own{ QHostAddress("198.51.100.7"), QHostAddress("2001:db8::7") };
            QCOMPARE(ReverseProxyHandler::isFetchableForRemote(QHostAddress(address), own), fetchable);
            QVERIFY(!ReverseProxyHandler::isFetchableForRemote(QHostAddress(address), {}));
        }
    }

    void aListOfAnotherTypeAllowsNothing()
    {
        QVERIFY(ReverseProxyHandler::isAllowedHost("a.example", {}));
        QVERIFY(!ReverseProxyHandler::isAllowedHost("a.example", ZarkValue::fromString("a.example")));
    }
};

QTEST_GUILESS_MAIN(ReverseProxyHandlerTest)

#include "ReverseProxyHandlerTest.moc"
