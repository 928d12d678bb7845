#include "CMEventQueueHttpRequest.h"

#include "EventResponderShared.h"
#include "EventRewriting.h"
#include "WebserverLog.h"

void CMEventQueueHttpRequest::done(const QUuid& queueId, const ZarkList<ZarkEvent>& events)
{
    dbglog_scopedFunction(webserverLog());
    if (!m_responder)
        return;
    if (!events.isEmpty())
        m_responder->watchDelivery(m_queue, token());
    ZarkList<ZarkEvent> told = events;
    if (m_responder->shared()->isLegacyQueue(queueId.toString(QUuid::WithoutBraces)))
        addLegacyPaths(&told);
    splitMoves(&told);
    m_responder->queueRequestDone(told);
}

bool CMEventQueueHttpRequest::mayRead(const CMPath& path) const
{
    dbglog_scopedFunction(webserverLog());
    return m_responder && m_responder->mayReadNow(path);
}
