#include "ZarkRowEvent.h"

ZarkRowEvent::ZarkRowEvent(const QVariant& hash)
{
    const QVariantHash fields = hash.toHash();
    const int type = fields.value(QStringLiteral("type")).toInt();
    // A type from a newer peer is unknown here: then everything may have changed.
    if (type > ZarkRowEventType::Reset && type <= ZarkRowEventType::Moved)
        m_type = static_cast<ZarkRowEventType::Enum>(type);
    m_index = fields.value(QStringLiteral("index")).toInt();
    if (m_type == ZarkRowEventType::Moved)
        m_toIndex = fields.value(QStringLiteral("toIndex"), -1).toInt();
}

QVariant ZarkRowEvent::toVariant() const
{
    QVariantHash fields{ { QStringLiteral("type"), int(m_type) }, { QStringLiteral("index"), m_index } };
    if (m_type == ZarkRowEventType::Moved)
        fields.insert(QStringLiteral("toIndex"), m_toIndex);
    return fields;
}
