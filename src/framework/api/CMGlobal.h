#pragma once

#include <QList>
#include <QStringList>
#include <QVariant>

class CMGlobal {
public:
    /// Role name to value; the lists have the same length and order.
    static QVariantHash rolesValuesToHash(const QStringList& roles, const QList<QVariant>& values);
};

/// Whether the feature node "settings:features/<name>" is true. False when there is none.
bool isZarkFeatureEnabled(const QString& name);
