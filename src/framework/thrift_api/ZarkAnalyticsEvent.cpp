#include "ZarkAnalyticsEvent.h"

QString ZarkAnalyticsEventType::toString(Enum type)
{
    switch (type) {
    case InteractionSurfaceUsed:
        break;
    }
    return QStringLiteral("interactionSurfaceUsed");
}

QVariant ZarkAnalyticsEvent::toVariant() const
{
    return QVariantHash{
        { QStringLiteral("type"), ZarkAnalyticsEventType::toString(type) },
        { QStringLiteral("platform"), platform },
    };
}
