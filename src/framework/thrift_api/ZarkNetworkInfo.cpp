#include "ZarkNetworkInfo.h"

ZarkNetworkAddress::ZarkNetworkAddress(const QVariant& hash)
{
    const QVariantHash fields = hash.toHash();
    m_ip = fields.value(QStringLiteral("ip")).toString();
    m_prefixLength = fields.value(QStringLiteral("prefixLength")).toInt();
}

QVariant ZarkNetworkAddress::toVariant() const
{
    return QVariantHash{ { QStringLiteral("ip"), m_ip }, { QStringLiteral("prefixLength"), m_prefixLength } };
}

ZarkNetworkInterface::ZarkNetworkInterface(const QVariant& hash) : m_fields(hash.toHash()) { }

QString ZarkNetworkInterface::name() const
{
    return m_fields.value(QStringLiteral("name")).toString();
}

QVariantList ZarkNetworkInterface::addresses() const
{
    return m_fields.value(QStringLiteral("addresses")).toList();
}

ZarkSoftAp::ZarkSoftAp(const QVariant& hash) : m_fields(hash.toHash()) { }

QVariantList ZarkSoftAp::aps() const
{
    return m_fields.value(QStringLiteral("aps")).toList();
}

ZarkNetworkInfo::ZarkNetworkInfo(const QVariant& hash) : m_fields(hash.toHash()) { }

ZarkNetworkInterface ZarkNetworkInfo::wired() const
{
    return ZarkNetworkInterface(m_fields.value(QStringLiteral("wired")));
}

ZarkNetworkInterface ZarkNetworkInfo::wireless() const
{
    return ZarkNetworkInterface(m_fields.value(QStringLiteral("wireless")));
}

ZarkSoftAp ZarkNetworkInfo::softAp() const
{
    return ZarkSoftAp(m_fields.value(QStringLiteral("softAp")));
}
