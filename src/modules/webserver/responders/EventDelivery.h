#pragma once

#include <QPointer>

#include <libsoup/soup.h>

#include "CMEventQueue.h"

class Message;

/// Tells an event queue what became of the answer to one poll, when the HTTP library reports the exchange finished:
/// by then the request and its responder are gone. Deletes itself with the exchange.
///
/// Not delivered is an answer that the library could not send, one whose body went to a client that had closed its side
/// of the connection before, and one that the client's system has refused by now. A client that closes while the bytes
/// are on their way cannot be told from one that reads them and closes then; against that it can count (CMEventQueue).
class EventDelivery {
public:
    /// From now on, for the exchange of `message`; `token` is what poll() returned.
    static void watch(const Message& message, CMEventQueue* queue, quint64 token);

private:
    EventDelivery(SoupClientContext* client, CMEventQueue* queue, quint64 token)
        : m_client(client), m_queue(queue), m_token(token)
    {
    }

    static void onWroteHeaders(SoupMessage* message, gpointer self);
    static void onFinished(SoupMessage* message, gpointer self);
    bool clientHas(short events) const; ///< As poll(2) names them.

    SoupClientContext* m_client; ///< Not owned; lives as long as the exchange.
    QPointer<CMEventQueue> m_queue;
    quint64 m_token;
    bool m_leftBeforeBody = false;
};
