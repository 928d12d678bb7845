#include "CMTreeFile.h"

#include <QFile>

#include "CMTreeFileReader.h"
#include "ZarkJson.h"

bool CMTreeFile::load(const QString& file, CMNodes* nodes, QString* error)
{
    QFile input(file);
    if (!input.open(QIODevice::ReadOnly)) {
        *error = QStringLiteral("%1: %2").arg(file, input.errorString());
        return false;
    }
    ZarkError fault;
    const QVariant json = ZarkJson::parse(input.readAll(), &fault, ZarkJson::RecordLines);
    if (fault.isEmpty())
        fault = CMTreeFileReader(nodes).read(json);
    if (fault.isEmpty())
        return true;
    *error = QStringLiteral("%1:%2: %3").arg(file).arg(fault.line).arg(fault.message);
    return false;
}
