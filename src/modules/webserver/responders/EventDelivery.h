#pragma once

#include <QObject>

#include <libsoup/soup.h>

#include "CMEventQueue.h"

class Message;

/// Tells an event queue what became of the answer to one poll. A child of the queue, which deletes itself when that is
/// known; request and responder are gone by then. It looks when the queue is polled again, or after some seconds, and
/// has no part in the event loop until then: with a thousand waiting polls, each would slow down every turn.
///
/// An answer is lost when
/// - the library could not send it;
/// - the client had closed its side of the connection before the body was sent;
/// - the client's system refuses it (RST): it does so for bytes that come too late, and for bytes that it took and
///   that nobody had read when the client closed the connection. Not with HTTPS, where it does so too when all that is
///   unread is the end of the encryption;
/// - it is not acknowledged when the client already asks again on another connection, or after some seconds.
///
/// Otherwise it has arrived. What a client has read from its system and then not looked at, nobody can see; against
/// that it can count (CMEventQueue).
class EventDelivery : public QObject {
    Q_OBJECT
public:
    /// From now on, for the exchange of `message`; `token` is what poll() returned.
    static void watch(const Message& message, CMEventQueue* queue, quint64 token);
    /// Before another poll of the queue: decides about the answers that were sent.
    static void settleSent(CMEventQueue* queue);

    ~EventDelivery() override;

private:
    EventDelivery(const Message& message, CMEventQueue* queue, quint64 token);

    static void onWroteHeaders(SoupMessage* message, gpointer self);
    static void onFinished(SoupMessage* message, gpointer self);

    int clientSocket() const; ///< -1: closed.
    void keepSocket();
    bool isRefused() const;
    bool isUnacknowledged() const;
    void settle();
    void settleAs(bool lost);
    void timerEvent(QTimerEvent* event) override;

    CMEventQueue* m_queue; ///< The parent.
    quint64 m_token;
    SoupMessage* m_message; ///< Null when the exchange is finished; not owned.
    SoupClientContext* m_client; ///< Not owned; lives as long as the exchange.
    bool m_encrypted;
    bool m_leftBeforeBody = false;
    bool m_closedByServer = false;
    int m_fd = -1; ///< The socket, once the answer is sent.
    gint64 m_sentAt = 0; ///< Microseconds of the monotonic clock.
};
