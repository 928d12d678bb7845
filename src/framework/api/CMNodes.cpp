#include "CMNodes.h"

#include "CMUINode.h"

CMNodes::~CMNodes()
{
    // Children before their containers, and the tree finds the last child fastest.
    while (!m_nodes.isEmpty())
        delete m_nodes.takeLast();
}

void CMNodes::adopt(CMUINode* node)
{
    m_nodes.append(node);
}

void CMNodes::destroy(CMUINode* node)
{
    const int index = m_nodes.lastIndexOf(node);
    if (index < 0)
        return;
    m_nodes.removeAt(index);
    delete node;
}
