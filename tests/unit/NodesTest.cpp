#include <QtTest>

#include <array>
#include <ctime>
#include <limits>
#include <random>

#include "Answer.h"
#include "CMActivateNode.h"
#include "CMContainerNode.h"
#include "CMListNode.h"
#include "CMNodeTree.h"
#include "CMNodes.h"
#include "CMRoot.h"
#include "CMValueItem.h"
#include "CMValueNode.h"
#include "Rows.h"
#include "ZarkJson.h"

namespace {

CMPath path(const char* text)
{
    return CMPath::fromEncoded(QString::fromLatin1(text));
}

/// Writes down what it hears; may do something on top.
class Listener : public CMNodeListener {
public:
    void nodeChanged(CMUINode* node, const QStringList& roles) override
    {
        note(QStringLiteral("changed %1 %2").arg(node->path().toEncoded(), roles.join(QLatin1Char(','))));
    }
    void rowsChanged(CMUINode*, const QList<ZarkRowEvent>& events) override
    {
        for (const ZarkRowEvent& event : events)
            note(QStringLiteral("rows %1 %2 %3").arg(event.type()).arg(event.index()).arg(event.toIndex()));
    }
    void nodeAppeared(CMUINode* node) override { note(QStringLiteral("appeared ") + node->path().toEncoded()); }
    void nodeVanished(const CMPath& gone) override { note(QStringLiteral("vanished ") + gone.toEncoded()); }

    QStringList take() { return std::exchange(m_log, {}); }
    std::function<void()> action;

private:
    void note(const QString& line)
    {
        m_log.append(line);
        if (action)
            action();
    }

    QStringList m_log;
};

} // namespace

class NodesTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void init()
    {
        m_root = std::make_unique<CMRootWorker>();
        m_nodes = std::make_unique<CMNodes>(m_root->tree());
    }

    void cleanup()
    {
        m_nodes.reset();
        QVERIFY(m_root->tree()->paths().isEmpty());
        m_root.reset();
    }

    void writesAreChecked()
    {
        Rows<QString, QString, QString, QString> row;
        const auto add = [&](const char* initial, const char* edit, const char* value, const char* error = "") {
            row(QByteArray(value) + " in " + edit, initial, edit, value, error);
        };
        const char* const i32 = R"({"type":"i32","value":5})";
        const char* const i64 = R"({"type":"i64","value":0})";
        const char* const number = R"({"type":"double","value":0})";
        const char* const text = R"({"type":"string","value":"a"})";
        const char* const texts = R"({"type":"stringList","value":[]})";
        add(i32, R"({"minimum":-5,"step":5})", "10");
        add(i32, R"({"minimum":1,"step":5})", "10", "outOfRange: The value must be a multiple of 5, counted from 1.");
        add(i32, R"({"step":2})", "-3", "outOfRange: The value must be a multiple of 2, counted from 0.");
        add(i32, "{}", "13", "unlucky: No.");
        const char* const huge = R"({"minimum":-9223372036854775808,"maximum":9223372036854775806,"step":2})";
        add(i64, huge, "9223372036854775807", "outOfRange: The value must be at most 9223372036854775806.");
        add(i64, huge, "9223372036854775805", "outOfRange");
        add(number, R"({"minimum":0,"maximum":1,"step":0.1})", "0.3");
        add(number, R"({"minimum":0,"maximum":1,"step":0.1})", "0.35", "outOfRange");
        add(number, R"({"step":1})", "4000000000000000.5", "outOfRange");
        add(number, R"({"step":0.1})", "900000000000.3");
        add(number, R"({"minimum":1,"step":2})", "9007199254740994", "outOfRange");
        add(text, R"({"options":["a",{"value":"b","title":"B"}]})", "\"b\"");
        add(text, R"({"options":["a","b"]})", "\"c\"", "notAnOption: The value is none of the options.");
        add(texts, R"({"options":["a","b"]})", R"(["b","a"])");
        add(texts, R"({"options":["a","b"]})", R"(["b","c"])", "notAnOption");
        for (const auto& [initial, edit, value, error] : row) {
            cleanup();
            init();
            const ZarkValue before(ZarkJson::parse(initial, nullptr));
            auto* const node = CMValueNode::create(m_nodes.get(), path("a:b"), before);
            node->setModifiable(true);
            node->setEdit(ZarkJson::parse(edit, nullptr).toHash());
            node->setValidator([](const ZarkValue& candidate) {
                return candidate.i32() == 13 ? CMError("unlucky", "No.") : CMError();
            });
            int hooks = 0;
            node->setChangeHook([&hooks](const ZarkValue&) { ++hooks; });

            CMReply<QVariant> reply;
            m_root->invoke(path("a:b"), ZarkJson::parse(value, nullptr), QStringLiteral("value"), reply);
            const auto answer = Answer<QVariant>::of(reply);
            QVERIFY(answer.came);
            const QString said = answer.errorName() + ": " + answer.error.message().source();
            QVERIFY2(error.isEmpty() ? answer.error.isEmpty() : said.startsWith(error), qPrintable(said));
            const ZarkValue asked = ZarkValue::fromJson(ZarkJson::parse(value, nullptr), before.type(), nullptr);
            QCOMPARE(node->value(), error.isEmpty() ? asked : before);
            QCOMPARE(hooks, error.isEmpty() ? 1 : 0);
            if (error.isEmpty())
                QCOMPARE(ZarkValue(answer.value), asked);
        }
    }

    void refusalsHaveNames()
    {
        CMValueNode::create(m_nodes.get(), path("a:value"), ZarkValue::fromI32(1));
        CMListNode::create(m_nodes.get(), path("a:list"));
        auto* const command = CMActivateNode::create(m_nodes.get(), path("a:command"));
        QCOMPARE(invoke(path("a:value"), 1, "title"), QString(CMError::NotSupported));
        QCOMPARE(invoke(path("a:value"), 1, "tilte"), QString(CMError::UnknownRole));
        QCOMPARE(invoke(path("a:list"), 1), QString(CMError::NotSupported));
        QCOMPARE(invoke(path("a:command"), 1), QString(CMError::NotSupported));
        QCOMPARE(rows(path("a:value"), 0, 1, 0, {}).errorName(), QString(CMError::NotSupported));

        command->setArgumentType(ZarkValueType::I32);
        command->doSetInvoke([](CMSetDataRequest request) { request.finish(request.value().i32() + 1); });
        QCOMPARE(invoke(path("a:command"), "x"), QString(CMError::InvalidType));
        CMReply<QVariant> reply;
        m_root->invoke(path("a:command"), 41, QStringLiteral("activate"), reply);
        QCOMPARE(Answer<QVariant>::of(reply).value.toInt(), 42);
        command->doSetInvoke([](const CMSetDataRequest&) {});
        QCOMPARE(invoke(path("a:command"), 1), QString(CMError::Abandoned));
    }

    void onlyChangesAreTold()
    {
        auto* const node = CMValueNode::create(m_nodes.get(), path("a:b"), ZarkValue::fromI32(1));
        Listener listener;
        m_root->tree()->addListener(path("a:b"), &listener);
        QVERIFY(node->setMeasured(ZarkValue::fromI32(1)));
        QVERIFY(!node->setMeasured(ZarkValue::fromI64(2)));
        node->setTitle(QStringLiteral("b"));
        QCOMPARE(listener.take(), QStringList());
        QVERIFY(node->setMeasured(ZarkValue::fromI32(2)));
        node->setPermission(ZarkPermission::Internal);
        CMVoidReply reply;
        m_root->setValue(path("a:b"), ZarkValue::fromI32(3), reply);
        QCOMPARE(listener.take(), QStringList({ "changed a:b value", "changed a:b permission", "changed a:b value" }));
        QCOMPARE(errorOf(reply), QString());
        m_root->tree()->removeListener(path("a:b"), &listener);
    }

    void listsBehaveLikeAList()
    {
        auto* const list = CMListNode::create(m_nodes.get(), path("a:list"));
        QCOMPARE(rows(path("a:list"), 0, 9, 0, {}).errorName(), QString());
        QCOMPARE(rows(path("a:list"), 1, 0, 0, {}).errorName(), QString(CMError::InvalidRange));
        enum Kind { Insert, Remove, Update };
        QList<int> model;
        std::mt19937 random(20);
        const auto below = [&random](int bound) {
            return int(random() % unsigned(bound)) - 1;
        };
        for (int i = 0; i < 3000; ++i) {
            const qint64 version = list->rowsVersion();
            const int size = model.size();
            const int at = below(size + 3); // From one before the first row to one behind the last place.
            const int to = below(size + 2);
            const CMListNode::Row row{ { "value", i } };
            const bool there = at >= 0 && at < size;
            const bool isPossible[] = { at >= 0 && at <= size, there, there, there && to >= 0 && to < size };
            const auto kind = random() % 5 % 4; // More rows come than go.
            const bool done = kind == Insert ? list->insertRow(at, row)
                : kind == Remove             ? list->removeRow(at)
                : kind == Update             ? list->updateRow(at, row)
                                             : list->moveRow(at, to);
            QCOMPARE(done, isPossible[kind]);
            if (done && kind == Insert)
                model.insert(at, i);
            else if (done && kind == Remove)
                model.removeAt(at);
            else if (done && kind == Update)
                model[at] = i;
            else if (done)
                model.insert(to, model.takeAt(at));
            QCOMPARE(list->rowsVersion() > version, done);
            QCOMPARE(list->rowsCount(), model.size());
        }
        QVERIFY(!model.isEmpty());
        const auto got = rows(path("a:list"), 0, model.size(), list->rowsVersion(), { "value" });
        QList<int> held;
        for (const QVariantList& row : got.value.rows())
            held.append(row.first().toInt());
        QCOMPARE(held, model);
        QCOMPARE(
            rows(path("a:list"), 0, 1, list->rowsVersion(), { "valve" }).errorName(), QString(CMError::UnknownRole));
    }

    void generatedRowsAreMadeWhenRead()
    {
        auto* const list = CMListNode::create(m_nodes.get(), path("a:list"));
        QList<int> made;
        list->setRowSource(1000000, [&made](int index, const QString& role) -> QVariant {
            made.append(index);
            return role == "path" ? "x:" + QString::number(index) : QVariant();
        });
        const auto got = rows(path("a:list"), 999998, 2000000, 0, { "path" });
        QCOMPARE(got.value.rows(), QList<QVariantList>({ { "x:999998" }, { "x:999999" } }));
        QCOMPARE(made, QList<int>({ 999998, 999999 }));
        QVERIFY(!list->insertRow(0, {}) && !list->removeRow(0) && !list->updateRow(0, {}) && !list->moveRow(0, 1));
    }

    void containersComeAndGoWithTheirChildren()
    {
        Listener listener;
        CMNodeTree* const tree = m_root->tree();
        tree->addListener(path("a:b"), &listener);
        auto* const c = CMValueNode::create(m_nodes.get(), path("a:b/c"), ZarkValue::fromI32(1));
        auto* const e = CMValueNode::create(m_nodes.get(), path("a:b/d/e"), ZarkValue::fromI32(1));
        QCOMPARE(listener.take(), QStringList({ "appeared a:b", "rows 1 0 -1", "rows 1 1 -1" }));
        QVERIFY(!CMContainerNode::create(m_nodes.get(), path("a:b/c")));
        QVERIFY(!CMContainerNode::create(m_nodes.get(), path("/old")));
        const auto got = rows(path("a:b"), 0, 9, 0, { "path", "type" });
        QCOMPARE(got.value.rows(), QList<QVariantList>({ { "a:b/c", "value" }, { "a:b/d", "container" } }));

        CMValueNode::create(m_nodes.get(), path("z:top"), ZarkValue::fromI32(1));
        const auto roots = rows(path(":"), 0, 9, 0, { "path", "type", "permission" });
        QCOMPARE(roots.value.rows(),
            QList<QVariantList>({ { "a:b", "container", "default" }, { "z:top", "value", "default" } }));
        QVERIFY(rows(path(":"), 0, 9, roots.value.rowsVersion(), { "path" }).error.isEmpty());

        CMUINode* const b = CMContainerNode::create(m_nodes.get(), path("a:b"));
        QVERIFY(b);
        QCOMPARE(b->children().size(), 2);
        m_nodes->destroy(b);
        QCOMPARE(listener.take(), QStringList({ "appeared a:b", "vanished a:b", "appeared a:b" }));
        m_nodes->destroy(c);
        m_nodes->destroy(e);
        QCOMPARE(listener.take(), QStringList({ "rows 2 0 -1", "vanished a:b" }));
        const auto left = rows(path(":"), 0, 9, 0, { "path" });
        QCOMPARE(left.value.rows(), QList<QVariantList>({ { "z:top" } }));
        QVERIFY(left.value.rowsVersion() > roots.value.rowsVersion());
        m_nodes = std::make_unique<CMNodes>(tree);
        QVERIFY(tree->paths().isEmpty());
        tree->removeListener(path("a:b"), &listener);
    }

    void listenersMayGoInsideACall()
    {
        CMNodeTree* const tree = m_root->tree();
        auto* node = CMValueNode::create(m_nodes.get(), path("a:b"), ZarkValue::fromI32(1));
        std::array<Listener, 4> listeners;
        for (Listener& listener : listeners)
            tree->addListener(path("a:b"), &listener);
        const auto heard = [&listeners] {
            int count = 0;
            for (Listener& listener : listeners)
                count += int(listener.take().size());
            return count;
        };
        // Whoever is called first removes all the others.
        for (Listener& listener : listeners) {
            listener.action = [&listeners, &listener, tree] {
                for (Listener& other : listeners) {
                    if (&other != &listener)
                        tree->removeListener(path("a:b"), &other);
                }
            };
        }
        node->setMeasured(ZarkValue::fromI32(2));
        QCOMPARE(heard(), 1);
        QCOMPARE(tree->listenerCount(path("a:b")), 1);

        for (Listener& listener : listeners) {
            tree->removeListener(path("a:b"), &listener);
            tree->addListener(path("a:b"), &listener);
            listener.action = [this, &node] {
                if (node)
                    m_nodes->destroy(std::exchange(node, nullptr));
            };
        }
        CMVoidReply reply;
        node->set(ZarkValue::fromI32(3), reply);
        QCOMPARE(errorOf(reply), QString());
        QCOMPARE(heard(), 5); // One saw the change, four saw the node go.
        for (Listener& listener : listeners)
            tree->removeListener(path("a:b"), &listener);
    }

    void itemsTellOnlyTheLatestOfManyChanges()
    {
        auto* const node = CMValueNode::create(m_nodes.get(), path("a:b"), ZarkValue::fromI32(1));
        const auto item = watch();
        QCOMPARE(told(), QStringList("-1>1"));
        for (const int value : { 2, 3, 4 })
            node->setMeasured(ZarkValue::fromI32(value));
        QCOMPARE(told(), QStringList("1>4"));
        node->setTitle(QStringLiteral("other role"));
        for (const int value : { 9, 4 })
            node->setMeasured(ZarkValue::fromI32(value));
        QCOMPARE(told(), QStringList());
    }

    void itemsSurviveNodesThatComeAndGo()
    {
        const auto item = watch();
        QCOMPARE(told(), QStringList());
        auto* node = CMValueNode::create(m_nodes.get(), path("a:b"), ZarkValue::fromI32(1));
        QCOMPARE(told(), QStringList("-1>1"));
        m_nodes->destroy(node);
        QCOMPARE(told(), QStringList());
        QCOMPARE(item->value().i32(), 1);
        node = CMValueNode::create(m_nodes.get(), path("a:b"), ZarkValue::fromI32(5));
        QCOMPARE(told(), QStringList("1>5"));
        node->setMeasured(ZarkValue::fromI32(2));
        cleanup();
        QCOMPARE(told(), QStringList());
        init();
    }

    void manyChildrenAreNotQuadratic()
    {
        const std::clock_t begun = std::clock(); // Of this process: others may be busy.
        const CMPath parent = path("a:many");
        for (int i = 0; i < 100000; ++i)
            CMValueNode::create(m_nodes.get(), parent.child(QString::number(i)), ZarkValue::fromI32(i));
        QCOMPARE(m_root->tree()->node(parent)->children().size(), 100000);
        QCOMPARE(ZarkValue(m_root->getValue(parent.child("99999"))).i32(), 99999);
        m_nodes = std::make_unique<CMNodes>(m_root->tree());
        // Linear: below a second. Quadratic: minutes.
        const auto seconds = (std::clock() - begun) / CLOCKS_PER_SEC;
        QVERIFY2(seconds < 15, qPrintable(QString::number(seconds)));
    }

private:
    std::unique_ptr<CMValueItem> watch()
    {
        auto item = std::make_unique<CMValueItem>(nullptr, path("a:b"));
        connect(item.get(), &CMValueItem::changed, this, [this](const ZarkValue& value, const ZarkValue& previous) {
            m_told.append(QStringLiteral("%1>%2").arg(previous.isValid() ? previous.i32() : -1).arg(value.i32()));
        });
        return item;
    }
    QStringList told()
    {
        QCoreApplication::processEvents();
        return std::exchange(m_told, {});
    }
    QString invoke(const CMPath& at, const QVariant& value, const QString& role = QStringLiteral("value"))
    {
        CMReply<QVariant> reply;
        m_root->invoke(at, value, role, reply);
        return Answer<QVariant>::of(std::move(reply)).errorName();
    }
    Answer<ZarkRowsRoles> rows(const CMPath& at, int from, int to, qint64 version, const QStringList& roles)
    {
        CMReply<ZarkRowsRoles> reply;
        m_root->getRows(at, from, to, version, roles, reply);
        return Answer<ZarkRowsRoles>::of(reply);
    }

    std::unique_ptr<CMRootWorker> m_root;
    std::unique_ptr<CMNodes> m_nodes;
    QStringList m_told; ///< "BEFORE>NOW" of the item, -1 for no value.
};

QTEST_GUILESS_MAIN(NodesTest)
#include "NodesTest.moc"
