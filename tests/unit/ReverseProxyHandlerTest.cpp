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
                 "::ffff:7f00:1", "::127.0.0.1", "64:ff9b::127.0.0.1", "64:ff9b::7f00:1",
                 "2002:7f00:1::", "198.51.100.7", "::ffff:198.51.100.7", "2001:db8::7", "2001:db8::7%eth0", "" })
            QTest::newRow(*address ? address : "none") << address << false;
    }

    void remoteClientsFetchOnlyWhatIsElsewhere()
    {
        QFETCH(QString, address);
        const QList<QHostAddress> own{ QHostAddress("198.51.100.7"), QHostAddress("2001:db8::7") };
        QTEST(ReverseProxyHandler::isFetchableForRemote(QHostAddress(address), own), "fetchable");
        QVERIFY(!ReverseProxyHandler::isFetchableForRemote(QHostAddress(address), {}));
    }

    void theListDecidesWhichHostsAreFetched()
    {
        const auto isAllowed = [](const ZarkValue& list) {
            return ReverseProxyHandler::isAllowedHost(QStringLiteral("a.example"), list);
        };
        QVERIFY(isAllowed({}));
        QVERIFY(isAllowed(ZarkValue::fromStringList({})));
        QVERIFY(isAllowed(ZarkValue::fromStringList({ "b.example", "A.Example" })));
        QVERIFY(!isAllowed(ZarkValue::fromStringList({ "b.example" })));
        QVERIFY(!isAllowed(ZarkValue::fromString(QStringLiteral("a.example"))));
    }

    void aClientLeavesSomethingOfTheBudgetToOthers()
    {
        const auto budget = QSharedPointer<FetchBudget>::create(FetchBudget::Limits{ 3, 2, 100 });
        const QString one = QStringLiteral("192.0.2.1");
        const QString other = QStringLiteral("192.0.2.2");
        QSharedPointer<FetchBudget::Share> first = budget->admit(one);
        QSharedPointer<FetchBudget::Share> second = budget->admit(one);
        QVERIFY(first && second && !budget->admit(one));
        QVERIFY(first->hold(30) && !second->hold(21) && second->hold(20));
        const QSharedPointer<FetchBudget::Share> third = budget->admit(other);
        QVERIFY(third && !budget->admit(QStringLiteral("192.0.2.3")));
        QVERIFY(!third->hold(51) && third->hold(50));
        first.reset();
        QVERIFY(second->hold(30) && !second->hold(1));
        QVERIFY(budget->admit(one));
    }
};

QTEST_GUILESS_MAIN(ReverseProxyHandlerTest)

#include "ReverseProxyHandlerTest.moc"
