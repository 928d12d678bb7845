#include "CMStreamNode.h"

#include "CMNodeTree.h"
#include "CMNodes.h"

CMStreamNode* CMStreamNode::create(CMNodes* nodes, const CMPath& path, const QString& mimeType)
{
    auto* const node = new CMStreamNode(nodes->tree(), path, mimeType);
    return nodes->enter(node) ? node : nullptr;
}

QString CMStreamNode::nodeType() const
{
    return QStringLiteral("stream");
}
