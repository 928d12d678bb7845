#include "HttpClientResult.h"

QByteArray HttpClientHeaders::value(const QByteArray& name, const QByteArray& defaultValue) const
{
    for (const auto& field : m_fields) {
        if (qstricmp(field.first.constData(), name.constData()) == 0)
            return field.second;
    }
    return defaultValue;
}
