#include <QSignalSpy>
#include <QtTest>

#include "CMNodes.h"
#include "CMRoot.h"
#include "EventRequests.h"
#include "EventResponderShared.h"
#include "EventRewriting.h"
#include "RequestParameters.h"

class EventRequestsTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void numbers_data()
    {
        QTest::addColumn<QVariant>("value");
        QTest::addColumn<bool>("valid");
        QTest::addColumn<int>("timeout");
        QTest::newRow("text") << QVariant("17") << true << 17;
        QTest::newRow("integer") << QVariant(17LL) << true << 17;
        QTest::newRow("negative") << QVariant(-3LL) << true << -3;
        QTest::newRow("too large") << QVariant(1LL << 32) << false << 0;
        QTest::newRow("integer with a point") << QVariant(4.0) << true << 4;
        QTest::newRow("fraction") << QVariant(4.5) << false << 0;
        QTest::newRow("infinite") << QVariant(qInf()) << false << 0;
        QTest::newRow("bool") << QVariant(true) << false << 0;
        QTest::newRow("hexadecimal") << QVariant("0x10") << false << 0;
        QTest::newRow("list") << QVariant(QVariantList{ 1LL }) << false << 0;
    }
    void numbers()
    {
        QFETCH(QVariant, value);
        QFETCH(bool, valid);
        EventSubscribeData data;
        const auto only = [&value](const char* key) {
            return RequestParameters(QVariantHash{ { key, value } });
        };
        QCOMPARE(parseSubscribeData(only("timeout"), &data), valid);
        if (valid)
            QTEST(data.timeout, "timeout");
        QCOMPARE(parseSubscribeData(only("received"), &data), valid || value == 1LL << 32);
        QVERIFY(data.received >= CMEventQueue::NotCounted);
    }

    void legacyPathsAreAdded()
    {
        const auto path = [](const char* text) {
            return CMPath::fromEncoded(QLatin1String(text));
        };
        ZarkList<ZarkEventSubscribe> list;
        for (const char* text : { "a:b", "/player/x", "/other", "/playerx" })
            list.append(ZarkEventSubscribe(QVariantHash{ { "path", text }, { "type", "rows" } }));
        QVERIFY(addCurrentPaths(&list));
        QCOMPARE(list.count(), 6);
        QCOMPARE(list.at(4).path(), path("player:player/x"));
        QCOMPARE(list.at(5).path(), path("player:playerx"));
        QCOMPARE(list.at(5).type(), QStringLiteral("rows"));

        ZarkList<ZarkEvent> events{ ZarkEvent(path("player:player/x")), ZarkEvent(path("a:b")) };
        addLegacyPaths(&events);
        QCOMPARE(events.count(), 3);
        QCOMPARE(events.at(2).path(), path("/player/x"));
    }

    // An expired queue frees its mark; its id is the one that clients see.
    void anExpiredQueueIsNoLegacyQueue()
    {
        CMRootWorker root;
        EventResponderShared shared(1);
        QSignalSpy expired(shared.eventQueues(), &CMEventQueueManager::expired);
        shared.eventQueues()->setExpiry(50);
        ZarkList<ZarkEventSubscribe> none;
        const QString id = shared.eventQueues()->modifyQueue({}, none, none)->textId();
        shared.addLegacyQueue(id);
        QVERIFY(shared.isLegacyQueue(id));
        QVERIFY(expired.wait(2000));
        QVERIFY(!shared.isLegacyQueue(id));
        QVERIFY(!shared.eventQueues()->getQueue(id));
    }
};

QTEST_GUILESS_MAIN(EventRequestsTest)
#include "EventRequestsTest.moc"
