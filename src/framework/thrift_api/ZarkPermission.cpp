#include "ZarkPermission.h"

QString ZarkPermission::toString(Enum permission)
{
    switch (permission) {
    case Open:
        return QStringLiteral("open");
    case Default:
        return QStringLiteral("default");
    case Protected:
        return QStringLiteral("protected");
    case Internal:
        break;
    }
    return QStringLiteral("internal");
}

ZarkPermission::Enum ZarkPermission::fromString(const QString& text, bool* ok)
{
    if (ok)
        *ok = true;
    for (Enum permission : { Open, Default, Protected, Internal }) {
        if (text == toString(permission))
            return permission;
    }
    if (ok)
        *ok = false;
    return Internal;
}
