#include "Table.h"

#include <algorithm>
#include <cwchar>

namespace {

const int Gap = 2;
const int NarrowestCut = 8; ///< A column is not cut below this.

/// Without its middle: paths and addresses differ at their ends.
QString shortened(QVector<uint> text, int width)
{
    if (text.size() > 2 * width)
        text.remove(width, text.size() - 2 * width);
    while (!text.isEmpty() && Table::widthOf(QString::fromUcs4(text.constData(), text.size())) > width - 1)
        text.remove(text.size() / 2);
    text.insert((text.size() + 1) / 2, 0x2026);
    return QString::fromUcs4(text.constData(), text.size());
}

QString fitted(const QString& text, int width)
{
    if (Table::widthOf(text) <= width)
        return text + QString(width - Table::widthOf(text), QLatin1Char(' '));
    const QString cut = shortened(text.toUcs4(), width);
    return cut + QString(std::max(0, width - Table::widthOf(cut)), QLatin1Char(' '));
}

} // namespace

int Table::widthOf(const QString& text)
{
    int width = 0;
    for (const uint c : text.toUcs4())
        width += std::max(0, ::wcwidth(wchar_t(c)));
    return width;
}

void Table::addRow(const QStringList& cells, bool marked)
{
    m_rows.append(cells);
    m_marked.append(marked);
}

QList<int> Table::widths(int bound) const
{
    QList<int> widths;
    for (int column = 0; column < m_header.size(); ++column) {
        int width = widthOf(m_header.at(column));
        for (const QStringList& row : m_rows)
            width = std::max(width, widthOf(row.at(column)));
        widths.append(width);
    }
    int total = Gap * (widths.size() - 1);
    for (const int width : qAsConst(widths))
        total += width;
    while (bound > 0 && total > bound) {
        auto widest = std::max_element(widths.begin() + 1, widths.end());
        if (widest == widths.end() || *widest <= NarrowestCut)
            widest = widths.begin();
        if (*widest <= NarrowestCut)
            break;
        --*widest, --total;
    }
    return widths;
}

QByteArray Table::line(const QStringList& cells, const QList<int>& widths)
{
    QString text;
    for (int i = 0; i < cells.size(); ++i)
        text += fitted(cells.at(i), widths.at(i)) + QString(Gap, QLatin1Char(' '));
    while (text.endsWith(QLatin1Char(' ')))
        text.chop(1);
    return text.toUtf8();
}

QByteArray Table::text(int width, bool colour) const
{
    const QList<int> columns = widths(width);
    const QByteArray header = line(m_header, columns);
    QByteArray text = (colour ? "\033[1m" + header + "\033[0m" : header) + '\n';
    for (int i = 0; i < m_rows.size(); ++i) {
        const QByteArray row = line(m_rows.at(i), columns);
        text += (colour && m_marked.at(i) ? "\033[33m" + row + "\033[0m" : row) + '\n';
    }
    return text;
}
