#pragma once

#include <QObject>
#include <QSet>
#include <QString>

#include "CMEventQueueManager.h"

/// What all event responders share: the queues, and which of them belong to clients that use legacy paths.
class EventResponderShared : public QObject {
    Q_OBJECT
public:
    EventResponderShared();

    CMEventQueueManager* eventQueues() { return &m_eventQueues; }
    void addLegacyQueue(const QString& queueId) { m_legacyQueues.insert(queueId); }
    bool isLegacyQueue(const QString& queueId) const { return m_legacyQueues.contains(queueId); }

private:
    void on_queue_expired(const QString& queueId);

    CMEventQueueManager m_eventQueues;
    QSet<QString> m_legacyQueues;
};
