#pragma once

#include <QStringList>
#include <QVariant>

#include "ZarkPermission.h"

/// Role values of one node or row, by role name.
class ZarkRoles {
public:
    ZarkRoles() = default;
    explicit ZarkRoles(const QVariantHash& values) : m_values(values) { }

    static const QString& Path();
    static const QString& Title();
    static const QString& Description();
    static const QString& Type();
    static const QString& Value();
    static const QString& Permission();
    static const QString& Modifiable();
    static const QString& Edit();
    static const QString& Icon();
    static const QString& Timestamp();

    const QVariantHash& values() const { return m_values; }
    ZarkPermission::Enum permission() const; ///< Internal when the role is missing.

private:
    QVariantHash m_values;
};

/// Every role of a node, in the order in which "@all" answers them.
const QStringList& CMAllRoles();
