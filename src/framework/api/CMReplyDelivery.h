#pragma once

#include <QPointer>

#include <functional>
#include <vector>

/// Runs the callbacks of finished replies from the event loop, in the order in which they were posted: all that were
/// posted in one turn of the loop share one event, since each event of its own would wake the loop by a system call.
class CMReplyDelivery : public QObject {
public:
    ~CMReplyDelivery() override;

    /// On the calling thread, which must be the receiver's. Dropped when the receiver is gone by then, and when the
    /// thread ends before its event loop turns again.
    static void post(const QPointer<QObject>& receiver, std::function<void()> callback);

private:
    struct Delivery {
        QPointer<QObject> receiver;
        std::function<void()> callback;
    };

    void deliver();

    std::vector<Delivery> m_deliveries;
};
