#include "CMNodes.h"

#include "ApiLogger.h"
#include "CMNodeTree.h"
#include "CMUINode.h"

CMNodes::~CMNodes()
{
    // Children before their containers, and the tree finds the last child fastest.
    while (!m_nodes.isEmpty())
        delete m_nodes.takeLast();
}

bool CMNodes::enter(CMUINode* node)
{
    if (!m_tree->insert(node)) {
        dbglog_error(
            apiLogger(), "No node made at \"" << node->path().toEncoded() << "\": the path is invalid or taken.");
        delete node;
        return false;
    }
    m_nodes.append(node);
    return true;
}

void CMNodes::destroy(CMUINode* node)
{
    const int index = m_nodes.lastIndexOf(node);
    if (index < 0)
        return;
    m_nodes.removeAt(index);
    delete node;
}
