#include "CMGlobal.h"

#include "CMRoot.h"

QVariantHash CMGlobal::rolesValuesToHash(const QStringList& roles, const QList<QVariant>& values)
{
    Q_ASSERT(roles.size() == values.size());
    QVariantHash hash;
    for (int i = 0; i < qMin(roles.size(), values.size()); ++i)
        hash.insert(roles.at(i), values.at(i));
    return hash;
}

bool isZarkFeatureEnabled(const QString& name)
{
    if (!CMRoot())
        return false;
    const CMPath path = CMPath::fromSegments(QStringLiteral("settings"), { QStringLiteral("features"), name });
    return ZarkValue(CMRoot()->getValue(path)).bool_();
}
