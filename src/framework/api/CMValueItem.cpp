#include "CMValueItem.h"

#include "CMRoot.h"
#include "CMUINode.h"

CMValueItem::CMValueItem(QObject* parent, const CMPath& path) : QObject(parent), m_path(path)
{
    if (!CMRoot())
        return;
    CMRoot()->tree()->addListener(path, this);
    refreshLater();
}

CMValueItem::~CMValueItem()
{
    if (CMRoot())
        CMRoot()->tree()->removeListener(m_path, this);
}

void CMValueItem::nodeChanged(CMUINode*, const QStringList& roles)
{
    if (roles.contains(ZarkRoles::Value()))
        refreshLater();
}

void CMValueItem::nodeAppeared(CMUINode*)
{
    refreshLater();
}

void CMValueItem::refreshLater()
{
    if (m_waiting)
        return;
    m_waiting = true;
    QMetaObject::invokeMethod(this, &CMValueItem::refresh, Qt::QueuedConnection);
}

void CMValueItem::refresh()
{
    m_waiting = false;
    const CMUINode* const node = CMRoot() ? CMRoot()->tree()->node(m_path) : nullptr;
    const ZarkValue value = node ? ZarkValue(node->valueRole()) : ZarkValue();
    if (!value.isValid() || value == m_value)
        return;
    const ZarkValue previous = m_value;
    m_value = value;
    Q_EMIT changed(value, previous);
}
