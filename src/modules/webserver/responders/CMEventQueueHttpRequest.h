#pragma once

#include <QPointer>

#include "CMEventQueueRequest.h"
#include "PollResponder.h"

/// A poll that came over HTTP. The queue owns it and may outlive the exchange: once the responder is gone it does
/// nothing, and what it was to tell is kept for the client's next poll.
class CMEventQueueHttpRequest : public CMEventQueueRequest {
public:
    CMEventQueueHttpRequest(PollResponder* responder, CMEventQueue* queue) : m_responder(responder), m_queue(queue) { }

    void done(const QUuid& queueId, const ZarkList<ZarkEvent>& events) override;
    bool mayRead(const CMPath& path) const override;
    bool settles() const override { return true; }

private:
    QPointer<PollResponder> m_responder;
    CMEventQueue* m_queue; ///< The owner.
};
