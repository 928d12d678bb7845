#pragma once

#include <QHash>
#include <QList>
#include <QSet>
#include <QStringList>
#include <QVector>

#include <memory>

#include "CMPath.h"
#include "ZarkRowEvent.h"

class CMStore;
class CMUINode;

/// Hears of the node at one path. Called on the tree's thread, synchronously, from inside the change: note what
/// happened and act later. Listeners may be added and removed from inside a call.
class CMNodeListener {
public:
    virtual ~CMNodeListener() = default;
    virtual void nodeChanged(CMUINode* node, const QStringList& roles) = 0;
    virtual void rowsChanged(CMUINode* node, const QList<ZarkRowEvent>& events);
    virtual void nodeAppeared(CMUINode* node);
    virtual void nodeVanished(const CMPath& path);
};

/// Every node of the device by path, in constant time, and who listens to which path.
class CMNodeTree {
public:
    explicit CMNodeTree(CMStore* store);
    ~CMNodeTree();
    CMNodeTree(const CMNodeTree&) = delete;
    CMNodeTree& operator=(const CMNodeTree&) = delete;

    CMStore* store() const { return m_store; }
    CMUINode* node(const CMPath& path) const { return m_nodes.value(path); } ///< Null when there is none.
    /// The container above all: its path is ":", its children are the nodes of one segment, and node() does not find
    /// it.
    CMUINode* top() const { return m_top.get(); }
    QList<CMPath> paths() const;

    /// False when the path is invalid, in the old form or taken by anything but an implied container, whose place is
    /// taken then. Containers above are implied (made by the tree) as needed. Used by CMUINode alone.
    bool insert(CMUINode* node);
    void remove(CMUINode* node);

    /// Listens to a path, whether it has a node now or not. The listener is not owned.
    void addListener(const CMPath& path, CMNodeListener* listener);
    void removeListener(const CMPath& path, CMNodeListener* listener);
    int listenerCount(const CMPath& path) const;
    bool isListenedTo(const CMPath& path) const { return m_listeners.contains(path); }

    void notifyChanged(CMUINode* node, const QStringList& roles);
    void notifyRows(CMUINode* node, const QList<ZarkRowEvent>& events);

private:
    /// Calls every listener of the node's path, as long as both the listener and the node are there.
    template <class Call> void notify(CMUINode* node, Call call);
    void notifyVanished(const CMPath& path);
    bool takeImpliedPlace(CMUINode* implied, CMUINode* node);
    CMUINode* parentOf(const CMPath& path) const; ///< Null when there is none yet.
    CMUINode* makeParentOf(const CMPath& path);
    /// Puts an implied container where a node with children was.
    void adoptOrphans(const CMPath& path, CMUINode* parent, int index, const QVector<CMUINode*>& orphans);

    CMStore* m_store;
    std::unique_ptr<CMUINode> m_top;
    QHash<CMPath, CMUINode*> m_nodes;
    QMultiHash<CMPath, CMNodeListener*> m_listeners;
    QSet<CMUINode*> m_implied;
    quint64 m_removals = 0; ///< Grows when a node or a listener goes.
};
