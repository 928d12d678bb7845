#include "CMError.h"

QVariant CMError::toVariant() const
{
    return QVariantHash{
        { QStringLiteral("name"), m_name },
        { QStringLiteral("message"), QVariant::fromValue(m_message) },
    };
}
