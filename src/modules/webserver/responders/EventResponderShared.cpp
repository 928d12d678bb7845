#include "EventResponderShared.h"

#include "WebserverLog.h"

EventResponderShared::EventResponderShared(int queuesPerClient)
    : m_eventQueues(nullptr), m_queuesPerClient(queuesPerClient)
{
    connect(&m_eventQueues, &CMEventQueueManager::expired, this, &EventResponderShared::on_queue_expired);
}

void EventResponderShared::addQueue(const QString& queueId, const QString& client)
{
    ++m_queues;
    if (client.isEmpty())
        return;
    m_clients.insert(queueId, client);
    ++m_queueCounts[client];
}

void EventResponderShared::on_queue_expired(const QString& queueId)
{
    dbglog_trace(webserverLog(), "Removing expired queue id: " << queueId << " from queueId legacy path set");
    --m_queues;
    m_legacyQueues.remove(queueId);
    const QString client = m_clients.take(queueId);
    if (!client.isEmpty() && --m_queueCounts[client] == 0)
        m_queueCounts.remove(client);
}
