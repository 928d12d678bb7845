#pragma once

#include <QHash>

#include <memory>
#include <unordered_map>

#include "CMNodeHome.h"

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
///
/// The tree holds places: which node is at a path, what is below it, and the version of its rows. What a node is like,
/// its roles, the node holds. Where nobody made a node and one has others below it, a container of the tree's own
/// stands: it is *implied*, gives way to a node that is made there, and goes with the last one below it.
class CMNodeTree final : public CMNodeHome {
public:
    explicit CMNodeTree(CMStore* store);
    ~CMNodeTree() override;
    CMNodeTree(const CMNodeTree&) = delete;
    CMNodeTree& operator=(const CMNodeTree&) = delete;

    CMStore* store() const override { return m_store; }
    CMUINode* node(const CMPath& path) const override; ///< Null when there is none.
    /// The container above all: its path is ":", its children are the nodes of one segment, and node() does not find
    /// it.
    CMUINode* top() const { return m_top.get(); }
    bool isTaken(const CMPath& path) const; ///< By a node that gives way to no other.
    QList<CMPath> paths() const;

    /// The nodes one segment below, in the order in which they came; until the next change of the tree.
    const QVector<CMUINode*>& children(const CMUINode* node) const override;
    /// As CMUINode::rowsVersion().
    qint64 rowsVersion(const CMUINode* node) const override;

    /// False when the path is invalid, in the old form or taken by anything but an implied container. The node is not
    /// owned, and calls remove() at its end.
    bool insert(CMUINode* node);
    /// No effect for a node that the tree did not take.
    void remove(CMUINode* node) override;

    /// Listens to a path, whether it has a node now or not. The listener is not owned.
    void addListener(const CMPath& path, CMNodeListener* listener);
    void removeListener(const CMPath& path, CMNodeListener* listener);
    int listenerCount(const CMPath& path) const;
    bool isListenedTo(const CMPath& path) const override { return m_listeners.contains(path); }

    void notifyChanged(CMUINode* node, const QStringList& roles) override;
    /// The rows of a node have changed: they get a new version, which the events get too, and the node the time.
    void changeRows(CMUINode* node, QList<ZarkRowEvent> events) override;

private:
    struct Place {
        CMUINode* node = nullptr;
        std::unique_ptr<CMUINode> implied; ///< The node, where it is the tree's own.
        QVector<CMUINode*> children;
        qint64 rowsVersion = 0;
    };
    struct PathHash {
        size_t operator()(const CMPath& path) const { return qHash(path); }
    };

    Place* placeAt(const CMPath& path);
    const Place* placeOf(const CMUINode* node) const; ///< Null when the tree did not take the node.
    Place& placeAbove(const CMPath& path); ///< With an implied container, if there was nothing.
    bool takeImplied(Place& place, CMUINode* node);
    void implyAgain(Place& place, const CMPath& path);
    void takeOut(Place& place, const CMPath& path);

    /// Calls every listener of the node's path, as long as both the listener and the node are there.
    template <class Call> void notify(CMUINode* node, Call call);
    void notifyAppeared(CMUINode* node);
    void notifyVanished(const CMPath& path);

    CMStore* m_store;
    std::unique_ptr<CMUINode> m_top;
    Place m_topPlace;
    std::unordered_map<CMPath, Place, PathHash> m_places; // References to its values outlive insertions.
    QMultiHash<CMPath, CMNodeListener*> m_listeners;
    quint64 m_removals = 0; ///< Grows when a node or a listener goes.
};
