#include "CMListNode.h"

#include "CMNodes.h"

CMListNode* CMListNode::create(CMNodes* nodes, const CMPath& path)
{
    auto* const node = new CMListNode(nodes->tree(), path);
    return enter(nodes, node) ? node : nullptr;
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
    return m_source ? m_source(index) : m_rows.at(index);
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

void CMListNode::getRows(int from, int to, qint64 version, const QStringList& roles, CMReply<ZarkRowsRoles> reply)
{
    ZarkRowsRoles answer;
    int last = to;
    const CMError error = beginRows(rowsCount(), from, version, roles, &last, &answer);
    if (!error.isEmpty()) {
        reply.fail(error);
        return;
    }
    QList<QVariantList> rows;
    rows.reserve(qMax(0, last - from + 1));
    for (int i = from; i <= last; ++i)
        rows.append(rowRoles(i, roles));
    answer.setRows(rows);
    reply.finish(answer);
}

QVariantList CMListNode::rowRoles(int index, const QStringList& roles) const
{
    const Row held = row(index);
    QVariantList values;
    values.reserve(roles.size());
    for (const QString& name : roles) {
        const auto value = held.constFind(name);
        if (value != held.constEnd())
            values.append(*value);
        else if (name == ZarkRoles::Path())
            values.append(path().toEncoded() + QLatin1String(".row") + QString::number(index));
        else if (name == ZarkRoles::Permission())
            values.append(ZarkPermission::toString(ZarkPermission::Default));
        else
            values.append(QVariant());
    }
    return values;
}
