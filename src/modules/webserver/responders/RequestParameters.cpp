#include "RequestParameters.h"

#include <cmath>

namespace {

// QVariant itself would round 4.7, wrap what does not fit, and take true for 1.
qint64 toInteger(const QVariant& value, bool* ok)
{
    constexpr double Largest = 9007199254740992.0; // 2^53: above, not every integer has a double of its own.
    if (value.userType() == QMetaType::Double) {
        const double number = value.toDouble();
        *ok = std::abs(number) <= Largest && std::trunc(number) == number;
        return *ok ? static_cast<qint64>(number) : 0;
    }
    *ok = value.userType() == QMetaType::LongLong || value.userType() == QMetaType::QString;
    return *ok ? value.toString().toLongLong(ok) : 0;
}

} // namespace

QVariant RequestParameters::value(const QString& key) const
{
    const QString* queried = m_query.find(key);
    return queried ? QVariant(*queried) : m_body.value(key);
}

bool RequestParameters::readText(const QString& key, QString* text) const
{
    const QVariant sent = value(key);
    *text = sent.toString();
    return sent.isValid() && sent.userType() != QMetaType::Nullptr;
}

bool RequestParameters::readTexts(const QString& key, QStringList* texts) const
{
    const QVariant sent = value(key);
    if (sent.userType() == QMetaType::QString)
        *texts = sent.toString().split(QLatin1Char(','));
    else if (sent.userType() == QMetaType::QVariantList)
        *texts = sent.toStringList();
    else
        return false;
    return true;
}

QVariant RequestParameters::json(const QString& key, ZarkError* error) const
{
    const QVariant sent = value(key);
    if (sent.userType() != QMetaType::QString)
        return sent;
    return ZarkJson::parse(sent.toString(), error, ZarkJson::NoFlags, m_maximumValues);
}

bool RequestParameters::readInteger(const QString& key, qint64 minimum, qint64 maximum, qint64* integer) const
{
    if (!has(key))
        return true;
    bool ok = false;
    const qint64 sent = toInteger(value(key), &ok);
    if (!ok || sent < minimum || sent > maximum)
        return false;
    *integer = sent;
    return true;
}
