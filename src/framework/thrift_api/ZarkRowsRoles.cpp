#include "ZarkRowsRoles.h"

QList<QVariantList> ZarkRowsRoles::rows() const
{
    QList<QVariantList> rows;
    for (int row = 0; row < m_size; ++row) {
        rows.append(QVariantList());
        for (int column = 0; column < m_columns; ++column)
            rows.last().append(value(row, column));
    }
    return rows;
}

void ZarkRowsRoles::setValues(int size, const QVector<QVariant>& values)
{
    m_size = size;
    m_values = values;
    m_stride = m_columns = size > 0 ? values.size() / size : 0;
}
