#include "CMTreeFile.h"

#include <QFile>

#include <malloc.h>

#include "CMTreeFileReader.h"
#include "ZarkJson.h"

namespace {

ZarkError makeNodes(const QByteArray& text, CMNodes* nodes)
{
    ZarkError fault;
    const QVariant json = ZarkJson::parse(text, &fault, ZarkJson::RecordLines);
    return fault.isEmpty() ? CMTreeFileReader(nodes).read(json) : fault;
}

} // namespace

bool CMTreeFile::load(const QString& file, CMNodes* nodes, QString* error)
{
    QFile input(file);
    if (!input.open(QIODevice::ReadOnly)) {
        *error = QStringLiteral("%1: %2").arg(file, input.errorString());
        return false;
    }
    const ZarkError fault = makeNodes(input.readAll(), nodes);
    // The JSON took several times what the nodes do, and nothing of that size comes again.
    malloc_trim(0);
    if (fault.isEmpty())
        return true;
    *error = QStringLiteral("%1:%2: %3").arg(file).arg(fault.line).arg(fault.message);
    return false;
}
