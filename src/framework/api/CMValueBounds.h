#pragma once

#include <QVariantHash>

#include "CMError.h"
#include "ZarkValue.h"

/// The bounds that an `edit` role names: {"minimum", "maximum", "step", "unit", "options"}.
///
/// Minimum, maximum and step hold for i32, i64 (exactly) and double (steps within a billionth); a step counts from the
/// minimum, from 0 without one. An option is a plain value, a typed one, or {"value": ..., "title": ...}; of a
/// stringList every entry must be an option.
class CMValueBounds {
public:
    /// Why `value` is out of the bounds, in a sentence that names the bound; empty when it is not.
    static CMError check(const ZarkValue& value, const QVariantHash& edit);
};
