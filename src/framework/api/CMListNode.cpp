#include "CMListNode.h"

#include <utility>

#include "CMNodeTree.h"
#include "CMNodes.h"

CMListNode* CMListNode::create(CMNodes* nodes, const CMPath& path)
{
    auto* const node = new CMListNode(nodes->tree(), path);
    return nodes->enter(node) ? node : nullptr;
}

QString CMListNode::nodeType() const
{
    return QStringLiteral("list");
}

int CMListNode::rowsCount() const
{
    return m_source ? m_sourceCount : m_rows.size();
}

CMListNode::Row CMListNode::row(int index) const
{
    if (index < 0 || index >= rowsCount())
        return {};
    if (!m_source)
        return m_rows.at(index);
    Row made;
    for (const QString& role : CMAllRoles()) {
        const QVariant value = m_source(index, role);
        if (value.isValid())
            made.insert(role, value);
    }
    return made;
}

void CMListNode::setRows(const QVector<Row>& rows)
{
    m_source = {};
    m_sourceCount = 0;
    m_rows = rows;
    bumpRows({ ZarkRowEvent(ZarkRowEventType::Reset, 0) });
}

void CMListNode::setRowSource(int count, const RowSource& source)
{
    m_rows.clear();
    m_source = source;
    m_sourceCount = qMax(0, count);
    bumpRows({ ZarkRowEvent(ZarkRowEventType::Reset, 0) });
}

bool CMListNode::insertRow(int index, const Row& row)
{
    if (m_source || index < 0 || index > m_rows.size())
        return false;
    m_rows.insert(index, row);
    bumpRows({ ZarkRowEvent(ZarkRowEventType::Inserted, index) });
    return true;
}

bool CMListNode::removeRow(int index)
{
    if (m_source || index < 0 || index >= m_rows.size())
        return false;
    m_rows.removeAt(index);
    bumpRows({ ZarkRowEvent(ZarkRowEventType::Removed, index) });
    return true;
}

bool CMListNode::updateRow(int index, const Row& row)
{
    if (m_source || index < 0 || index >= m_rows.size())
        return false;
    m_rows[index] = row;
    bumpRows({ ZarkRowEvent(ZarkRowEventType::Updated, index) });
    return true;
}

bool CMListNode::moveRow(int index, int toIndex)
{
    if (m_source || index < 0 || index >= m_rows.size() || toIndex < 0 || toIndex >= m_rows.size())
        return false;
    m_rows.move(index, toIndex);
    bumpRows({ ZarkRowEvent(ZarkRowEventType::Moved, index, toIndex) });
    return true;
}

void CMListNode::appendRows(int from, int last, const QStringList& roles, QVector<QVariant>* values) const
{
    for (int i = from; i <= last; ++i) {
        for (const QString& role : roles) {
            // Moved: a row that is copied costs as much as one that is made.
            QVariant value = m_source ? m_source(i, role) : m_rows.at(i).value(role);
            values->append(value.isValid() ? std::move(value) : defaultOf(i, role));
        }
    }
}

QVariant CMListNode::defaultOf(int index, const QString& role) const
{
    if (role == ZarkRoles::Path())
        return path().toEncoded() + QLatin1String(".row") + QString::number(index);
    if (role == ZarkRoles::Permission())
        return ZarkPermission::toString(ZarkPermission::Default);
    return {};
}
