#include "PlaylistCommand.h"

#include <limits>

namespace {

CMError invalid(const QString& message)
{
    return CMError(CMError::InvalidType, message);
}

bool readIndex(const QVariant& json, int* index)
{
    bool isNumber = false;
    const qlonglong number = json.toLongLong(&isNumber);
    // A double or a text would convert as well: {"index": 1.6} is a mistake of the client, not row 2.
    isNumber = isNumber && (json.type() == QVariant::LongLong || json.type() == QVariant::Int);
    // What does not fit an int is no row of any list either.
    *index = number < 0 || number > std::numeric_limits<int>::max() ? -1 : int(number);
    return isNumber;
}

CMError readField(const QString& key, const QVariant& json, PlaylistCommand* command)
{
    if (key != QLatin1String("title")) {
        int* index = key == QLatin1String("index") ? &command->index : &command->toIndex;
        return readIndex(json, index) ? CMError() : invalid(QStringLiteral("\"%1\" must be an integer.").arg(key));
    }
    command->title = json.toString();
    if (json.type() != QVariant::String || command->title.trimmed().isEmpty())
        return invalid(QStringLiteral("\"title\" must be a text that is not empty."));
    return {};
}

} // namespace

PlaylistCommand PlaylistCommand::fromJson(const QVariant& json, const QStringList& keys, CMError* error)
{
    PlaylistCommand command;
    const QVariantHash object = json.toHash();
    for (auto field = object.begin(); field != object.end(); ++field) {
        if (!keys.contains(field.key())) {
            *error = invalid(QStringLiteral("Unknown key \"%1\".").arg(field.key()));
            return command;
        }
    }
    for (const QString& key : keys) {
        *error = object.contains(key) ? readField(key, object.value(key), &command)
                                      : invalid(QStringLiteral("The argument must be an object with \"%1\".")
                                                    .arg(keys.join(QStringLiteral("\" and \""))));
        if (!error->isEmpty())
            break;
    }
    return command;
}
