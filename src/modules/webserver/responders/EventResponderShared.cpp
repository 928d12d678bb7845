#include "EventResponderShared.h"

#include "WebserverLog.h"

EventResponderShared::EventResponderShared() : m_eventQueues(nullptr)
{
    connect(&m_eventQueues, &CMEventQueueManager::expired, this, &EventResponderShared::on_queue_expired);
}

void EventResponderShared::on_queue_expired(const QString& queueId)
{
    dbglog_trace(webserverLog(), "Removing expired queue id: " << queueId << " from queueId legacy path set");
    m_legacyQueues.remove(queueId);
}
