#include "CMUpdateNode.h"

#include "CMNodeTree.h"
#include "CMNodes.h"

CMUpdateNode* CMUpdateNode::create(CMNodes* nodes, const CMPath& path)
{
    auto* const node = new CMUpdateNode(nodes->tree(), path);
    if (!nodes->enter(node))
        return nullptr;
    node->setPermission(ZarkPermission::Protected);
    return node;
}

std::unique_ptr<CMUpdate> CMUpdateNode::begin(const QString& fileName, qint64 bytes, CMError* error) const
{
    if (m_begin)
        return m_begin(fileName, bytes, error);
    *error = CMError(CMError::NotSupported, "This device takes no updates.");
    return nullptr;
}
