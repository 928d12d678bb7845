#include "ZarkWebserverAuthMode.h"

QString ZarkWebserverAuthMode::toString(Enum mode)
{
    switch (mode) {
    case Off:
        return QStringLiteral("off");
    case Writes:
        return QStringLiteral("writes");
    case WritesAndEvents:
        return QStringLiteral("writesAndEvents");
    case Everything:
        break;
    }
    return QStringLiteral("everything");
}

ZarkWebserverAuthMode::Enum ZarkWebserverAuthMode::fromString(const QString& text, bool* ok)
{
    if (ok)
        *ok = true;
    for (Enum mode : { Off, Writes, WritesAndEvents, Everything }) {
        if (text == toString(mode) || text == QString::number(mode))
            return mode;
    }
    if (ok)
        *ok = false;
    return Everything;
}
