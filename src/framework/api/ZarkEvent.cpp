#include "ZarkEvent.h"

namespace {

QString itemType()
{
    return QStringLiteral("item");
}

QString rowsType()
{
    return QStringLiteral("rows");
}

} // namespace

ZarkEventSubscribe::ZarkEventSubscribe(const QVariant& hash)
{
    const QVariantHash fields = hash.toHash();
    const QVariant path = fields.value(QStringLiteral("path"));
    if (path.type() == QVariant::String)
        m_path = CMPath::fromEncoded(path.toString());
    const QVariant type = fields.value(QStringLiteral("type"), itemType());
    m_type = type.type() == QVariant::String ? type.toString() : QString();
}

bool ZarkEventSubscribe::isValid() const
{
    return m_path.isValid() && (m_type == itemType() || m_type == rowsType());
}

QVariant ZarkEventSubscribe::toVariant() const
{
    return QVariantHash{
        { QStringLiteral("path"), m_path.toEncoded() },
        { QStringLiteral("type"), m_type },
    };
}

QVariant ZarkEvent::toVariant() const
{
    QVariantHash hash{
        { QStringLiteral("path"), m_path.toEncoded() },
        { QStringLiteral("roles"), m_roles },
    };
    if (m_rowsVersion != 0) {
        hash.insert(QStringLiteral("rowsEvents"), m_rowsEvents.toVariant());
        hash.insert(QStringLiteral("rowsVersion"), m_rowsVersion);
        QVariantList versions;
        for (const ZarkRowEvent& event : m_rowsEvents)
            versions.append(event.version());
        hash.insert(QStringLiteral("rowsVersions"), versions);
    }
    return hash;
}
