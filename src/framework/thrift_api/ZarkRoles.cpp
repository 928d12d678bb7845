#include "ZarkRoles.h"

const QString& ZarkRoles::Path()
{
    static const QString name = QStringLiteral("path");
    return name;
}

const QString& ZarkRoles::Title()
{
    static const QString name = QStringLiteral("title");
    return name;
}

const QString& ZarkRoles::Description()
{
    static const QString name = QStringLiteral("description");
    return name;
}

const QString& ZarkRoles::Type()
{
    static const QString name = QStringLiteral("type");
    return name;
}

const QString& ZarkRoles::Value()
{
    static const QString name = QStringLiteral("value");
    return name;
}

const QString& ZarkRoles::Permission()
{
    static const QString name = QStringLiteral("permission");
    return name;
}

const QString& ZarkRoles::Modifiable()
{
    static const QString name = QStringLiteral("modifiable");
    return name;
}

const QString& ZarkRoles::Edit()
{
    static const QString name = QStringLiteral("edit");
    return name;
}

const QString& ZarkRoles::Icon()
{
    static const QString name = QStringLiteral("icon");
    return name;
}

const QString& ZarkRoles::Timestamp()
{
    static const QString name = QStringLiteral("timestamp");
    return name;
}

ZarkPermission::Enum ZarkRoles::permission() const
{
    return ZarkPermission::fromString(m_values.value(Permission()).toString());
}

const QStringList& CMAllRoles()
{
    static const QStringList roles = {
        ZarkRoles::Path(),
        ZarkRoles::Title(),
        ZarkRoles::Description(),
        ZarkRoles::Type(),
        ZarkRoles::Value(),
        ZarkRoles::Permission(),
        ZarkRoles::Modifiable(),
        ZarkRoles::Edit(),
        ZarkRoles::Icon(),
        ZarkRoles::Timestamp(),
    };
    return roles;
}
