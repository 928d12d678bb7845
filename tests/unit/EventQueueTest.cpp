#include <QtTest>

#include <limits>
#include <malloc.h>
#include <memory>
#include <numeric>

#include "CMEventQueueManager.h"
#include "CMListNode.h"
#include "CMNodes.h"
#include "CMRoot.h"
#include "CMValueNode.h"
#include "Rows.h"

namespace {

const CMPath VolumePath = CMPath::fromEncoded(QStringLiteral("test:values/volume"));
const CMPath LatePath = CMPath::fromEncoded(QStringLiteral("test:values/late"));
const CMPath ListPath = CMPath::fromEncoded(QStringLiteral("test:list"));
const CMPath ValuesPath = CMPath::fromEncoded(QStringLiteral("test:values"));

/// What became of one poll, from the client's side.
struct Answer {
    bool done = false;
    int calls = 0;
    ZarkList<ZarkEvent> events;
};

class Request : public CMEventQueueRequest {
public:
    Request(const std::shared_ptr<Answer>& answer, bool settles) : m_answer(answer), m_settles(settles) { }

    void done(const QUuid&, const ZarkList<ZarkEvent>& events) override
    {
        m_answer->done = true;
        ++m_answer->calls;
        m_answer->events = events;
    }
    bool mayRead(const CMPath& path) const override
    {
        const CMUINode* node = CMRoot()->tree()->node(path);
        return !node || node->permission() != ZarkPermission::Internal;
    }
    bool settles() const override { return m_settles; }

private:
    std::shared_ptr<Answer> m_answer;
    bool m_settles;
};

struct Poll {
    std::shared_ptr<Answer> answer = std::make_shared<Answer>();
    quint64 token = 0;
};

enum Settling { AtOnce, Settles };

Poll poll(CMEventQueue* queue, int timeout, Settling settling = AtOnce, qint64 received = CMEventQueue::NotCounted)
{
    Poll poll;
    poll.token = queue->poll(new Request(poll.answer, settling == Settles), timeout, received);
    return poll;
}

ZarkEventSubscribe subscription(const CMPath& path, const char* type = "item")
{
    return ZarkEventSubscribe(
        QVariantHash{ { QStringLiteral("path"), path.toEncoded() }, { QStringLiteral("type"), QLatin1String(type) } });
}

CMListNode::Row rowOf(int content)
{
    return { { ZarkRoles::Title(), content } };
}

/// Row events as text: "i3" inserted, "r3" removed, "u3" updated, "m3>5" moved, "*" reset.
QString textOf(const ZarkList<ZarkRowEvent>& events)
{
    QStringList texts;
    for (const ZarkRowEvent& event : events) {
        QString text = QStringLiteral("*irum").at(event.type());
        if (event.type() != ZarkRowEventType::Reset)
            text += QString::number(event.index());
        if (event.type() == ZarkRowEventType::Moved)
            text += QStringLiteral(">%1").arg(event.toIndex());
        texts.append(text);
    }
    return texts.join(QLatin1Char(' '));
}

/// Events as text: "volume: value=3", "late: all type=null", "list: i0"; "undated" where a timestamp is missing.
QString textOf(const ZarkList<ZarkEvent>& events)
{
    QStringList texts;
    for (const ZarkEvent& event : events) {
        const QVariantHash roles = event.roles();
        QStringList words{ event.path().name() + QLatin1Char(':') };
        if (roles.count() == CMAllRoles().count())
            words += { QStringLiteral("all type=") + roles.value(ZarkRoles::Type()).toString() };
        if (roles.contains(ZarkRoles::Title()) && roles.count() < CMAllRoles().count())
            words += QStringLiteral("title=") + roles.value(ZarkRoles::Title()).value<TrString>().source();
        if (roles.contains(ZarkRoles::Value()))
            words += QStringLiteral("value=") + ZarkValue(roles.value(ZarkRoles::Value())).plain().toString();
        if (!event.rowsEvents().isEmpty())
            words += textOf(event.rowsEvents());
        if (words.count() > 1 && !roles.contains(ZarkRoles::Timestamp()) && !words.at(1).startsWith("title"))
            words += QStringLiteral("undated");
        texts += words.join(QLatin1Char(' '));
    }
    return texts.join(QStringLiteral(", "));
}

} // namespace

class EventQueueTest : public QObject {
    Q_OBJECT

private:
    std::unique_ptr<CMRootWorker> m_root;
    std::unique_ptr<CMNodes> m_nodes;
    std::unique_ptr<CMEventQueueManager> m_manager;
    CMValueNode* m_volume = nullptr;
    CMListNode* m_list = nullptr;

    CMEventQueue* modify(
        const QString& id, ZarkList<ZarkEventSubscribe> subscribe, ZarkList<ZarkEventSubscribe> unsubscribe = {})
    {
        return m_manager->modifyQueue(id, subscribe, unsubscribe);
    }

    /// A change as the table writes it: "v3" sets the volume, "ta" its title, "i0" to "m0>2" change the list's rows,
    /// "+late", "-late", "+list" and "-list" make and destroy nodes, "hide" and "show" change the volume's permission.
    void change(const QString& word)
    {
        const QString argument = word.mid(1);
        const int index = argument.section(QLatin1Char('>'), 0, 0).toInt();
        if (word == QLatin1String("+late"))
            CMValueNode::create(m_nodes.get(), LatePath, ZarkValue::fromI32(7));
        else if (word == QLatin1String("+list"))
            m_list = CMListNode::create(m_nodes.get(), ListPath);
        else if (word.startsWith(QLatin1Char('-')))
            m_nodes->destroy(m_root->tree()->node(word == QLatin1String("-late") ? LatePath : ListPath));
        else if (word == QLatin1String("hide") || word == QLatin1String("show"))
            m_volume->setPermission(word == QLatin1String("hide") ? ZarkPermission::Internal : ZarkPermission::Default);
        else if (word.startsWith(QLatin1Char('v')))
            QVERIFY(m_volume->setMeasured(ZarkValue::fromI32(index)));
        else if (word.startsWith(QLatin1Char('t')))
            m_volume->setTitle(TrString(argument));
        else if (word.startsWith(QLatin1Char('i')))
            QVERIFY(m_list->insertRow(index, rowOf(1)));
        else if (word.startsWith(QLatin1Char('r')))
            QVERIFY(m_list->removeRow(index));
        else if (word.startsWith(QLatin1Char('u')))
            QVERIFY(m_list->updateRow(index, rowOf(2)));
        else
            QVERIFY(m_list->moveRow(index, argument.section(QLatin1Char('>'), 1).toInt()));
    }

private Q_SLOTS:
    void init()
    {
        m_root = std::make_unique<CMRootWorker>();
        m_nodes = std::make_unique<CMNodes>(m_root->tree());
        m_manager = std::make_unique<CMEventQueueManager>();
        m_volume = CMValueNode::create(m_nodes.get(), VolumePath, ZarkValue::fromI32(0));
        m_list = CMListNode::create(m_nodes.get(), ListPath);
    }
    void cleanup()
    {
        m_manager.reset();
        QCOMPARE(m_root->tree()->listenerCount(VolumePath) + m_root->tree()->listenerCount(ListPath), 0);
        m_nodes.reset();
        m_root.reset();
    }

    void tellsWhatChanged()
    {
        Rows<QString, QString> row;
        const QString many = QStringLiteral("i0 ").repeated(CMRowChanges::Maximum);
        row("the newest value", "v1 v2 v3 poll poll", "volume: value=3|");
        row("each role once", "ta v1 tb poll", "volume: title=b value=1");
        row("a node appears", "+late poll", "values: i1, late: all type=value value=7");
        row("a node vanishes", "+late poll -late poll",
            "values: i1, late: all type=value value=7|values: r1, late: all type= value=");
        row("a node is back, and its end lost", "+late poll -late settle +late lose poll",
            "values: i1, late: all type=value value=7|values: r1, late: all type= value=|"
            "values: r1 i1, late: all type=value value=7");
        row("a list is another one", "i0 -list +list i0 poll", "list: all type=list value= *");

        row("a row with another index before", "u4 i2 u4 r0 u4 m4>2 u4 poll", "list: u4 i2 u4 r0 u4 m4>2 u4");
        row("a row again and again", "u4 u1 u4 i2 u4 u4 poll", "list: u4 u1 i2 u4");
        row("as many rows as fit", many + "poll", "list: " + many.trimmed());
        row("too many rows", many + "r0 u3 poll u1 poll", "list: *|list: u1");

        row("confirmed, once more too late", "v1 settle confirm confirm poll", "volume: value=1|");
        row("lost, and the newest value", "v1 settle lose v2 poll", "volume: value=1|volume: value=2");
        row("lost rows go first", "i0 settle u0 v1 lose i3 poll", "list: i0|list: i0 u0 i3, volume: value=1");
        row("lost rows are too many", "r0 settle " + many + "lose poll", "list: r0|list: *");
        row("a lost reset", many + "i0 settle u1 lose i0 poll", "list: *|list: *");

        row("counted though it seemed lost", "v1 count lose count", "volume: value=1|");
        row("missing though confirmed", "v1 count confirm v2 miss", "volume: value=1|volume: value=2");
        row("counted, and no more", "v1 count confirm poll", "volume: value=1|");
        row("counted, and never settled", "v1 count poll", "volume: value=1|volume: value=1");
        const QString all = "volume: all type=value value=1, late: all type= value=, list: all type=list value= *, "
                            "values: all type=container value= *";
        row("an unknown count", "v1 count wild count", "volume: value=1|" + all + '|');
        row("the greatest count", "v1 last", all);
        for (const auto& [script, expected] : row) {
            cleanup();
            init();
            m_list->setRows(QVector<CMListNode::Row>(5, rowOf(0)));
            CMEventQueue* queue = modify({},
                { subscription(VolumePath), subscription(LatePath), subscription(ListPath, "rows"),
                    subscription(ValuesPath, "rows") });
            QVERIFY(queue);
            qint64 received = 0;
            QVector<quint64> tokens;
            QStringList answers;
            const QStringList words = script.split(QLatin1Char(' '));
            for (const QString& word : words) {
                if (word == QLatin1String("confirm"))
                    queue->confirm(tokens.last());
                else if (word.startsWith(QLatin1String("lose")))
                    queue->restore(word == QLatin1String("lose") ? tokens.last() : tokens.first());
                else if (!QStringLiteral("poll settle count miss wild last").split(QLatin1Char(' ')).contains(word))
                    change(word);
                else {
                    received += word == QLatin1String("miss") ? -1 : word == QLatin1String("wild") ? 5 : 0;
                    const bool plain = word == QLatin1String("poll") || word == QLatin1String("settle");
                    const qint64 count = plain          ? CMEventQueue::NotCounted
                        : word == QLatin1String("last") ? std::numeric_limits<qint64>::max()
                                                        : received;
                    const Poll asked = poll(queue, 0, word == QLatin1String("poll") ? AtOnce : Settles, count);
                    QVERIFY(asked.answer->done);
                    tokens.append(asked.token);
                    received += asked.answer->events.isEmpty() ? 0 : 1;
                    answers.append(textOf(asked.answer->events));
                }
            }
            QCOMPARE(answers.join(QLatin1Char('|')), expected);
        }
    }

    void answersAWaitingPoll()
    {
        CMEventQueue* queue = modify({}, { subscription(VolumePath) });
        const Poll earlier = poll(queue, 300);
        const Poll later = poll(queue, 300);
        QVERIFY(earlier.answer->done && earlier.answer->events.isEmpty());
        change(QStringLiteral("v1"));
        change(QStringLiteral("v2"));
        QVERIFY(!later.answer->done); // Not from inside the change.
        QCoreApplication::processEvents();
        QCOMPARE(textOf(later.answer->events), QStringLiteral("volume: value=2"));
        QCOMPARE(earlier.answer->calls + later.answer->calls, 2);

        const Poll abandoned = poll(queue, 300);
        change(QStringLiteral("v3"));
        queue->giveUp(abandoned.token);
        QCoreApplication::processEvents();
        QVERIFY(!abandoned.answer->done);
        QCOMPARE(abandoned.answer.use_count(), 1L); // The request is gone.
        QCOMPARE(textOf(poll(queue, 300).answer->events), QStringLiteral("volume: value=3"));

        m_volume->setPermission(ZarkPermission::Internal);
        QElapsedTimer timer;
        timer.start();
        const Poll timed = poll(queue, 1);
        QTest::qWait(700);
        modify(queue->textId(), { subscription(LatePath) }); // Which does not prolong it.
        QTRY_VERIFY(timed.answer->done);
        QVERIFY2(timer.elapsed() >= 990 && timer.elapsed() < 1500, qPrintable(QString::number(timer.elapsed())));
        QVERIFY(timed.answer->events.isEmpty());
    }

    void expires()
    {
        m_manager->setExpiry(200);
        QSignalSpy expired(m_manager.get(), &CMEventQueueManager::expired);
        const QString idle = modify({}, {})->textId();
        CMEventQueue* polled = modify({}, { subscription(VolumePath) });
        const Poll waiting = poll(polled, 1);
        QCOMPARE(
            m_manager->getQueue(idle)->id(), m_manager->getQueue(QLatin1Char('{') + idle + QLatin1Char('}'))->id());
        QTRY_COMPARE(expired.count(), 1);
        QCOMPARE(expired.first().first().toString(), idle);
        QVERIFY(!m_manager->getQueue(idle));
        QVERIFY(!modify(idle, {}));
        QVERIFY(!m_manager->getQueue(polled->textId() + QLatin1Char('x')));
        QTRY_VERIFY(waiting.answer->done);
        QCOMPARE(expired.count(), 1); // A waiting poll keeps its queue.
        QTRY_COMPARE(expired.count(), 2);
        QCOMPARE(m_root->tree()->listenerCount(VolumePath), 0);
    }

    void refuses()
    {
        Rows<QString, QString, int, bool> row;
        row("a path with no node", "other:x", "item", 1, true);
        row("no path", "", "item", 1, false);
        row("an invalid path", "test:a b", "item", 1, false);
        row("a long path", "test:" + QString(1019, QLatin1Char('a')), "item", 1, true);
        row("a path too long", "test:" + QString(1020, QLatin1Char('a')), "item", 1, false);
        row("as many as a queue holds", "test:", "item", 997, true);
        row("more than a queue holds", "test:", "item", 998, false);
        for (const auto& [path, type, count, accepted] : row) {
            cleanup();
            init();
            CMEventQueue* queue = modify({}, { subscription(VolumePath), subscription(ListPath) });
            ZarkList<ZarkEventSubscribe> list{ subscription(LatePath) };
            for (int i = 0; i < count; ++i) {
                const CMPath one = CMPath::fromEncoded(count == 1 ? path : path + QString::number(i));
                list.append(subscription(one, type.toLatin1().constData()));
                list.append(list.last()); // Twice is once.
            }
            const int before = queue->subscribtions().count();
            ZarkList<ZarkEventSubscribe> none;
            CMEventQueue* const modified = m_manager->modifyQueue(queue->textId(), list, none);
            QCOMPARE(modified, accepted ? queue : nullptr);
            QCOMPARE(queue->subscribtions().count(), accepted ? before + 1 + count : before);
            QCOMPARE(m_root->tree()->listenerCount(LatePath), accepted ? 1 : 0);
            // The second list is checked as well.
            QCOMPARE(modify(queue->textId(), {}, { list.last() }) != nullptr, accepted || count > 1);
        }
    }

    void forgetsWhatIsUnsubscribed()
    {
        CMEventQueue* queue =
            modify({}, { subscription(ListPath), subscription(ListPath, "rows"), subscription(VolumePath) });
        const QString id = queue->textId();
        change(QStringLiteral("i0"));
        change(QStringLiteral("v1"));
        const Poll lost = poll(queue, 0, Settles);
        change(QStringLiteral("i0"));
        modify(id, {}, { subscription(ListPath, "rows"), subscription(LatePath), subscription(VolumePath) });
        modify(id, { subscription(ListPath, "rows") }, {});
        queue->restore(lost.token);
        QVERIFY(poll(queue, 0).answer->events.isEmpty());
        change(QStringLiteral("v2"));
        change(QStringLiteral("u0"));
        // What is in both lists stays, with what waits.
        modify(id, { subscription(ListPath, "rows") }, { subscription(ListPath, "rows") });
        QCOMPARE(textOf(poll(queue, 0).answer->events), QStringLiteral("list: u0"));
    }

    // Nobody polls it: 100,000 changes of its lists cost no more than what it says instead.
    void isBounded()
    {
        ZarkList<ZarkEventSubscribe> all{ subscription(VolumePath) };
        QVector<CMListNode*> lists;
        for (int i = 0; i < 11; ++i) {
            all.append(subscription(ListPath.child(QString::number(i)), "rows"));
            lists.append(CMListNode::create(m_nodes.get(), all.last().path()));
            lists.last()->setRows({ rowOf(0) });
        }
        CMEventQueue* queue = modify({}, all);
        const auto change = [&](int from, int to) {
            for (int i = from; i < to; ++i) {
                i % 2 ? lists.at(i % 11)->moveRow(0, 0) : lists.at(i % 11)->updateRow(0, rowOf(i));
                m_volume->setMeasured(ZarkValue::fromI32(i));
            }
        };
        const auto rowEvents = [queue] {
            const auto events = poll(queue, 0).answer->events;
            return std::accumulate(events.begin(), events.end(), 0,
                [](int sum, const ZarkEvent& event) { return sum + event.rowsEvents().count(); });
        };
        for (const int changes : { 10000, 100000 }) { // Many in all; many of each list.
            const Poll waiting = poll(queue, 300); // What changes is told it once, however often.
            const size_t before = mallinfo2().uordblks;
            change(1, changes);
            QVERIFY(mallinfo2().uordblks - before < 256 * 1024);
            const int count = rowEvents();
            QVERIFY2(count >= lists.count() && count < CMPendingChanges::MaximumRowEvents, QByteArray::number(count));
        }
        // As many as it may hold are told one by one, however long it lives.
        constexpr int Most = CMPendingChanges::MaximumRowEvents;
        for (int i = 0; i < 3 * Most; i += Most) {
            change(i, i + Most);
            QCOMPARE(rowEvents(), Most);
        }
    }

    void limitsQueues()
    {
        ZarkList<ZarkEventSubscribe> many;
        for (int i = 0; i < CMEventQueue::MaximumSubscribtions; ++i)
            many.append(subscription(ListPath.child(QString::number(i))));
        const int full = CMEventQueueManager::MaximumSubscribtions / many.count();
        for (int i = 0; i < full; ++i)
            QVERIFY(modify({}, many));
        QVERIFY(!modify({}, { subscription(VolumePath) }));
        for (int i = full; i < CMEventQueueManager::MaximumQueues; ++i)
            QVERIFY(modify({}, {}));
        QVERIFY(!modify({}, {}));
    }
};

QTEST_GUILESS_MAIN(EventQueueTest)
#include "EventQueueTest.moc"
