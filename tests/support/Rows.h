#pragma once

#include <QTest>

#include <tuple>
#include <utility>
#include <vector>

/// A table of cases with typed columns, each row named by its case:
///
///     Rows<QByteArray, int> row;
///     row("missing", "/absent.txt", 404);
///     for (const auto& [target, status] : row)
///         QCOMPARE(get(target).status, status);
///
/// A check that fails ends the test, and the row is told. ROW=missing in the environment runs that one alone.
template <class... Columns> class Rows {
public:
    ~Rows()
    {
        if (QTest::currentTestFailed())
            qWarning("It is the row \"%s\".", m_name.constData());
    }
    void operator()(const QByteArray& name, const Columns&... columns)
    {
        if (qgetenv("ROW").isEmpty() || qgetenv("ROW") == name)
            m_rows.emplace_back(name, std::make_tuple(columns...));
    }
    const QByteArray& name() const { return m_name; } ///< Of the row that the loop is at.

    struct Iterator {
        Rows* rows;
        size_t index;
        const std::tuple<Columns...>& operator*() const
        {
            rows->m_name = rows->m_rows[index].first;
            return rows->m_rows[index].second;
        }
        void operator++() { ++index; }
        bool operator!=(const Iterator& other) const { return index != other.index; }
    };
    Iterator begin() { return { this, 0 }; }
    Iterator end() { return { this, m_rows.size() }; }

private:
    std::vector<std::pair<QByteArray, std::tuple<Columns...>>> m_rows;
    QByteArray m_name;
};
