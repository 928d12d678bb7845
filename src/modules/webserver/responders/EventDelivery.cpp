#include "EventDelivery.h"

#include <poll.h>

#include "Message.h"
#include "WebserverLog.h"

void EventDelivery::watch(const Message& message, CMEventQueue* queue, quint64 token)
{
    auto* delivery = new EventDelivery(message.data().client, queue, token);
    SoupMessage* exchange = message.data().message;
    g_signal_connect(exchange, "wrote-headers", G_CALLBACK(onWroteHeaders), delivery);
    g_signal_connect_data(
        exchange, "finished", G_CALLBACK(onFinished), delivery,
        [](gpointer self, GClosure*) { delete static_cast<EventDelivery*>(self); }, static_cast<GConnectFlags>(0));
}

// Nobody has read the whole answer here: whoever closes at its end has not done so yet.
void EventDelivery::onWroteHeaders(SoupMessage*, gpointer self)
{
    auto* delivery = static_cast<EventDelivery*>(self);
    delivery->m_leftBeforeBody = delivery->clientHas(POLLRDHUP | POLLHUP | POLLERR);
}

void EventDelivery::onFinished(SoupMessage* message, gpointer self)
{
    const auto* delivery = static_cast<EventDelivery*>(self);
    if (!delivery->m_queue)
        return;
    // The library puts this in place of the status when the connection broke.
    const bool lost = message->status_code == SOUP_STATUS_IO_ERROR || delivery->m_leftBeforeBody
        || delivery->clientHas(POLLHUP | POLLERR);
    dbglog_trace(webserverLog(),
        "poll " << delivery->m_token << " of " << delivery->m_queue->textId() << (lost ? ": lost" : ": sent"));
    if (lost)
        delivery->m_queue->restore(delivery->m_token);
    else
        delivery->m_queue->confirm(delivery->m_token);
}

bool EventDelivery::clientHas(short events) const
{
    GSocket* socket = soup_client_context_get_gsocket(m_client);
    pollfd peer{ socket ? g_socket_get_fd(socket) : -1, events, 0 };
    return peer.fd >= 0 && ::poll(&peer, 1, 0) == 1 && (peer.revents & events);
}
