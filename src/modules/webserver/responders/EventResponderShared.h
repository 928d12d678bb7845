#pragma once

#include <QHash>
#include <QObject>
#include <QSet>
#include <QString>

#include "CMEventQueueManager.h"
#include "EventDelivery.h"
#include "HeapTrim.h"

/// What all event responders share: the queues, which of them belong to clients that use legacy paths, which client
/// made each, what becomes of their answers and of their memory.
class EventResponderShared : public QObject {
    Q_OBJECT
public:
    /// One client, by its address, may have so many queues.
    explicit EventResponderShared(int queuesPerClient);

    CMEventQueueManager* eventQueues() { return &m_eventQueues; }
    EventDelivery* delivery() { return &m_delivery; }
    HeapTrim* heapTrim() { return &m_heapTrim; }
    void addLegacyQueue(const QString& queueId) { m_legacyQueues.insert(queueId); }
    bool isLegacyQueue(const QString& queueId) const { return m_legacyQueues.contains(queueId); }

    /// Whether `client` may make another queue; an empty one, the device itself, may always.
    bool hasRoomFor(const QString& client) const { return m_queueCounts.value(client) < m_queuesPerClient; }
    void addQueue(const QString& queueId, const QString& client);
    int queues() const { return m_queues; }
    int pendingChanges() const { return m_eventQueues.pendingChanges(); } ///< Of all queues, not told yet.

    void pollBegan() { ++m_polls; }
    void pollEnded() { --m_polls; }
    int polls() const { return m_polls; } ///< That wait.

private:
    void on_queue_expired(const QString& queueId);

    CMEventQueueManager m_eventQueues;
    EventDelivery m_delivery;
    HeapTrim m_heapTrim;
    QSet<QString> m_legacyQueues;
    int m_queuesPerClient;
    int m_queues = 0;
    int m_polls = 0;
    QHash<QString, QString> m_clients; ///< By queue; without those of the device itself.
    QHash<QString, int> m_queueCounts; ///< By client.
};
