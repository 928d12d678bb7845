#include "ZarkJson.h"

#include "ZarkJsonParser.h"
#include "ZarkJsonWriter.h"

namespace {

/// The place of the first half of a surrogate pair that stands alone; an empty error when there is none.
ZarkError findLoneSurrogate(const QString& text)
{
    ZarkError error;
    error.line = error.column = 1;
    for (int i = 0; i < text.size(); ++i) {
        const QChar c = text.at(i);
        if (c.isHighSurrogate() && i + 1 < text.size() && text.at(i + 1).isLowSurrogate()) {
            ++i;
        } else if (c.isSurrogate()) {
            error.message = QStringLiteral("lone surrogate");
            return error;
        }
        ++error.column;
        if (c == QLatin1Char('\n')) {
            ++error.line;
            error.column = 1;
        }
    }
    return {};
}

} // namespace

QVariant ZarkJson::parse(const QByteArray& utf8, ZarkError* error, unsigned flags, int maximumValues)
{
    return ZarkJsonParser::parse(utf8, flags & RecordLines, maximumValues, error);
}

QVariant ZarkJson::parse(const QString& text, ZarkError* error, unsigned flags, int maximumValues)
{
    // toUtf8() would hide it behind a replacement character.
    const ZarkError surrogate = findLoneSurrogate(text);
    if (surrogate.isEmpty())
        return parse(text.toUtf8(), error, flags, maximumValues);
    if (error)
        *error = surrogate;
    return {};
}

QByteArray ZarkJson::serialize(const QVariant& value)
{
    ZarkJsonWriter writer(false);
    writer.write(value);
    return writer.json();
}

QByteArray ZarkJson::serializeTranslate(const QVariant& value)
{
    ZarkJsonWriter writer(true);
    writer.write(value);
    return writer.json();
}
