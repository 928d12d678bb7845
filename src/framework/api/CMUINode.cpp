#include "CMUINode.h"

#include <QDateTime>

#include "CMNodeHome.h"

CMUINode::CMUINode(CMNodeHome* tree, const CMPath& path) : m_tree(tree), m_path(path)
{
    touch();
}

CMUINode::~CMUINode()
{
    if (m_tree)
        m_tree->remove(this);
}

TrString CMUINode::title() const
{
    return m_title.source().isNull() ? TrString(m_path.name()) : m_title;
}

void CMUINode::setTitle(const TrString& title)
{
    if (title == this->title())
        return;
    m_title = title;
    changed({ ZarkRoles::Title() });
}

void CMUINode::setDescription(const TrString& description)
{
    if (description == m_description)
        return;
    m_description = description;
    changed({ ZarkRoles::Description() });
}

void CMUINode::setPermission(ZarkPermission::Enum permission)
{
    if (permission == m_permission)
        return;
    m_permission = permission;
    changed({ ZarkRoles::Permission() });
}

void CMUINode::setModifiable(bool modifiable)
{
    if (modifiable == m_modifiable)
        return;
    m_modifiable = modifiable;
    changed({ ZarkRoles::Modifiable() });
}

void CMUINode::setIcon(const QString& icon)
{
    if (icon == m_icon)
        return;
    m_icon = icon;
    changed({ ZarkRoles::Icon() });
}

void CMUINode::setEdit(const QVariantHash& edit)
{
    if (edit == m_edit)
        return;
    m_edit = edit;
    changed({ ZarkRoles::Edit() });
}

QString CMUINode::nodeType() const
{
    return QStringLiteral("container");
}

QVariant CMUINode::valueRole() const
{
    return {};
}

QVariant CMUINode::role(const QString& name, bool* known) const
{
    *known = true;
    if (name == ZarkRoles::Value())
        return valueRole();
    if (name == ZarkRoles::Permission())
        return ZarkPermission::toString(m_permission);
    if (name == ZarkRoles::Title())
        return QVariant::fromValue(title());
    if (name == ZarkRoles::Path())
        return m_path.toEncoded();
    if (name == ZarkRoles::Type())
        return nodeType();
    if (name == ZarkRoles::Modifiable())
        return m_modifiable;
    if (name == ZarkRoles::Timestamp())
        return m_timestamp;
    if (name == ZarkRoles::Description())
        return m_description.isEmpty() ? QVariant() : QVariant::fromValue(m_description);
    if (name == ZarkRoles::Icon())
        return m_icon.isEmpty() ? QVariant() : m_icon;
    if (name == ZarkRoles::Edit())
        return m_edit.isEmpty() ? QVariant() : m_edit;
    *known = false;
    return {};
}

const QVector<CMUINode*>& CMUINode::children() const
{
    static const QVector<CMUINode*> none;
    return m_tree ? m_tree->children(this) : none;
}

qint64 CMUINode::rowsVersion() const
{
    return m_tree ? m_tree->rowsVersion(this) : 0;
}

int CMUINode::rowsCount() const
{
    return children().size();
}

bool CMUINode::hasRows() const
{
    return nodeType() == QLatin1String("container") || !children().isEmpty();
}

void CMUINode::getRows(int from, int to, qint64 version, const QStringList& roles, CMReply<ZarkRowsRoles> reply)
{
    if (!hasRows()) {
        reply.fail(CMError(CMError::NotSupported, "This node has no rows."));
        return;
    }
    ZarkRowsRoles answer;
    int last = to;
    const CMError error = beginRows(rowsCount(), from, version, roles, &last, &answer);
    if (!error.isEmpty()) {
        reply.fail(error);
        return;
    }
    const int count = qMax(0, last - from + 1);
    QVector<QVariant> values;
    values.reserve(count * roles.size());
    appendRows(from, last, roles, &values);
    answer.setValues(count, values);
    reply.finish(answer);
}

void CMUINode::appendRows(int from, int last, const QStringList& roles, QVector<QVariant>* values) const
{
    const QVector<CMUINode*>& nodes = children();
    bool known = true;
    for (int i = from; i <= last; ++i) {
        nodes.at(i)->demand();
        for (const QString& name : roles)
            values->append(nodes.at(i)->role(name, &known));
    }
}

void CMUINode::invoke(const QVariant&, const QString& role, CMReply<QVariant> reply)
{
    if (!CMAllRoles().contains(role) && role != QLatin1String("activate"))
        reply.fail(CMError(CMError::UnknownRole, QStringLiteral("There is no role \"%1\".").arg(role)));
    else
        reply.fail(CMError(CMError::NotSupported, "This node cannot be set."));
}

void CMUINode::demand() const
{
    if (m_demandHook)
        m_demandHook();
}

bool CMUINode::isWatched() const
{
    return m_tree && m_tree->isListenedTo(m_path);
}

void CMUINode::changed(const QStringList& roles)
{
    if (m_tree)
        m_tree->notifyChanged(this, roles);
}

void CMUINode::touch()
{
    m_timestamp = QDateTime::currentMSecsSinceEpoch();
}

void CMUINode::bumpRows(const QList<ZarkRowEvent>& events)
{
    if (m_tree)
        m_tree->changeRows(this, events);
}

bool CMUINode::ownRoles(const QStringList& roles, QVariantHash* values) const
{
    bool known = true;
    for (const QString& name : roles) {
        values->insert(name, role(name, &known));
        if (!known)
            return false;
    }
    values->insert(ZarkRoles::Permission(), role(ZarkRoles::Permission(), &known));
    return true;
}

CMError CMUINode::beginRows(
    int count, int from, qint64 version, const QStringList& roles, int* to, ZarkRowsRoles* answer) const
{
    QVariantHash own;
    if (!ownRoles(roles, &own))
        return CMError(CMError::UnknownRole, "A requested role does not exist.");
    const qint64 current = rowsVersion();
    if (version != 0 && version != current)
        return CMError(CMError::OutdatedVersion, "The list has changed since this version.");
    if (from < 0 || *to < from || (count > 0 && from >= count))
        return CMError(CMError::InvalidRange, QStringLiteral("The list has no such rows; it has %1.").arg(count));
    *to = qMin(*to, count - 1);
    answer->setRoles(ZarkRoles(own));
    answer->setFrom(from);
    answer->setRowsCount(count);
    answer->setRowsVersion(current);
    return {};
}
