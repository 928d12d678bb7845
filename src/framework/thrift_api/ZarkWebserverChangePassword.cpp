#include "ZarkWebserverChangePassword.h"

ZarkWebserverChangePassword ZarkWebserverChangePassword::fromVariant(const QVariant& hash)
{
    const QVariantHash fields = hash.toHash();
    ZarkWebserverChangePassword change;
    change.name = fields.value(QStringLiteral("name")).toString();
    change.oldPassword = fields.value(QStringLiteral("oldPassword")).toString();
    change.newPassword = fields.value(QStringLiteral("newPassword")).toString();
    return change;
}

QVariant ZarkWebserverChangePassword::toVariant() const
{
    return QVariantHash{
        { QStringLiteral("name"), name },
        { QStringLiteral("oldPassword"), oldPassword },
        { QStringLiteral("newPassword"), newPassword },
    };
}
