#pragma once

#include <QPair>
#include <QString>
#include <QVector>

/// The names and values of a URI's query, decoded: escapes from UTF-8, and "+" as a space, as forms write it. Escapes
/// that are none stay as they are.
class QueryItems {
public:
    QueryItems() = default;
    explicit QueryItems(QLatin1String encoded); ///< Without "?".

    /// The first value of that name, empty for a name without "="; null when there is none. Valid as long as this is.
    const QString* find(const QString& name) const;
    const QVector<QPair<QString, QString>>& all() const { return m_items; } ///< In the order of the query.

private:
    QVector<QPair<QString, QString>> m_items;
};
