#pragma once

#include <QUuid>

#include "ZarkEvent.h"
#include "ZarkList.h"

/// One poll of an event queue, from CMEventQueue::poll() until its answer. The queue owns it and deletes it when done()
/// has returned, or unanswered when the poll was given up (CMEventQueue::giveUp()).
class CMEventQueueRequest {
public:
    CMEventQueueRequest() = default;
    virtual ~CMEventQueueRequest();
    CMEventQueueRequest(const CMEventQueueRequest&) = delete;
    CMEventQueueRequest& operator=(const CMEventQueueRequest&) = delete;

    /// The answer, once, on the event loop's thread and never from inside a change of a node; from inside poll() when
    /// events wait already. May call confirm() and restore(), but neither poll() nor anything that ends the queue.
    virtual void done(const QUuid& queueId, const ZarkList<ZarkEvent>& events) = 0;

    /// Whether this client may see the node at `path` as it is now. Asked just before the answer, whose values are read
    /// then. Changes that it may not see stay in the queue.
    virtual bool mayRead(const CMPath& path) const;

    /// True when the asker will tell with confirm() or restore() whether the answer arrived. Otherwise it counts as
    /// arrived when done() returns.
    virtual bool settles() const { return false; }

    /// What poll() returned for this request; 0 before poll().
    quint64 token() const { return m_token; }

private:
    friend class CMEventQueue;

    quint64 m_token = 0;
};
