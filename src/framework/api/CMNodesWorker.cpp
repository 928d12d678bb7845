#include "CMNodesWorker.h"

#include "CMNodeTree.h"
#include "CMRoot.h"
#include "CMValueNode.h"

CMNodesWorker::CMNodesWorker(const QString& name, const QVariantHash& arguments, QObject* parent)
    : CMAbstractWorker(name, parent), m_arguments(arguments)
{
    Q_ASSERT_X(CMRoot(), "CMNodesWorker", "a worker without a root");
    m_nodes = std::make_unique<CMNodes>(CMRoot()->tree());
}

CMNodesWorker::~CMNodesWorker() = default;

CMValueNode* CMNodesWorker::makeStatusNode(const QString& what)
{
    const CMPath path = CMPath::fromSegments(name(), { QStringLiteral("status"), what });
    if (m_nodes->tree()->node(path)) {
        m_fault = QStringLiteral("the node \"%1\" is there already").arg(path.toEncoded());
        return nullptr;
    }
    return CMValueNode::create(m_nodes.get(), path, ZarkValue::fromStringList({}));
}

void CMNodesWorker::getData(const CMPath& path, const QStringList& roles, CMReply<QList<QVariant>> reply)
{
    CMRoot()->getData(path, roles, reply);
}

void CMNodesWorker::getRows(
    const CMPath& path, int from, int to, qint64 version, const QStringList& roles, CMReply<ZarkRowsRoles> reply)
{
    CMRoot()->getRows(path, from, to, version, roles, reply);
}

void CMNodesWorker::setValue(const CMPath& path, const ZarkValue& value, CMVoidReply reply)
{
    CMRoot()->setValue(path, value, reply);
}

void CMNodesWorker::invoke(const CMPath& path, const QVariant& value, const QString& role, CMReply<QVariant> reply)
{
    CMRoot()->invoke(path, value, role, reply);
}

QVariant CMNodesWorker::getValue(const CMPath& path)
{
    return CMRoot()->getValue(path);
}

void CMNodesWorker::reload() { }
void CMNodesWorker::shutDown() { }
