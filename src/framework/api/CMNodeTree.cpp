#include "CMNodeTree.h"

#include <chrono>

#include "CMUINode.h"

namespace {

/// What the tree makes by itself.
class ImpliedContainer : public CMUINode {
public:
    ImpliedContainer(CMNodeHome* tree, const CMPath& path) : CMUINode(tree, path) { }
};

qint64 nextRowsVersion()
{
    using namespace std::chrono;
    static qint64 last = 0;
    // Fewer than a million changes a second, or the versions of a restart would meet those from before it.
    const qint64 now = duration_cast<microseconds>(system_clock::now().time_since_epoch()).count();
    last = qMax(last + 1, now);
    return last;
}

} // namespace

void CMNodeListener::rowsChanged(CMUINode*, const QList<ZarkRowEvent>&) { }
void CMNodeListener::nodeAppeared(CMUINode*) { }
void CMNodeListener::nodeVanished(const CMPath&) { }

CMNodeTree::CMNodeTree(CMStore* store)
    : m_store(store), m_top(new ImpliedContainer(this, CMPath::fromEncoded(QStringLiteral(":"))))
{
    m_topPlace.node = m_top.get();
    m_topPlace.rowsVersion = nextRowsVersion();
}

CMNodeTree::~CMNodeTree()
{
    // Nodes that outlive the tree must not look for it when they go.
    m_top->forgetTree();
    for (const auto& [path, place] : m_places)
        place.node->forgetTree();
}

CMUINode* CMNodeTree::node(const CMPath& path) const
{
    const auto it = m_places.find(path);
    return it == m_places.end() ? nullptr : it->second.node;
}

bool CMNodeTree::isTaken(const CMPath& path) const
{
    const auto it = m_places.find(path);
    return it != m_places.end() && !it->second.implied;
}

QList<CMPath> CMNodeTree::paths() const
{
    QList<CMPath> paths;
    for (const auto& [path, place] : m_places)
        paths.append(path);
    return paths;
}

const QVector<CMUINode*>& CMNodeTree::children(const CMUINode* node) const
{
    static const QVector<CMUINode*> none;
    const Place* const place = placeOf(node);
    return place ? place->children : none;
}

qint64 CMNodeTree::rowsVersion(const CMUINode* node) const
{
    const Place* const place = placeOf(node);
    return place ? place->rowsVersion : 0;
}

CMNodeTree::Place* CMNodeTree::placeAt(const CMPath& path)
{
    const auto it = m_places.find(path);
    return it == m_places.end() ? nullptr : &it->second;
}

const CMNodeTree::Place* CMNodeTree::placeOf(const CMUINode* node) const
{
    if (node == m_top.get())
        return &m_topPlace;
    const auto it = m_places.find(node->path());
    return it == m_places.end() || it->second.node != node ? nullptr : &it->second;
}

CMNodeTree::Place& CMNodeTree::placeAbove(const CMPath& path)
{
    const CMPath above = path.parent();
    if (!above.isValid())
        return m_topPlace;
    if (Place* const place = placeAt(above))
        return *place;
    auto container = std::make_unique<ImpliedContainer>(this, above);
    insert(container.get());
    Place& place = *placeAt(above);
    place.implied = std::move(container);
    return place;
}

bool CMNodeTree::insert(CMUINode* node)
{
    const CMPath path = node->path();
    if (!path.isValid() || path.worker().isEmpty())
        return false;
    if (Place* const taken = placeAt(path))
        return takeImplied(*taken, node);

    Place& above = placeAbove(path);
    Place& place = m_places[path];
    place.node = node;
    place.rowsVersion = nextRowsVersion();
    above.children.append(node);
    changeRows(above.node, { ZarkRowEvent(ZarkRowEventType::Inserted, above.children.size() - 1) });
    notifyAppeared(node);
    return true;
}

bool CMNodeTree::takeImplied(Place& place, CMUINode* node)
{
    if (!place.implied)
        return false;
    Place& above = placeAbove(node->path());
    const int index = above.children.lastIndexOf(place.node);
    above.children[index] = node;
    // In this order: the container's end then finds another node at its place, and removes nothing.
    place.node = node;
    place.implied.reset();
    place.rowsVersion = nextRowsVersion(); // Its rows need not be the children.
    changeRows(above.node, { ZarkRowEvent(ZarkRowEventType::Updated, index) });
    notifyAppeared(node);
    return true;
}

void CMNodeTree::remove(CMUINode* node)
{
    const CMPath path = node->path();
    Place* const place = placeAt(path);
    if (!place || place->node != node)
        return;
    ++m_removals;
    if (place->children.isEmpty())
        takeOut(*place, path);
    else
        implyAgain(*place, path);
}

/// What is below a node stays when the node goes.
void CMNodeTree::implyAgain(Place& place, const CMPath& path)
{
    Place& above = placeAbove(path);
    const int index = above.children.lastIndexOf(place.node);
    place.implied = std::make_unique<ImpliedContainer>(this, path);
    place.node = place.implied.get();
    // The rows are the children now, whatever they were before.
    place.rowsVersion = nextRowsVersion();
    above.children[index] = place.node;
    CMUINode* const container = place.node;
    notifyVanished(path);
    changeRows(above.node, { ZarkRowEvent(ZarkRowEventType::Updated, index) });
    notifyAppeared(container);
}

void CMNodeTree::takeOut(Place& place, const CMPath& path)
{
    Place& above = placeAbove(path);
    // From the end, because nodes are mostly deleted in the reverse order of their making.
    const int index = above.children.lastIndexOf(place.node);
    above.children.removeAt(index);
    // An implied container ends with its place, and only after the tree has forgotten it.
    const auto forgotten = m_places.extract(path);
    if (above.implied && above.children.isEmpty())
        remove(above.node);
    else
        changeRows(above.node, { ZarkRowEvent(ZarkRowEventType::Removed, index) });
    notifyVanished(path);
}

void CMNodeTree::addListener(const CMPath& path, CMNodeListener* listener)
{
    const bool first = !m_listeners.contains(path);
    m_listeners.insert(path, listener);
    CMUINode* const listened = first ? node(path) : nullptr;
    if (listened)
        listened->demand();
}

void CMNodeTree::removeListener(const CMPath& path, CMNodeListener* listener)
{
    if (m_listeners.remove(path, listener) == 0)
        return;
    ++m_removals;
    CMUINode* const unheard = m_listeners.contains(path) ? nullptr : node(path);
    if (unheard)
        unheard->demand();
}

int CMNodeTree::listenerCount(const CMPath& path) const
{
    return m_listeners.count(path);
}

void CMNodeTree::notifyChanged(CMUINode* node, const QStringList& roles)
{
    notify(node, [node, &roles](CMNodeListener* listener) { listener->nodeChanged(node, roles); });
}

void CMNodeTree::changeRows(CMUINode* node, QList<ZarkRowEvent> events)
{
    Place* const place = node == top() ? &m_topPlace : placeAt(node->path());
    if (!place || place->node != node)
        return;
    place->rowsVersion = nextRowsVersion();
    for (ZarkRowEvent& event : events)
        event.setVersion(place->rowsVersion);
    node->touch();
    notify(node, [node, &events](CMNodeListener* listener) { listener->rowsChanged(node, events); });
}

void CMNodeTree::notifyAppeared(CMUINode* node)
{
    notify(node, [node](CMNodeListener* listener) { listener->nodeAppeared(node); });
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
            if (this->node(path) != node)
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
