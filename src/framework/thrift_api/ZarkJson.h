#pragma once

#include <QByteArray>
#include <QString>
#include <QVariant>

#include "ZarkError.h"
#include "ZarkJsonParser.h"

/// JSON texts to QVariant and back (RFC 8259, nothing more lenient).
///
/// | JSON            | QVariant                                              |
/// | object          | QVariantHash (of equal keys the last one holds)       |
/// | array           | QVariantList                                          |
/// | string          | QString                                               |
/// | integer         | qlonglong, qulonglong above that, double beyond       |
/// | other number    | double                                                |
/// | true, false     | bool                                                  |
/// | null            | QVariant::fromValue(nullptr): valid, isNull() is true |
///
/// Refused with line and column: anything RFC 8259 does not allow, invalid UTF-8, a byte order mark, raw control
/// characters, lone surrogates, numbers beyond a double, more than MaximumDepth levels, text after the value, and more
/// values than the caller takes.
class ZarkJson {
public:
    enum Flag : unsigned {
        NoFlags = 0,
        /// For files that people write: every object gets the key "@line", the line of its "{", and a key that comes
        /// twice in one object is refused.
        RecordLines = 1,
    };
    static constexpr int MaximumDepth = ZarkJsonParser::MaximumDepth;
    static constexpr int AnyNumber = ZarkJsonParser::AnyNumber;

    /// The value of `text`; an invalid QVariant and a filled `error` when it is not JSON. `error` may be null.
    /// `maximumValues` counts every value, inner ones and equal keys' too: one takes up to fifty times its text.
    static QVariant parse(
        const QByteArray& utf8, ZarkError* error, unsigned flags = NoFlags, int maximumValues = AnyNumber);
    static QVariant parse(
        const QString& text, ZarkError* error, unsigned flags = NoFlags, int maximumValues = AnyNumber);

    /// Compact UTF-8 JSON, object keys sorted. Beside the types above: ZarkValue, TrString (its source text),
    /// QStringList, QByteArray (Base64), QDateTime (ms since the epoch), QVariantMap. Doubles are printed with the
    /// fewest digits that read back the same; NaN and infinities become null, as does an invalid QVariant.
    static QByteArray serialize(const QVariant& value);
    /// As serialize(), with every TrString in the UI language.
    static QByteArray serializeTranslate(const QVariant& value);
};
