#include <QHostAddress>
#include <QTest>

#include "ReverseProxyHandler.h"

class ReverseProxyHandlerTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void remoteClientsFetchOnlyWhatIsElsewhere_data()
    {
        QTest::addColumn<QString>("address");
        QTest::addColumn<bool>("fetchable");
        for (const char* address : { "192.0.2.1", "10.0.0.1", "8.8.8.8", "169.253.255.255", "169.255.0.0", "128.0.0.1",
                 "1.0.0.0", "2001:db8::1", "fd00::1", "::ffff:192.0.2.1", "64:ff9b::192.0.2.1", "2002:c000:201::1" })
            QTest::newRow(address) << address << true;
        for (const char* address : { "127.0.0.1", "127.255.255.254", "0.0.0.0", "0.1.2.3", "169.254.169.254", "::1",
                 "::", "fe80::1", "febf::1", "fe80::1%eth0", "::ffff:127.0.0.1", "::ffff:0.0.0.0", "::ffff:169.254.0.1",
                 "::ffff:7f00:1", "::127.0.0.1", "64:ff9b::127.0.0.1", "64:ff9b::7f00:1", "2002:7f00:1::", "" })
            QTest::newRow(*address ? address : "none") << address << false;
    }

    void remoteClientsFetchOnlyWhatIsElsewhere()
    {
        QFETCH(QString, address);
        QTEST(ReverseProxyHandler::isFetchableForRemote(QHostAddress(address)), "fetchable");
    }
};

QTEST_GUILESS_MAIN(ReverseProxyHandlerTest)

#include "ReverseProxyHandlerTest.moc"
