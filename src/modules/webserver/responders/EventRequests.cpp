#include "EventRequests.h"

#include "RequestParameters.h"

namespace {

bool readList(const RequestParameters& parameters, const QString& key, ZarkList<ZarkEventSubscribe>* list)
{
    const QVariant value = parameters.json(key, nullptr);
    if (!parameters.has(key) || value.userType() == QMetaType::Nullptr)
        return true;
    if (value.userType() != QMetaType::QVariantList)
        return false;
    *list = ZarkList<ZarkEventSubscribe>::fromVariant(value);
    return true;
}

} // namespace

bool parseSubscribeData(const RequestParameters& parameters, EventSubscribeData* data)
{
    data->queueId = parameters.text(QStringLiteral("queueId"));
    const bool ok = readList(parameters, QStringLiteral("subscribe"), &data->subscribe)
        && readList(parameters, QStringLiteral("unsubscribe"), &data->unsubscribe)
        && parameters.readInteger(QStringLiteral("timeout"), &data->timeout)
        && parameters.readInteger(QStringLiteral("received"), &data->received);
    data->received = qMax(data->received, CMEventQueue::NotCounted);
    return ok;
}
