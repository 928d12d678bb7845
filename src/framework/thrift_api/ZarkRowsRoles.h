#pragma once

#include <QList>
#include <QMetaType>
#include <QVariant>

#include "ZarkRoles.h"

/// A range of rows of a list: the list node's own roles, and each row's values in the order of the requested roles.
/// JSON: {"roles": {...}, "rows": [[...], ...], "from": 0, "rowsCount": N, "rowsVersion": V}.
class ZarkRowsRoles {
public:
    const ZarkRoles& roles() const { return m_roles; }
    void setRoles(const ZarkRoles& roles) { m_roles = roles; }
    const QList<QVariantList>& rows() const { return m_rows; }
    void setRows(const QList<QVariantList>& rows) { m_rows = rows; }
    int from() const { return m_from; } ///< Index of the first row of rows().
    void setFrom(int from) { m_from = from; }
    int rowsCount() const { return m_rowsCount; } ///< Rows of the whole list.
    void setRowsCount(int count) { m_rowsCount = count; }
    qint64 rowsVersion() const { return m_rowsVersion; } ///< Grows with every change of the list; never 0.
    void setRowsVersion(qint64 version) { m_rowsVersion = version; }

    QVariant toVariant() const;

private:
    ZarkRoles m_roles;
    QList<QVariantList> m_rows;
    int m_from = 0;
    int m_rowsCount = 0;
    qint64 m_rowsVersion = 0;
};

Q_DECLARE_METATYPE(ZarkRowsRoles)
