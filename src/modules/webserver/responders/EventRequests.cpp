#include "EventRequests.h"

#include <cmath>
#include <limits>

#include "ZarkJson.h"

namespace {

bool readList(const QVariantHash& fields, const QString& key, ZarkList<ZarkEventSubscribe>* list)
{
    QVariant value = fields.value(key);
    if (value.isNull() && value.userType() != QMetaType::QString)
        return true;
    if (value.userType() == QMetaType::QString)
        value = ZarkJson::parse(value.toString(), nullptr);
    if (value.userType() != QMetaType::QVariantList)
        return false;
    *list = ZarkList<ZarkEventSubscribe>::fromVariant(value);
    return true;
}

// QVariant itself would round 4.7 and wrap what does not fit. Some languages write all their numbers as 4.0.
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

template <class T> bool readInteger(const QVariantHash& fields, const QString& key, T* integer)
{
    const QVariant value = fields.value(key);
    if (!fields.contains(key))
        return true;
    bool ok = false;
    const qint64 wide = toInteger(value, &ok);
    *integer = static_cast<T>(wide);
    return ok && wide >= std::numeric_limits<T>::min() && wide <= std::numeric_limits<T>::max();
}

} // namespace

bool parseSubscribeData(const ZarkUrl& url, EventSubscribeData* data)
{
    QVariantHash fields;
    for (const char* name : { "queueId", "subscribe", "unsubscribe", "timeout", "received" }) {
        const QString key = QString::fromLatin1(name);
        if (url.hasQueryItem(key))
            fields.insert(key, url.queryItemValue(key));
    }
    return parseSubscribeData(fields, data);
}

bool parseSubscribeData(const QVariantHash& body, EventSubscribeData* data)
{
    data->queueId = body.value(QStringLiteral("queueId")).toString();
    const bool ok = readList(body, QStringLiteral("subscribe"), &data->subscribe)
        && readList(body, QStringLiteral("unsubscribe"), &data->unsubscribe)
        && readInteger(body, QStringLiteral("timeout"), &data->timeout)
        && readInteger(body, QStringLiteral("received"), &data->received);
    data->received = qMax(data->received, CMEventQueue::NotCounted);
    return ok;
}
