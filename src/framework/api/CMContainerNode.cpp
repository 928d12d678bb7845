#include "CMContainerNode.h"

#include "CMNodeTree.h"
#include "CMNodes.h"

CMContainerNode* CMContainerNode::create(CMNodes* nodes, const CMPath& path)
{
    auto* const node = new CMContainerNode(nodes->tree(), path);
    return nodes->enter(node) ? node : nullptr;
}
