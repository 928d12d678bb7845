#include "CMEventQueueManager.h"

#include <algorithm>

#include "ApiLogger.h"
#include "CMNodeTree.h"
#include "CMRoot.h"
#include "CMUINode.h"

namespace {

constexpr int TextLength = 36; // Of a UUID without braces (RFC 9562, section 4).

/// `list` without `unsubscribe`, then with `subscribe`, each once.
ZarkList<ZarkEventSubscribe> changedList(const ZarkList<ZarkEventSubscribe>& list,
    const ZarkList<ZarkEventSubscribe>& subscribe, const ZarkList<ZarkEventSubscribe>& unsubscribe)
{
    const auto keyOf = [](const ZarkEventSubscribe& item) {
        return item.type() + item.path().toEncoded();
    };
    QSet<QString> skipped;
    for (const ZarkEventSubscribe& item : unsubscribe)
        skipped.insert(keyOf(item));
    for (const ZarkEventSubscribe& item : subscribe)
        skipped.remove(keyOf(item));

    ZarkList<ZarkEventSubscribe> result;
    const auto appendOnce = [&](const ZarkEventSubscribe& item) {
        const QString key = keyOf(item);
        if (!skipped.contains(key))
            result.append(item);
        skipped.insert(key);
    };
    std::for_each(list.cbegin(), list.cend(), appendOnce);
    std::for_each(subscribe.cbegin(), subscribe.cend(), appendOnce);
    return result;
}

} // namespace

CMEventQueueManager::CMEventQueueManager(QObject* parent) : QObject(parent) { }

CMEventQueueManager::~CMEventQueueManager()
{
    shutDown();
    qDeleteAll(m_queues);
}

CMEventQueue* CMEventQueueManager::modifyQueue(
    const QString& queueId, ZarkList<ZarkEventSubscribe>& subscribe, ZarkList<ZarkEventSubscribe>& unsubscribe)
{
    CMEventQueue* queue = getQueue(queueId);
    const bool isNew = queueId.isEmpty();
    if (m_shutDown || !CMRoot() || (!queue && !isNew) || !isAcceptable(subscribe) || !isAcceptable(unsubscribe))
        return nullptr;
    if (isNew && m_queues.count() >= MaximumQueues) {
        dbglog_warn(apiLogger(), "No more than " << MaximumQueues << " event queues: a new one is refused");
        return nullptr;
    }

    const ZarkList<ZarkEventSubscribe> current = queue ? queue->subscribtions() : ZarkList<ZarkEventSubscribe>();
    const ZarkList<ZarkEventSubscribe> changed = changedList(current, subscribe, unsubscribe);
    if (!isWithinLimits(current, changed))
        return nullptr;
    if (isNew)
        queue = createQueue();
    queue->setSubscribtions(changed);
    return queue;
}

CMEventQueue* CMEventQueueManager::getQueue(const QString& queueId) const
{
    // QUuid overlooks what stands behind the id.
    CMEventQueue* const queue = m_queues.value(QUuid(queueId));
    const int braces = queueId.startsWith(QLatin1Char('{')) ? 2 : 0;
    return queueId.size() == TextLength + braces ? queue : nullptr;
}

bool CMEventQueueManager::checkPermissions(
    const ZarkList<ZarkEventSubscribe>& subscribtions, const QSet<ZarkPermission::Enum>& permissions) const
{
    return std::all_of(subscribtions.cbegin(), subscribtions.cend(), [&](const ZarkEventSubscribe& subscription) {
        const CMUINode* node = CMRoot() ? CMRoot()->tree()->node(subscription.path()) : nullptr;
        return node && permissions.contains(node->permission());
    });
}

void CMEventQueueManager::shutDown()
{
    m_shutDown = true;
    for (CMEventQueue* queue : m_queues.values())
        queue->close();
}

bool CMEventQueueManager::isAcceptable(const ZarkList<ZarkEventSubscribe>& list) const
{
    return std::all_of(list.cbegin(), list.cend(), [](const ZarkEventSubscribe& subscription) {
        return subscription.isValid() && subscription.path().toEncoded().size() <= MaximumPathLength;
    });
}

bool CMEventQueueManager::isWithinLimits(
    const ZarkList<ZarkEventSubscribe>& current, const ZarkList<ZarkEventSubscribe>& changed) const
{
    if (changed.count() <= current.count())
        return true;
    int all = changed.count() - current.count();
    for (const CMEventQueue* queue : m_queues)
        all += queue->subscribtions().count();
    if (changed.count() <= CMEventQueue::MaximumSubscribtions && all <= MaximumSubscribtions)
        return true;
    dbglog_warn(apiLogger(),
        "Subscriptions are refused: " << changed.count() << " of one event queue, " << all << " of all queues");
    return false;
}

CMEventQueue* CMEventQueueManager::createQueue()
{
    auto* queue = new CMEventQueue(CMRoot()->tree(), m_expiryMs, this);
    m_queues.insert(queue->id(), queue);
    connect(queue, &CMEventQueue::expired, this, [this, queue] { remove(queue); });
    return queue;
}

void CMEventQueueManager::remove(CMEventQueue* queue)
{
    m_queues.remove(queue->id());
    queue->deleteLater();
    dbglog_debug(apiLogger(), "Event queue expired: " << queue->textId());
    Q_EMIT expired(queue->textId());
}
