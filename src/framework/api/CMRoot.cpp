#include "CMRoot.h"

#include "CMNodeTree.h"
#include "CMValueNode.h"

namespace {

CMRootWorker* theRoot = nullptr;

CMError notFound()
{
    return CMError(CMError::NotFound, "There is no such node.");
}

} // namespace

CMRootWorker* CMRoot()
{
    return theRoot;
}

CMRootWorker::CMRootWorker(CMStore* store, QObject* parent)
    : CMAbstractWorker(QString(), parent), m_store(store), m_tree(std::make_unique<CMNodeTree>(store))
{
    Q_ASSERT_X(!theRoot, "CMRootWorker", "a second root in one process");
    theRoot = this;
}

CMRootWorker::~CMRootWorker()
{
    theRoot = nullptr;
}

void CMRootWorker::getData(const CMPath& path, const QStringList& roles, CMReply<QList<QVariant>> reply)
{
    const CMUINode* const node = m_tree->node(path);
    if (!node) {
        reply.fail(notFound());
        return;
    }
    node->demand();
    QList<QVariant> values;
    values.reserve(roles.size());
    bool known = true;
    for (const QString& role : roles) {
        values.append(node->role(role, &known));
        if (!known) {
            reply.fail(CMError(CMError::UnknownRole, QStringLiteral("There is no role \"%1\".").arg(role)));
            return;
        }
    }
    reply.finish(values);
}

void CMRootWorker::getRows(
    const CMPath& path, int from, int to, qint64 version, const QStringList& roles, CMReply<ZarkRowsRoles> reply)
{
    CMUINode* const node = path == m_tree->top()->path() ? m_tree->top() : m_tree->node(path);
    if (!node) {
        reply.fail(notFound());
        return;
    }
    node->demand();
    node->getRows(from, to, version, roles, reply);
}

void CMRootWorker::setValue(const CMPath& path, const ZarkValue& value, CMVoidReply reply)
{
    CMUINode* const node = m_tree->node(path);
    auto* const valueNode = dynamic_cast<CMValueNode*>(node);
    if (valueNode)
        valueNode->set(value, reply);
    else
        reply.fail(node ? CMError(CMError::NotSupported, "This node cannot be set.") : notFound());
}

void CMRootWorker::invoke(const CMPath& path, const QVariant& value, const QString& role, CMReply<QVariant> reply)
{
    if (CMUINode* const node = m_tree->node(path))
        node->invoke(value, role, reply);
    else
        reply.fail(notFound());
}

QVariant CMRootWorker::getValue(const CMPath& path)
{
    const CMUINode* const node = m_tree->node(path);
    if (!node)
        return {};
    node->demand();
    return ZarkValue(node->valueRole()).toVariant();
}
