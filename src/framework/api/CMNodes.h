#pragma once

#include <QList>

class CMNodeTree;
class CMUINode;

/// The nodes that one worker made. They are deleted, and leave the tree, with it or with the worker.
class CMNodes {
public:
    explicit CMNodes(CMNodeTree* tree) : m_tree(tree) { }
    ~CMNodes();
    CMNodes(const CMNodes&) = delete;
    CMNodes& operator=(const CMNodes&) = delete;

    CMNodeTree* tree() const { return m_tree; }
    /// Enters a new node in the tree, and owns it; deletes it, with an error in the log, when the tree refuses.
    bool enter(CMUINode* node);
    /// Deletes one node and takes it out of the tree.
    void destroy(CMUINode* node);

private:
    CMNodeTree* m_tree;
    QList<CMUINode*> m_nodes;
};
