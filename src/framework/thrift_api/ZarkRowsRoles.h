#pragma once

#include <QList>
#include <QMetaType>
#include <QVariant>
#include <QVector>

#include "ZarkRoles.h"

/// A range of rows of a list: the list node's own roles, and each row's values in the order of the requested roles.
/// The values of all rows are one vector, because a row that is a list of its own costs as many blocks of memory as it
/// has values. JSON: {"roles": {...}, "rows": [[...], ...], "from": 0, "rowsCount": N, "rowsVersion": V}.
class ZarkRowsRoles {
public:
    const ZarkRoles& roles() const { return m_roles; }
    void setRoles(const ZarkRoles& roles) { m_roles = roles; }
    QList<QVariantList> rows() const; ///< A copy as lists, for who has few.
    int size() const { return m_size; } ///< Rows that are here.
    int columns() const { return m_columns; } ///< Values a row shows.
    const QVariant& value(int row, int column) const { return m_values.at(row * m_stride + column); }
    void setValue(int row, int column, const QVariant& value) { m_values[row * m_stride + column] = value; }
    /// `size` rows one after the other, all of the same number of values.
    void setValues(int size, const QVector<QVariant>& values);
    /// Rows show all but their last value from now on; value() and setValue() still reach it.
    void hideLastColumn() { m_columns = qMax(0, m_columns - 1); }
    int from() const { return m_from; } ///< Index of the first row that is here.
    void setFrom(int from) { m_from = from; }
    int rowsCount() const { return m_rowsCount; } ///< Rows of the whole list.
    void setRowsCount(int count) { m_rowsCount = count; }
    qint64 rowsVersion() const { return m_rowsVersion; } ///< Grows with every change of the list; never 0.
    void setRowsVersion(qint64 version) { m_rowsVersion = version; }

private:
    ZarkRoles m_roles;
    QVector<QVariant> m_values;
    int m_size = 0;
    int m_stride = 0; // From one row to the next.
    int m_columns = 0;
    int m_from = 0;
    int m_rowsCount = 0;
    qint64 m_rowsVersion = 0;
};

Q_DECLARE_METATYPE(ZarkRowsRoles)
