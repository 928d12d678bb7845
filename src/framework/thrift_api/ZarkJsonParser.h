#pragma once

#include <QByteArray>
#include <QVariant>

#include <limits>

#include "ZarkError.h"

/// The inside of ZarkJson::parse(), which says what it takes and refuses: nlohmann's reader, and our bounds.
class ZarkJsonParser {
public:
    static constexpr int MaximumDepth = 128;
    static constexpr int AnyNumber = std::numeric_limits<int>::max();

    /// The value; an invalid QVariant and the reason in `error` (may be null) when the text is not JSON. With
    /// `recordLines` every object gets the key "@line".
    static QVariant parse(const QByteArray& utf8, bool recordLines, int maximumValues, ZarkError* error);
};
