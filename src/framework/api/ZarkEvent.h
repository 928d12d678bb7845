#pragma once

#include <QVariant>

#include "CMPath.h"
#include "ZarkList.h"
#include "ZarkRowEvent.h"

/// What a client wants to hear of. JSON: {"path": "player:player/volume", "type": "item"}; type "item" (the roles of
/// the node, the default) or "rows" (its row events too).
class ZarkEventSubscribe {
public:
    ZarkEventSubscribe() = default;
    explicit ZarkEventSubscribe(const QVariant& hash);

    const CMPath& path() const { return m_path; }
    void setPath(const CMPath& path) { m_path = path; }
    const QString& type() const { return m_type; }
    bool isValid() const; ///< A valid path and one of the two types.
    QVariant toVariant() const;

    bool operator==(const ZarkEventSubscribe& other) const { return m_path == other.m_path && m_type == other.m_type; }

private:
    CMPath m_path;
    QString m_type = QStringLiteral("item");
};

/// What happened to one node since the last poll. JSON: {"path": "...", "roles": {"value": {...}}} and, for a "rows"
/// subscription of a list whose rows changed, "rowsEvents": [...], "rowsVersions": [...], the version that the rows had
/// after each of these events, and "rowsVersion": V, the version that they have after all of them.
class ZarkEvent {
public:
    ZarkEvent() = default;
    explicit ZarkEvent(const CMPath& path) : m_path(path) { }

    const CMPath& path() const { return m_path; }
    void setPath(const CMPath& path) { m_path = path; }
    const QVariantHash& roles() const { return m_roles; }
    void setRoles(const QVariantHash& roles) { m_roles = roles; }
    const ZarkList<ZarkRowEvent>& rowsEvents() const { return m_rowsEvents; }
    void setRowsEvents(const ZarkList<ZarkRowEvent>& events) { m_rowsEvents = events; }
    qint64 rowsVersion() const { return m_rowsVersion; } ///< 0 when there are no row events.
    void setRowsVersion(qint64 version) { m_rowsVersion = version; }
    QVariant toVariant() const;

private:
    CMPath m_path;
    QVariantHash m_roles;
    ZarkList<ZarkRowEvent> m_rowsEvents;
    qint64 m_rowsVersion = 0;
};
