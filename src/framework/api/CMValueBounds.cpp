#include "CMValueBounds.h"

#include <algorithm>
#include <cmath>
#include <limits>

namespace {

const QString Minimum = QStringLiteral("minimum");
const QString Maximum = QStringLiteral("maximum");
const QString Step = QStringLiteral("step");
const QString Options = QStringLiteral("options");

CMError outOfRange(const QString& sentence)
{
    return CMError(CMError::OutOfRange, sentence);
}

template <class Number> QString text(Number number)
{
    return QVariant::fromValue(number).toString();
}

/// How far a double may be from the number that was written: half of the distance to the next one. Whole numbers are
/// what they are.
double rounding(double number)
{
    if (number == std::trunc(number))
        return 0;
    return (std::nextafter(std::fabs(number), std::numeric_limits<double>::infinity()) - std::fabs(number)) / 2;
}

bool isOnStep(double value, double start, double step)
{
    // Remainders are exact at every magnitude, a difference of large numbers is not.
    const double off = std::remainder(std::remainder(value, step) - std::remainder(start, step), step);
    const double steps = std::fabs((value - start) / step);
    return std::fabs(off) <= rounding(value) + rounding(start) + (steps + 1) * rounding(step);
}

/// Without a difference that overflows.
bool isOnStep(qint64 value, qint64 start, qint64 step)
{
    const quint64 distance = value >= start ? quint64(value) - quint64(start) : quint64(start) - quint64(value);
    return distance % quint64(step) == 0;
}

bool isObject(const QVariant& json)
{
    return json.userType() == QMetaType::QVariantHash;
}

void add(QString* fault, const QString& key, const QString& sentence)
{
    if (fault->isEmpty())
        *fault = QStringLiteral("\"%1\": %2").arg(key, sentence);
}

void refuseRange(const QVariantHash& edit, QString* fault)
{
    for (const QString& key : { Minimum, Maximum, Step }) {
        if (edit.contains(key))
            add(fault, key, QStringLiteral("is for numbers only"));
    }
}

} // namespace

template <class Number>
CMValueBounds::Range<Number> CMValueBounds::readRange(
    const QVariantHash& edit, ZarkValueType::Enum type, QString* fault)
{
    const auto read = [&](const QString& key) -> std::optional<Number> {
        QString sentence = QStringLiteral("expected a number");
        const QVariant bound = edit.value(key);
        const ZarkValue number = isObject(bound) ? ZarkValue() : ZarkValue::fromJson(bound, type, &sentence);
        if (number.isValid())
            return number.plain().value<Number>();
        if (edit.contains(key))
            add(fault, key, sentence);
        return {};
    };
    Range<Number> range{ read(Minimum), read(Maximum), read(Step) };
    if (range.step && *range.step <= 0) {
        add(fault, Step, QStringLiteral("must be above 0"));
        range.step.reset();
    }
    return range;
}

ZarkValue CMValueBounds::readOption(const QVariant& option, ZarkValueType::Enum type, QString* fault)
{
    const QString key = QStringLiteral("value");
    const QVariantHash object = option.toHash();
    const bool hasTitle = isObject(option) && object.contains(key) && !object.contains(QStringLiteral("type"));
    // What a list of texts may hold are texts.
    const ZarkValueType::Enum entryType = type == ZarkValueType::StringList ? ZarkValueType::String : type;
    return ZarkValue::fromJson(hasTitle ? object.value(key) : option, entryType, fault);
}

CMValueBounds CMValueBounds::read(const QVariantHash& edit, ZarkValueType::Enum type, QString* fault)
{
    CMValueBounds bounds;
    fault->clear();
    if (type == ZarkValueType::I32 || type == ZarkValueType::I64)
        bounds.m_integers = readRange<qint64>(edit, type, fault);
    else if (type == ZarkValueType::Double)
        bounds.m_doubles = readRange<double>(edit, type, fault);
    else
        refuseRange(edit, fault);
    if (!edit.contains(Options))
        return bounds;
    bounds.m_options.emplace();
    const QVariantList options = edit.value(Options).toList();
    for (const QVariant& option : options) {
        QString sentence;
        bounds.m_options->append(readOption(option, type, &sentence));
        if (!bounds.m_options->constLast().isValid())
            add(fault, Options, sentence);
    }
    return bounds;
}

template <class Number> CMError CMValueBounds::checkRange(Number value, const Range<Number>& range)
{
    if (range.minimum && value < *range.minimum)
        return outOfRange(QStringLiteral("The value must be at least %1.").arg(text(*range.minimum)));
    if (range.maximum && value > *range.maximum)
        return outOfRange(QStringLiteral("The value must be at most %1.").arg(text(*range.maximum)));
    const Number start = range.minimum.value_or(0);
    if (!range.step || isOnStep(value, start, *range.step))
        return {};
    return outOfRange(
        QStringLiteral("The value must be a multiple of %1, counted from %2.").arg(text(*range.step), text(start)));
}

CMError CMValueBounds::checkOptions(const ZarkValue& value) const
{
    const auto isOption = [this](const ZarkValue& entry) {
        return m_options->contains(entry);
    };
    bool allowed = !m_options;
    if (!allowed && value.type() == ZarkValueType::StringList) {
        const QStringList entries = value.stringList();
        allowed = std::all_of(entries.cbegin(), entries.cend(),
            [&isOption](const QString& entry) { return isOption(ZarkValue::fromString(entry)); });
    } else if (!allowed) {
        allowed = isOption(value);
    }
    return allowed ? CMError() : CMError(CMError::NotAnOption, "The value is none of the options.");
}

CMError CMValueBounds::check(const ZarkValue& value) const
{
    CMError error;
    if (value.type() == ZarkValueType::I32)
        error = checkRange(qint64(value.i32()), m_integers);
    else if (value.type() == ZarkValueType::I64)
        error = checkRange(value.i64(), m_integers);
    else if (value.type() == ZarkValueType::Double && !std::isfinite(value.double_()))
        error = outOfRange(QStringLiteral("The value must be a finite number."));
    else if (value.type() == ZarkValueType::Double)
        error = checkRange(value.double_(), m_doubles);
    return error.isEmpty() ? checkOptions(value) : error;
}
