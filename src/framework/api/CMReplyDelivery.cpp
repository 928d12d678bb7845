#include "CMReplyDelivery.h"

#include <utility>

namespace {

// Has no destructor, so that it can be asked when the queue of this thread is gone.
thread_local bool isQueueGone = false;

} // namespace

// Dropping what was not delivered drops replies without an answer, and these post their error.
CMReplyDelivery::~CMReplyDelivery()
{
    isQueueGone = true;
}

void CMReplyDelivery::post(const QPointer<QObject>& receiver, std::function<void()> callback)
{
    if (isQueueGone)
        return;
    static thread_local CMReplyDelivery queue;
    if (queue.m_deliveries.empty())
        QMetaObject::invokeMethod(
            &queue, [] { queue.deliver(); }, Qt::QueuedConnection);
    queue.m_deliveries.push_back({ receiver, std::move(callback) });
}

void CMReplyDelivery::deliver()
{
    // What these callbacks post belongs to the next turn.
    const std::vector<Delivery> deliveries = std::exchange(m_deliveries, {});
    for (const Delivery& delivery : deliveries) {
        if (delivery.receiver)
            delivery.callback();
    }
}
