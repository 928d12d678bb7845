#include <QRandomGenerator>
#include <QtTest>

#include <malloc.h>

#include "CMEventQueueManager.h"
#include "CMListNode.h"
#include "CMNodes.h"
#include "CMRoot.h"
#include "CMValueNode.h"
#include "EventPoll.h"

namespace {

const CMPath VolumePath = CMPath::fromEncoded(QStringLiteral("test:volume"));
const CMPath ListPath = CMPath::fromEncoded(QStringLiteral("test:list"));

CMListNode::Row row(int content)
{
    return { { ZarkRoles::Title(), content } };
}

/// A client's copy of a list, kept as the queue's header tells.
class Mirror {
public:
    void read(const CMListNode* list)
    {
        m_rows.clear();
        for (int i = 0; i < list->rowsCount(); ++i)
            m_rows.append(list->row(i).value(ZarkRoles::Title()));
        m_version = list->rowsVersion();
    }

    void receive(const ZarkEvent& event, const CMListNode* list)
    {
        if (event.rowsEvents().first().type() == ZarkRowEventType::Reset)
            return read(list);
        for (const ZarkRowEvent& change : event.rowsEvents()) {
            if (change.version() > m_version)
                apply(change);
        }
        ++m_answersApplied;
        m_version = qMax(m_version, event.rowsVersion());
        readUnread(list);
    }

    void readUnread(const CMListNode* list)
    {
        if (list->rowsVersion() != m_version)
            return; // As getRows() with a version: outdated.
        for (int i = 0; i < m_rows.count(); ++i) {
            if (!m_rows.at(i).isValid())
                m_rows[i] = list->row(i).value(ZarkRoles::Title());
        }
    }

    QVariantList rows() const { return m_rows; }
    int answersApplied() const { return m_answersApplied; } ///< Without reading all rows again.

private:
    void apply(const ZarkRowEvent& change)
    {
        if (change.type() == ZarkRowEventType::Inserted)
            m_rows.insert(change.index(), QVariant());
        else if (change.type() == ZarkRowEventType::Removed)
            m_rows.removeAt(change.index());
        else if (change.type() == ZarkRowEventType::Updated)
            m_rows[change.index()] = QVariant();
        else
            m_rows.move(change.index(), change.toIndex());
    }

    QVariantList m_rows; // Invalid: known to be there, not read.
    qint64 m_version = 0;
    int m_answersApplied = 0;
};

} // namespace

class EventMirrorTest : public QObject {
    Q_OBJECT

private:
    CMRootWorker m_root;
    CMNodes m_nodes{ m_root.tree() };
    CMEventQueueManager m_manager;
    CMValueNode* m_volume = CMValueNode::create(&m_nodes, VolumePath, ZarkValue::fromI32(0));
    CMListNode* m_list = CMListNode::create(&m_nodes, ListPath);

    CMEventQueue* createQueue(ZarkList<ZarkEventSubscribe> subscribe)
    {
        ZarkList<ZarkEventSubscribe> none;
        return m_manager.modifyQueue({}, subscribe, none);
    }

    void changeRows(QRandomGenerator& random, int content)
    {
        const int count = m_list->rowsCount();
        const int index = random.bounded(qMax(1, count));
        const int kind = random.bounded(count > 200 ? 3 : 4);
        bool changed = false;
        if (count == 0 || kind == 3)
            changed = m_list->insertRow(random.bounded(count + 1), row(content));
        else if (kind == 0)
            changed = m_list->removeRow(index);
        else if (kind == 1)
            changed = m_list->updateRow(index, row(content));
        else
            changed = m_list->moveRow(index, random.bounded(count)) || count == 1;
        QVERIFY(changed);
    }

    QVariantList listRows() const
    {
        QVariantList rows;
        for (int i = 0; i < m_list->rowsCount(); ++i)
            rows.append(m_list->row(i).value(ZarkRoles::Title()));
        return rows;
    }

private Q_SLOTS:
    void mirrorsAList_data()
    {
        QTest::addColumn<bool>("counts");
        QTest::addColumn<bool>("racing");
        for (const bool racing : { false, true }) {
            const char* const reads = racing ? "reads overtaken by changes" : "reads at once";
            QTest::addRow("server settles, %s", reads) << false << racing;
            QTest::addRow("client counts, %s", reads) << true << racing;
        }
    }
    void mirrorsAList()
    {
        QFETCH(bool, counts);
        QFETCH(bool, racing);
        QRandomGenerator random(counts ? 11 : 12);
        CMEventQueue* queue = createQueue({ subscription(ListPath, "rows"), subscription(VolumePath) });
        Mirror mirror;
        mirror.read(m_list);
        int volume = 0;
        qint64 received = 0;
        const auto ask = [&](int timeout) {
            return poll(queue, timeout, Settles, counts ? received : CMEventQueue::NotCounted);
        };
        const auto receive = [&](const Poll& poll) {
            received += poll.answer->events.isEmpty() ? 0 : 1;
            for (const ZarkEvent& event : poll.answer->events) {
                if (event.path() == ListPath)
                    mirror.receive(event, m_list);
                else
                    volume = ZarkValue(event.roles().value(ZarkRoles::Value())).i32();
            }
        };

        int lost = 0;
        for (int content = 1; content <= 5000;) {
            for (int burst = random.bounded(random.bounded(100) == 0 ? 1500 : 8); burst > 0; --burst)
                changeRows(random, ++content);
            m_volume->setMeasured(ZarkValue::fromI32(content));
            const bool waits = random.bounded(2) == 0;
            const Poll first = ask(waits ? 300 : 0);
            if (waits) {
                changeRows(random, ++content);
                QCoreApplication::processEvents();
            }
            QVERIFY(first.answer->done);
            const int fate = random.bounded(6);
            if (racing && fate > 2)
                changeRows(random, ++content); // After the answer was sent and before the client reads the rows.
            if (racing && fate > 4)
                mirror.read(m_list); // At once, between two answers: what it has yet to receive happened in part.
            if (fate > 1) {
                receive(first);
                queue->confirm(first.token);
                continue;
            }
            ++lost;
            // A client that counts is served right even when the server is wrong about the connection's end.
            if (fate == 1)
                counts&& lost % 2 ? queue->confirm(first.token) : queue->restore(first.token);
        }
        QVERIFY(lost > 100 && mirror.answersApplied() > 100);
        const Poll last = ask(0);
        receive(last);
        queue->confirm(last.token);
        mirror.readUnread(m_list);
        QCOMPARE(mirror.rows(), listRows());
        QCOMPARE(volume, m_volume->value().i32());
        QVERIFY(ask(0).answer->events.isEmpty());
    }

    void isBounded_data()
    {
        QTest::addColumn<int>("changes");
        QTest::newRow("many changes of each list") << 100000;
        QTest::newRow("few changes of each list, many in all") << 10000;
    }
    void isBounded()
    {
        QFETCH(int, changes);
        ZarkList<ZarkEventSubscribe> all{ subscription(VolumePath) };
        QVector<CMListNode*> lists;
        for (int i = 0; i < 11; ++i) {
            const CMPath path = ListPath.child(QString::number(changes + i));
            all.append(subscription(path, "rows"));
            lists.append(CMListNode::create(&m_nodes, path));
        }
        CMEventQueue* queue = createQueue(all);
        for (CMListNode* list : qAsConst(lists))
            list->insertRow(0, row(0));
        const size_t before = mallinfo2().uordblks;
        for (int i = 1; i <= changes; ++i) {
            CMListNode* list = lists.at(i % lists.count());
            i % 2 ? list->moveRow(0, 0) : list->updateRow(0, row(i));
            m_volume->setMeasured(ZarkValue::fromI32(i));
        }
        const qint64 grown = qint64(mallinfo2().uordblks) - qint64(before);
        QVERIFY2(grown < 256 * 1024, qPrintable(QString::number(grown)));
        const auto countRowEvents = [queue] {
            int count = 0;
            const ZarkList<ZarkEvent> events = poll(queue, 0).answer->events;
            for (const ZarkEvent& event : events)
                count += event.rowsEvents().count();
            return count;
        };
        const int rowEvents = countRowEvents();
        QVERIFY2(rowEvents >= lists.count() && rowEvents < CMPendingChanges::MaximumRowEvents,
            qPrintable(QString::number(rowEvents)));

        // A queue that is polled never gets there, however long it lives.
        for (int i = 1; i <= 2 * CMPendingChanges::MaximumRowEvents; ++i) {
            lists.at(i % lists.count())->moveRow(0, 0);
            if (i % 500 == 0)
                QCOMPARE(countRowEvents(), 500);
        }
    }
};

QTEST_GUILESS_MAIN(EventMirrorTest)
#include "EventMirrorTest.moc"
