#include "CMPendingChanges.h"

#include <QSet>

#include <utility>

void CMPendingChanges::addRoles(const CMPath& path, quint32 roles)
{
    if (roles)
        changesOf(path).roles |= roles;
}

void CMPendingChanges::addRows(const CMPath& path, const QList<ZarkRowEvent>& events)
{
    if (events.isEmpty())
        return;
    CMPathChanges& changes = changesOf(path);
    const int before = changes.rows.count();
    for (const ZarkRowEvent& event : events)
        changes.rows.append(event);
    recount(changes, before);
}

void CMPendingChanges::replace(const CMPath& path, quint32 roles, bool resetRows)
{
    CMPathChanges& changes = changesOf(path);
    const int before = changes.rows.count();
    changes.roles = roles;
    changes.rows.clear();
    if (resetRows)
        changes.rows.reset();
    recount(changes, before);
}

void CMPendingChanges::drop(const CMPath& path)
{
    m_rowEvents -= m_changes.take(path).rows.count();
    m_order.removeOne(path);
}

void CMPendingChanges::dropRows(const CMPath& path)
{
    const auto it = m_changes.find(path);
    if (it == m_changes.end())
        return;
    m_rowEvents -= it->rows.count();
    it->rows.clear();
    if (it->isEmpty())
        drop(path);
}

QVector<CMPathChanges> CMPendingChanges::take(const std::function<bool(const CMPath&)>& mayTell)
{
    QVector<CMPathChanges> taken;
    const QVector<CMPath> order = std::exchange(m_order, {});
    for (const CMPath& path : order) {
        if (!mayTell(path)) {
            m_order.append(path);
            continue;
        }
        taken.append(m_changes.take(path));
        m_rowEvents -= taken.last().rows.count();
    }
    // An empty hash keeps its buckets, and most queues are empty most of the time.
    if (m_changes.isEmpty())
        m_changes.clear();
    return taken;
}

void CMPendingChanges::putBack(const QVector<CMPathChanges>& taken)
{
    const QVector<CMPath> newer = std::exchange(m_order, {});
    for (const CMPathChanges& older : taken) {
        if (older.isEmpty())
            continue; // Its row events were unsubscribed meanwhile.
        CMPathChanges& changes = m_changes[older.path];
        const int before = changes.rows.count();
        changes.path = older.path;
        changes.roles |= older.roles;
        changes.rows.prepend(older.rows);
        recount(changes, before);
        m_order.append(older.path);
    }
    const QSet<CMPath> first(m_order.cbegin(), m_order.cend());
    for (const CMPath& path : newer) {
        if (!first.contains(path))
            m_order.append(path);
    }
}

CMPathChanges& CMPendingChanges::changesOf(const CMPath& path)
{
    const auto it = m_changes.find(path);
    if (it != m_changes.end())
        return *it;
    m_order.append(path);
    return *m_changes.insert(path, { path, 0, {} });
}

void CMPendingChanges::recount(CMPathChanges& changes, int before)
{
    m_rowEvents += changes.rows.count() - before;
    if (m_rowEvents <= MaximumRowEvents)
        return;
    m_rowEvents -= changes.rows.count() - 1;
    changes.rows.reset();
}
