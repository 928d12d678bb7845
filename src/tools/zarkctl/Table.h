#pragma once

#include <QList>
#include <QStringList>

/// Columns of text, each as wide as what is in it; when they are wider than the terminal the widest are cut, with "…",
/// the first only when there is no other way: it is what a row is called.
class Table {
public:
    explicit Table(const QStringList& header) : m_header(header) { }

    /// Of as many cells as the header; `marked` rows are told apart by colour.
    void addRow(const QStringList& cells, bool marked = false);
    /// `width`: columns of the terminal, 0 for no bound.
    QByteArray text(int width, bool colour) const;

    /// The columns that a text takes on a terminal.
    static int widthOf(const QString& text);

private:
    QList<int> widths(int bound) const;
    static QByteArray line(const QStringList& cells, const QList<int>& widths);

    QStringList m_header;
    QList<QStringList> m_rows;
    QList<bool> m_marked;
};
