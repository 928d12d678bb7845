#include "TrString.h"

#include <QCoreApplication>

QString TrString::toString() const
{
    return QCoreApplication::translate("Zark", m_source.toUtf8().constData());
}
