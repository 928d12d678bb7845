#pragma once

#include <QHash>
#include <QVector>

#include <functional>

#include "CMPath.h"
#include "CMRowChanges.h"

/// What changed at one path: roles, a bit for each of CMAllRoles(), and row events.
struct CMPathChanges {
    CMPath path;
    quint32 roles = 0;
    CMRowChanges rows;

    bool isEmpty() const { return !roles && rows.isEmpty(); }
};

/// What a client has yet to be told: one entry a path, the path that changed first in front, and a bounded number of
/// row events. Knows nothing of nodes, subscriptions and polls.
class CMPendingChanges {
public:
    static constexpr int MaximumRowEvents = 4096; ///< Of all lists together; beyond, a list's events become a reset.

    bool isEmpty() const { return m_order.isEmpty(); }
    int count() const { return m_order.count() + m_rowEvents; } ///< Paths and row events.

    void addRoles(const CMPath& path, quint32 roles);
    void addRows(const CMPath& path, const QList<ZarkRowEvent>& events);
    /// Only these are left of the path's changes.
    void replace(const CMPath& path, quint32 roles, bool resetRows);
    void drop(const CMPath& path);
    void dropRows(const CMPath& path);

    /// Takes out the changes of all paths that may be told now; the others keep their order.
    QVector<CMPathChanges> take(const std::function<bool(const CMPath&)>& mayTell);
    /// Puts what was taken back in front of all that came since, whatever path that is of.
    void putBack(const QVector<CMPathChanges>& taken);

private:
    CMPathChanges& changesOf(const CMPath& path);
    /// Counts the row events of `changes`, of which there were `before`.
    void recount(CMPathChanges& changes, int before);

    QVector<CMPath> m_order;
    QHash<CMPath, CMPathChanges> m_changes;
    int m_rowEvents = 0;
};
