#pragma once

#include "CMPath.h"
#include "SignedResponder.h"
#include "ZarkEvent.h"
#include "ZarkList.h"

class CMEventQueue;
class EventResponderShared;

/// A responder as the poll that waits for it sees it.
class PollResponder : public SignedResponder {
public:
    using SignedResponder::SignedResponder;

    virtual EventResponderShared* shared() const = 0;

    /// The answer that follows is to tell `queue`, as poll `token`, whether it arrived.
    virtual void watchDelivery(CMEventQueue* queue, quint64 token) = 0;
    /// The answer to a poll.
    virtual void queueRequestDone(const ZarkList<ZarkEvent>& events) = 0;
    /// Whether this client may hear of the node at `path` under the permissions and the mode of this moment. Internal
    /// nodes do not exist for clients outside the device.
    virtual bool mayReadNow(const CMPath& path) const = 0;
};
