#include <QtTest>

#include "CMNodes.h"
#include "CMRoot.h"
#include "EventRequests.h"
#include "EventResponderShared.h"
#include "EventRewriting.h"
#include "RequestParameters.h"
#include "Rows.h"

class EventRequestsTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void numbers()
    {
        Rows<QVariant, bool, int> row;
        row("text", QVariant("17"), true, 17);
        row("integer", QVariant(17LL), true, 17);
        row("negative", QVariant(-3LL), true, -3);
        row("too large", QVariant(1LL << 32), false, 0);
        row("integer with a point", QVariant(4.0), true, 4);
        row("fraction", QVariant(4.5), false, 0);
        row("infinite", QVariant(qInf()), false, 0);
        row("bool", QVariant(true), false, 0);
        row("hexadecimal", QVariant("0x10"), false, 0);
        row("list", QVariant(QVariantList{ 1LL }), false, 0);
        for (const auto& [value, valid, timeout] : row) {
            EventSubscribeData data;
            const auto only = [&value](const char* key) {
                return RequestParameters(QVariantHash{ { key, value } });
            };
            QCOMPARE(parseSubscribeData(only("timeout"), &data), valid);
            if (valid)
                QCOMPARE(data.timeout, timeout);
            QCOMPARE(parseSubscribeData(only("received"), &data), valid || value == 1LL << 32);
            QVERIFY(data.received >= CMEventQueue::NotCounted);
        }
    }

    void legacyPathsAreAdded()
    {
        ZarkList<ZarkEventSubscribe> list;
        for (const char* text : { "a:b", "/player/x", "/other", "/playerx" })
            list.append(ZarkEventSubscribe(QVariantHash{ { "path", text }, { "type", "rows" } }));
        QVERIFY(addCurrentPaths(&list));
        QStringList paths;
        for (const ZarkEventSubscribe& subscribe : list)
            paths.append(subscribe.path().toEncoded());
        QCOMPARE(paths, QStringList({ "a:b", "/player/x", "/other", "/playerx", "player:player/x", "player:playerx" }));
        QCOMPARE(list.at(5).type(), QString("rows"));
        ZarkList<ZarkEvent> events{ ZarkEvent(CMPath::fromEncoded("a:b")), ZarkEvent(list.at(4).path()) };
        addLegacyPaths(&events);
        QCOMPARE(events.count(), 3);
        QCOMPARE(events.at(2).path(), list.at(1).path());
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
