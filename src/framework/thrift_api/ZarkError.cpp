#include "ZarkError.h"

QString ZarkError::toString() const
{
    if (line <= 0)
        return message;
    return QStringLiteral("line %1, column %2: %3").arg(QString::number(line), QString::number(column), message);
}
