#pragma once

#include <QPointer>
#include <QSharedPointer>

#include "EventRequests.h"
#include "PollResponder.h"

/// Answers /api/event/modifyQueue and /api/event/pollQueue, GET and POST: JSON on success, plain text otherwise.
///
/// identify → parse → authorize → ask the queues → reply. A poll is answered when its queue says so, by
/// queueRequestDone(); EventDelivery then tells the queue whether the answer left. Errors leave through finishRespond()
/// alone.
class EventResponder : public PollResponder {
    Q_OBJECT
public:
    using SubscribeData = EventSubscribeData;

    EventResponder(Request& request, const QString& path, const QSharedPointer<EventResponderShared>& shared,
        const QSharedPointer<UserDatabase>& userDatabase, const QSharedPointer<ResponderConfiguration>& configuration,
        QObject* parent);
    ~EventResponder() override; ///< Gives up the poll that still waits.

    void respond() override;

    EventResponderShared* shared() const override { return m_shared.data(); }
    void watchDelivery(CMEventQueue* queue, quint64 token) override;
    void queueRequestDone(const ZarkList<ZarkEvent>& events) override;
    bool mayReadNow(const CMPath& path) const override;

private:
    void modifyQueue();
    void pollQueue();

    /// False when the request cannot be read.
    bool parseData(SubscribeData* data);
    bool isAuthorized(bool modify, const ZarkList<ZarkEventSubscribe>& paths) const;
    /// False after the refusal was answered. A verified caller releases the brake on failures.
    bool admit(bool modify, const ZarkList<ZarkEventSubscribe>& paths);

    void finishRespond(int status, const QString& text);

    QPointer<CMEventQueue> m_polled;
    quint64 m_pollToken = 0;
    QSharedPointer<EventResponderShared> m_shared;
};
