#include "ZarkRowsRoles.h"

QVariant ZarkRowsRoles::toVariant() const
{
    QVariantList rows;
    rows.reserve(m_rows.size());
    for (const QVariantList& row : m_rows)
        rows.append(QVariant(row));
    return QVariantHash{
        { QStringLiteral("roles"), m_roles.values() },
        { QStringLiteral("rows"), rows },
        { QStringLiteral("from"), m_from },
        { QStringLiteral("rowsCount"), m_rowsCount },
        { QStringLiteral("rowsVersion"), m_rowsVersion },
    };
}
