#include <QTest>

#include "CMNodes.h"
#include "CMRoot.h"
#include "CMValueItem.h"
#include "CMValueNode.h"

class ValueItemTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void init()
    {
        m_root = std::make_unique<CMRootWorker>();
        m_nodes = std::make_unique<CMNodes>(m_root->tree());
        m_log.clear();
    }

    void cleanup()
    {
        m_nodes.reset();
        m_root.reset();
    }

    void tellsOnlyTheLatestOfManyChanges()
    {
        auto* const node = CMValueNode::create(m_nodes.get(), m_path, ZarkValue::fromI32(1));
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

    void survivesNodesThatComeAndGo()
    {
        const auto item = watch();
        QCOMPARE(told(), QStringList());
        auto* node = CMValueNode::create(m_nodes.get(), m_path, ZarkValue::fromI32(1));
        QCOMPARE(told(), QStringList("-1>1"));
        m_nodes->destroy(node);
        QCOMPARE(told(), QStringList());
        QCOMPARE(item->value().i32(), 1);
        CMValueNode::create(m_nodes.get(), m_path, ZarkValue::fromI32(5));
        QCOMPARE(told(), QStringList("1>5"));
    }

    void outlivesTheRoot()
    {
        auto* const node = CMValueNode::create(m_nodes.get(), m_path, ZarkValue::fromI32(1));
        const auto item = watch();
        QCOMPARE(told(), QStringList("-1>1"));
        node->setMeasured(ZarkValue::fromI32(2));
        cleanup();
        QCOMPARE(told(), QStringList());
    }

private:
    std::unique_ptr<CMValueItem> watch()
    {
        auto item = std::make_unique<CMValueItem>(nullptr, m_path);
        connect(item.get(), &CMValueItem::changed, this, [this](const ZarkValue& value, const ZarkValue& previous) {
            m_log.append(QStringLiteral("%1>%2").arg(previous.isValid() ? previous.i32() : -1).arg(value.i32()));
        });
        return item;
    }
    QStringList told()
    {
        QCoreApplication::processEvents();
        return std::exchange(m_log, {});
    }

    const CMPath m_path = CMPath::fromEncoded("a:b");
    std::unique_ptr<CMRootWorker> m_root;
    std::unique_ptr<CMNodes> m_nodes;
    QStringList m_log;
};

QTEST_GUILESS_MAIN(ValueItemTest)
#include "ValueItemTest.moc"
