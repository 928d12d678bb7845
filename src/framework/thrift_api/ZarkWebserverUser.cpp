#include "ZarkWebserverUser.h"

ZarkWebserverUser::ZarkWebserverUser(const QVariant& hash)
{
    const QVariantHash fields = hash.toHash();
    m_name = fields.value(QStringLiteral("name")).toString();
    m_password = fields.value(QStringLiteral("password")).toString();
}

QVariant ZarkWebserverUser::toVariant() const
{
    return QVariantHash{ { QStringLiteral("name"), m_name }, { QStringLiteral("password"), m_password } };
}
