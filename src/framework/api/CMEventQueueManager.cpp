#include "CMEventQueueManager.h"

#include <algorithm>
#include <numeric>
#include <utility>

#include "ApiLogger.h"
#include "CMNodeTree.h"
#include "CMRoot.h"
#include "CMUINode.h"

namespace {

constexpr int TextLength = 36; // Of a UUID without braces (RFC 9562, section 4).

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

    const Change change = changeOf(queue, subscribe, unsubscribe);
    if (!isWithinLimits(queue ? queue->subscribtions().count() : 0, change))
        return nullptr;
    if (isNew)
        queue = createQueue();
    queue->change(change.added, change.removed);
    return queue;
}

// Nothing here depends on how much the queue has already: clients subscribe one path after another.
CMEventQueueManager::Change CMEventQueueManager::changeOf(const CMEventQueue* queue,
    const ZarkList<ZarkEventSubscribe>& subscribe, const ZarkList<ZarkEventSubscribe>& unsubscribe)
{
    Change change;
    QSet<QString> seen;
    const auto isFirst = [&seen](const ZarkEventSubscribe& item) {
        const int before = seen.count();
        seen.insert(item.type() + item.path().toEncoded());
        return seen.count() > before;
    };
    for (const ZarkEventSubscribe& item : subscribe) {
        if (isFirst(item) && (!queue || !queue->isSubscribed(item)))
            change.added.append(item);
    }
    for (const ZarkEventSubscribe& item : unsubscribe) {
        if (isFirst(item) && queue && queue->isSubscribed(item))
            change.removed.append(item);
    }
    return change;
}

CMEventQueue* CMEventQueueManager::getQueue(const QString& queueId) const
{
    // QUuid overlooks what stands behind the id.
    CMEventQueue* const queue = m_queues.value(QUuid(queueId));
    const int braces = queueId.startsWith(QLatin1Char('{')) ? 2 : 0;
    return queueId.size() == TextLength + braces ? queue : nullptr;
}

int CMEventQueueManager::pendingChanges() const
{
    return std::accumulate(m_queues.cbegin(), m_queues.cend(), 0,
        [](int sum, const CMEventQueue* queue) { return sum + queue->pendingChanges(); });
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

bool CMEventQueueManager::isWithinLimits(int current, const Change& change) const
{
    const int more = change.added.count() - change.removed.count();
    if (more <= 0)
        return true;
    int all = more;
    for (const CMEventQueue* queue : m_queues)
        all += queue->subscribtions().count();
    if (current + more <= CMEventQueue::MaximumSubscribtions && all <= MaximumSubscribtions)
        return true;
    dbglog_warn(apiLogger(),
        "Subscriptions are refused: " << current + more << " of one event queue, " << all << " of all queues");
    return false;
}

CMEventQueue* CMEventQueueManager::createQueue()
{
    auto* queue = new CMEventQueue(CMRoot()->tree(), m_expiryMs, this, this);
    m_queues.insert(queue->id(), queue);
    return queue;
}

void CMEventQueueManager::remove(CMEventQueue* queue)
{
    m_queues.remove(queue->id());
    queue->deleteLater();
    dbglog_debug(apiLogger(), "Event queue expired: " << queue->textId());
    Q_EMIT expired(queue->textId());
}

// One event for all, as many clients wait for the same node: each event wakes the loop by a system call.
void CMEventQueueManager::answerSoon(CMEventQueue* queue)
{
    if (m_due.isEmpty())
        QMetaObject::invokeMethod(this, &CMEventQueueManager::answerDue, Qt::QueuedConnection);
    m_due.append(queue);
}

void CMEventQueueManager::answerDue()
{
    const auto due = std::exchange(m_due, {});
    for (const QPointer<CMEventQueue>& queue : due) {
        if (queue)
            queue->answerChanges();
    }
}
