#pragma once

#include <QString>
#include <QVariant>

struct ZarkAnalyticsEventType {
    enum Enum {
        InteractionSurfaceUsed = 0, ///< Somebody used the device through a web client or an app.
    };
    static QString toString(Enum type); ///< "interactionSurfaceUsed"
};

/// What the analytics command node takes. JSON: {"type": "interactionSurfaceUsed", "platform": "ios"}.
struct ZarkAnalyticsEvent {
    ZarkAnalyticsEventType::Enum type = ZarkAnalyticsEventType::InteractionSurfaceUsed;
    QString platform;

    QVariant toVariant() const;
};
