#include "CMValueBounds.h"

#include <cmath>

namespace {

bool isInteger(const QVariant& number)
{
    switch (int(number.type())) {
    case QMetaType::Int:
    case QMetaType::UInt:
    case QMetaType::Long:
    case QMetaType::LongLong:
        return true;
    default:
        return false;
    }
}

CMError outOfRange(const QString& sentence)
{
    return CMError(CMError::OutOfRange, sentence);
}

CMError tooSmall(const QVariant& bound)
{
    return outOfRange(QStringLiteral("The value must be at least %1.").arg(bound.toString()));
}

CMError tooLarge(const QVariant& bound)
{
    return outOfRange(QStringLiteral("The value must be at most %1.").arg(bound.toString()));
}

CMError offStep(const QVariant& step, const QVariant& minimum)
{
    return outOfRange(QStringLiteral("The value must be a multiple of %1, counted from %2.")
                          .arg(step.toString(), minimum.isValid() ? minimum.toString() : QStringLiteral("0")));
}

bool isOnStep(double value, double start, double step)
{
    const double steps = (value - start) / step;
    return std::fabs(steps - std::round(steps)) <= 1e-9 * qMax(1.0, std::fabs(steps));
}

/// Whether an integer is on the step, without a difference that overflows.
bool isOnStep(qint64 value, qint64 start, qint64 step)
{
    const quint64 distance = value >= start ? quint64(value) - quint64(start) : quint64(start) - quint64(value);
    return distance % quint64(step) == 0;
}

struct Bounds {
    QVariant minimum;
    QVariant maximum;
    QVariant step;
};

CMError checkDouble(double value, const Bounds& bounds)
{
    if (!std::isfinite(value))
        return outOfRange(QStringLiteral("The value must be a finite number."));
    if (bounds.minimum.isValid() && value < bounds.minimum.toDouble())
        return tooSmall(bounds.minimum);
    if (bounds.maximum.isValid() && value > bounds.maximum.toDouble())
        return tooLarge(bounds.maximum);
    const double step = bounds.step.toDouble();
    if (step > 0 && !isOnStep(value, bounds.minimum.toDouble(), step))
        return offStep(bounds.step, bounds.minimum);
    return {};
}

CMError checkInteger(qint64 value, const Bounds& bounds)
{
    if ((bounds.minimum.isValid() && !isInteger(bounds.minimum))
        || (bounds.maximum.isValid() && !isInteger(bounds.maximum))
        || (bounds.step.isValid() && !isInteger(bounds.step)))
        return checkDouble(double(value), bounds);
    if (bounds.minimum.isValid() && value < bounds.minimum.toLongLong())
        return tooSmall(bounds.minimum);
    if (bounds.maximum.isValid() && value > bounds.maximum.toLongLong())
        return tooLarge(bounds.maximum);
    const qint64 step = bounds.step.toLongLong();
    if (step > 0 && !isOnStep(value, bounds.minimum.toLongLong(), step))
        return offStep(bounds.step, bounds.minimum);
    return {};
}

QVariant optionValue(const QVariant& option)
{
    if (option.userType() != QMetaType::QVariantHash)
        return option;
    const QVariantHash hash = option.toHash();
    const QString value = QStringLiteral("value");
    return hash.contains(value) && !hash.contains(QStringLiteral("type")) ? hash.value(value) : option;
}

bool isOption(const ZarkValue& value, const QVariantList& options)
{
    for (const QVariant& option : options) {
        const QVariant plain = optionValue(option);
        const ZarkValue typed = plain.userType() == qMetaTypeId<ZarkValue>()
            ? plain.value<ZarkValue>()
            : ZarkValue::fromJson(plain, value.type(), nullptr);
        if (typed == value)
            return true;
    }
    return false;
}

CMError checkOptions(const ZarkValue& value, const QVariantList& options)
{
    bool allowed = true;
    if (value.type() == ZarkValueType::StringList) {
        const QStringList entries = value.stringList();
        for (const QString& entry : entries)
            allowed = allowed && isOption(ZarkValue::fromString(entry), options);
    } else {
        allowed = isOption(value, options);
    }
    return allowed ? CMError() : CMError(CMError::NotAnOption, "The value is none of the options.");
}

} // namespace

CMError CMValueBounds::check(const ZarkValue& value, const QVariantHash& edit)
{
    const Bounds bounds{ edit.value(QStringLiteral("minimum")), edit.value(QStringLiteral("maximum")),
        edit.value(QStringLiteral("step")) };
    CMError error;
    if (value.type() == ZarkValueType::I32)
        error = checkInteger(value.i32(), bounds);
    else if (value.type() == ZarkValueType::I64)
        error = checkInteger(value.i64(), bounds);
    else if (value.type() == ZarkValueType::Double)
        error = checkDouble(value.double_(), bounds);
    const auto options = edit.constFind(QStringLiteral("options"));
    if (!error.isEmpty() || options == edit.constEnd())
        return error;
    return checkOptions(value, options->toList());
}
