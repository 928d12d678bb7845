#include "CMNodeTree.h"

#include "CMUINode.h"

void CMNodeListener::rowsChanged(CMUINode*, const QList<ZarkRowEvent>&) { }
void CMNodeListener::nodeAppeared(CMUINode*) { }
void CMNodeListener::nodeVanished(const CMPath&) { }

CMNodeTree::CMNodeTree(CMStore* store)
    : m_store(store), m_top(new CMUINode(this, CMPath::fromEncoded(QStringLiteral(":"))))
{
}

CMNodeTree::~CMNodeTree()
{
    m_top.reset();
    // Nodes that outlive the tree must not look for it when they go.
    for (CMUINode* node : qAsConst(m_nodes))
        node->m_tree = nullptr;
    qDeleteAll(m_implied);
}

QList<CMPath> CMNodeTree::paths() const
{
    return m_nodes.keys();
}

bool CMNodeTree::insert(CMUINode* node)
{
    const CMPath path = node->path();
    if (!path.isValid() || path.worker().isEmpty())
        return false;
    CMUINode* const implied = m_nodes.value(path);
    if (implied)
        return takeImpliedPlace(implied, node);

    CMUINode* const parent = makeParentOf(path);
    m_nodes.insert(path, node);
    parent->m_children.append(node);
    parent->bumpRows({ ZarkRowEvent(ZarkRowEventType::Inserted, parent->m_children.size() - 1) });
    notify(node, [node](CMNodeListener* listener) { listener->nodeAppeared(node); });
    return true;
}

bool CMNodeTree::takeImpliedPlace(CMUINode* implied, CMUINode* node)
{
    if (!m_implied.remove(implied))
        return false;
    node->m_children.swap(implied->m_children);
    node->m_rowsVersion = implied->m_rowsVersion;
    m_nodes.insert(node->path(), node);
    CMUINode* const parent = parentOf(node->path());
    const int index = parent->m_children.lastIndexOf(implied);
    parent->m_children[index] = node;
    implied->m_tree = nullptr;
    delete implied;
    parent->bumpRows({ ZarkRowEvent(ZarkRowEventType::Updated, index) });
    notify(node, [node](CMNodeListener* listener) { listener->nodeAppeared(node); });
    return true;
}

CMUINode* CMNodeTree::parentOf(const CMPath& path) const
{
    const CMPath above = path.parent();
    return above.isValid() ? m_nodes.value(above) : m_top.get();
}

CMUINode* CMNodeTree::makeParentOf(const CMPath& path)
{
    if (CMUINode* const parent = parentOf(path))
        return parent;
    auto* const made = new CMUINode(this, path.parent());
    m_implied.insert(made);
    insert(made);
    return made;
}

void CMNodeTree::remove(CMUINode* node)
{
    const CMPath path = node->path();
    if (m_nodes.value(path) != node)
        return;
    QVector<CMUINode*> orphans;
    orphans.swap(node->m_children);
    m_nodes.remove(path);
    m_implied.remove(node);
    node->m_tree = nullptr;
    ++m_removals;

    CMUINode* const parent = parentOf(path);
    // From the end, because nodes are mostly deleted in the reverse order of their making.
    const int index = parent->m_children.lastIndexOf(node);
    parent->m_children.removeAt(index);
    if (!orphans.isEmpty()) {
        notifyVanished(path);
        adoptOrphans(path, parent, index, orphans);
        return;
    }
    if (parent->m_children.isEmpty() && m_implied.contains(parent))
        delete parent;
    else
        parent->bumpRows({ ZarkRowEvent(ZarkRowEventType::Removed, index) });
    notifyVanished(path);
}

void CMNodeTree::adoptOrphans(const CMPath& path, CMUINode* parent, int index, const QVector<CMUINode*>& orphans)
{
    auto* const stand = new CMUINode(this, path);
    m_implied.insert(stand);
    m_nodes.insert(path, stand);
    stand->m_children = orphans;
    parent->m_children.insert(index, stand);
    parent->bumpRows({ ZarkRowEvent(ZarkRowEventType::Updated, index) });
    notify(stand, [stand](CMNodeListener* listener) { listener->nodeAppeared(stand); });
}

void CMNodeTree::addListener(const CMPath& path, CMNodeListener* listener)
{
    const bool first = !m_listeners.contains(path);
    m_listeners.insert(path, listener);
    CMUINode* const node = first ? m_nodes.value(path) : nullptr;
    if (node)
        node->demand();
}

void CMNodeTree::removeListener(const CMPath& path, CMNodeListener* listener)
{
    if (m_listeners.remove(path, listener) == 0)
        return;
    ++m_removals;
    CMUINode* const node = m_listeners.contains(path) ? nullptr : m_nodes.value(path);
    if (node)
        node->demand();
}

int CMNodeTree::listenerCount(const CMPath& path) const
{
    return m_listeners.count(path);
}

void CMNodeTree::notifyChanged(CMUINode* node, const QStringList& roles)
{
    notify(node, [node, &roles](CMNodeListener* listener) { listener->nodeChanged(node, roles); });
}

void CMNodeTree::notifyRows(CMUINode* node, const QList<ZarkRowEvent>& events)
{
    notify(node, [node, &events](CMNodeListener* listener) { listener->rowsChanged(node, events); });
}

template <class Call> void CMNodeTree::notify(CMUINode* node, Call call)
{
    // A copy, because the node may be deleted and listeners may come and go inside a call.
    const CMPath path = node->path();
    const QList<CMNodeListener*> listeners = m_listeners.values(path);
    const quint64 removals = m_removals;
    for (CMNodeListener* const listener : listeners) {
        // Looking anew costs time, so only after something was removed.
        if (m_removals != removals) {
            if (m_nodes.value(path) != node)
                return;
            if (!m_listeners.contains(path, listener))
                continue;
        }
        call(listener);
    }
}

void CMNodeTree::notifyVanished(const CMPath& path)
{
    const QList<CMNodeListener*> listeners = m_listeners.values(path);
    for (CMNodeListener* const listener : listeners) {
        if (m_listeners.contains(path, listener))
            listener->nodeVanished(path);
    }
}
