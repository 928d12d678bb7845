#pragma once

#include <QPointer>
#include <QSharedPointer>

#include "EventRequests.h"
#include "Responder.h"
#include "ResponderConfiguration.h"
#include "ResponderCrypto.h"
#include "UserDatabase.h"

class EventResponderShared;

/// Answers /api/event/modifyQueue and /api/event/pollQueue, GET and POST: JSON on success, plain text otherwise.
///
/// parse → authorize → ask the queues → reply. A poll is answered when its queue says so, by queueRequestDone();
/// EventDelivery then tells the queue whether the answer left. Errors leave through finishRespond() alone.
class EventResponder : public Responder {
    Q_OBJECT
public:
    using SubscribeData = EventSubscribeData;

    EventResponder(Request& request, const QString& path, const QSharedPointer<EventResponderShared>& shared,
        const QSharedPointer<UserDatabase>& userDatabase, const QSharedPointer<ResponderConfiguration>& configuration,
        QObject* parent);
    ~EventResponder() override; ///< Gives up the poll that still waits.

    void respond() override;
    bool respondWillBlock() override { return false; }
    void setRequestId(int id) override { m_requestId = id; }

    EventResponderShared* shared() const { return m_shared.data(); }

    /// The answer that follows is to tell `queue`, as poll `token`, whether it arrived.
    void watchDelivery(CMEventQueue* queue, quint64 token);
    /// The answer to a poll.
    void queueRequestDone(const ZarkList<ZarkEvent>& events);
    /// Whether this client may hear of the node at `path` under the permissions and the mode of this moment. Internal
    /// nodes do not exist for clients outside the device.
    bool mayReadNow(const CMPath& path) const;

private:
    void modifyQueue();
    void pollQueue();

    // False when the request cannot be read. Both tell whether it carried credentials, and whether they hold.
    bool parseDataGet(SubscribeData* data, bool* hasCredentials, bool* verified);
    bool parseDataPost(SubscribeData* data, bool* hasCredentials, bool* verified);
    bool readPostData(QVariantHash* fields) const;
    void readCredentials(const QByteArray& signedData, bool* hasCredentials, bool* verified) const;
    bool authenticate(const ResponderCrypto::AuthorizationHeaderFields& fields, const QByteArray& signedData) const;

    bool isAuthorized(bool hasCredentials, bool verified, bool modify, const ZarkList<ZarkEventSubscribe>& paths) const;
    /// False after the refusal was answered. A verified caller releases the brake on failures.
    bool admit(bool modify, const ZarkList<ZarkEventSubscribe>& paths);

    bool isMethod(const char* method) const;
    void respondWithJson(const QVariant& value);
    void finishRespond(int status, const QString& text, bool hasCredentials);

    int m_requestId = 0;
    bool m_hasCredentials = false;
    bool m_verified = false;
    QPointer<CMEventQueue> m_polled;
    quint64 m_pollToken = 0;
    QSharedPointer<EventResponderShared> m_shared;
    QSharedPointer<UserDatabase> m_userDatabase;
    QSharedPointer<ResponderConfiguration> m_configuration;
};
