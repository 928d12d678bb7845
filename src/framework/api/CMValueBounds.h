#pragma once

#include <QVariantHash>
#include <QVector>

#include <optional>

#include "CMError.h"
#include "ZarkValue.h"

/// The bounds that an `edit` role names, {"minimum", "maximum", "step", "unit", "options"}, for values of one type.
///
/// Minimum, maximum and step hold for i32 and i64 (exactly) and for double; a step counts from the minimum, from 0
/// without one. A double is on a step when no more than the rounding of the numbers involved keeps it off. An option is
/// a plain value, a typed one, or {"value": ..., "title": ...}; of a stringList every entry must be an option.
class CMValueBounds {
public:
    /// Allows every value; of doubles, the finite ones.
    CMValueBounds() = default;
    /// Reads an `edit` role. A bound that a value of `type` cannot have is left out, and named in `fault`, a sentence
    /// that is empty when there is none.
    static CMValueBounds read(const QVariantHash& edit, ZarkValueType::Enum type, QString* fault);
    /// One option of a value of `type`; invalid, with a sentence in `fault`, when it is none.
    static ZarkValue readOption(const QVariant& option, ZarkValueType::Enum type, QString* fault);

    /// Why `value` is out of the bounds, in a sentence that names the bound; empty when it is not.
    CMError check(const ZarkValue& value) const;

private:
    template <class Number> struct Range {
        std::optional<Number> minimum;
        std::optional<Number> maximum;
        std::optional<Number> step; ///< Above 0.
    };

    template <class Number>
    static Range<Number> readRange(const QVariantHash& edit, ZarkValueType::Enum type, QString* fault);
    template <class Number> static CMError checkRange(Number value, const Range<Number>& range);
    CMError checkOptions(const ZarkValue& value) const;

    Range<qint64> m_integers;
    Range<double> m_doubles;
    std::optional<QVector<ZarkValue>> m_options;
};
