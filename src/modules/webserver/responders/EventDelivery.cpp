#include "EventDelivery.h"

#include <fcntl.h>
#include <linux/sockios.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include "Message.h"
#include "WebserverLog.h"

namespace {

constexpr int DoubtMilliseconds = 3000;
// Longer than any system holds an acknowledgement back, shorter than it takes to find another network.
constexpr gint64 AcknowledgementMicroseconds = 300 * 1000;

bool has(int fd, int events)
{
    pollfd socket{ fd, static_cast<short>(events), 0 };
    return fd >= 0 && ::poll(&socket, 1, 0) == 1 && (socket.revents & events) != 0;
}

} // namespace

void EventDelivery::watch(const Message& message, CMEventQueue* queue, quint64 token)
{
    dbglog_scopedFunction(webserverLog());
    new EventDelivery(message, queue, token);
}

void EventDelivery::settleSent(CMEventQueue* queue)
{
    dbglog_scopedFunction(webserverLog());
    const auto deliveries = queue->findChildren<EventDelivery*>(QString(), Qt::FindDirectChildrenOnly);
    for (EventDelivery* delivery : deliveries) {
        if (!delivery->m_message)
            delivery->settle();
    }
}

EventDelivery::EventDelivery(const Message& message, CMEventQueue* queue, quint64 token)
    : QObject(queue), m_queue(queue), m_token(token), m_message(message.data().message),
      m_client(message.data().client), m_encrypted(message.isHttps())
{
    g_signal_connect(m_message, "wrote-headers", G_CALLBACK(onWroteHeaders), this);
    g_signal_connect(m_message, "finished", G_CALLBACK(onFinished), this);
}

EventDelivery::~EventDelivery()
{
    if (m_message)
        g_signal_handlers_disconnect_by_data(m_message, this);
    if (m_fd >= 0)
        ::close(m_fd);
}

// Nobody has read the whole answer here: whoever closes at its end has not done so yet.
void EventDelivery::onWroteHeaders(SoupMessage*, gpointer self)
{
    auto* delivery = static_cast<EventDelivery*>(self);
    delivery->m_leftBeforeBody = has(delivery->clientSocket(), POLLRDHUP | POLLHUP | POLLERR);
}

void EventDelivery::onFinished(SoupMessage* message, gpointer self)
{
    auto* delivery = static_cast<EventDelivery*>(self);
    g_signal_handlers_disconnect_by_data(message, delivery);
    delivery->m_message = nullptr;
    // The library puts this in place of the status when the connection broke.
    if (message->status_code == SOUP_STATUS_IO_ERROR || delivery->m_leftBeforeBody)
        return delivery->settleAs(true);
    if (delivery->m_encrypted || !delivery->m_queue->isHeld(delivery->m_token))
        return delivery->settleAs(false);
    delivery->m_closedByServer = !soup_message_is_keepalive(message);
    delivery->keepSocket();
}

int EventDelivery::clientSocket() const
{
    GSocket* socket = soup_client_context_get_gsocket(m_client);
    return socket ? g_socket_get_fd(socket) : -1;
}

void EventDelivery::keepSocket()
{
    // A duplicate, as the library may close its own before anything is known.
    m_fd = fcntl(clientSocket(), F_DUPFD_CLOEXEC, 0);
    if (m_fd < 0)
        return settleAs(false);
    m_sentAt = g_get_monotonic_time();
    startTimer(DoubtMilliseconds);
    if (m_closedByServer) {
        // While there is a duplicate, the library's close() does not end the connection.
        QMetaObject::invokeMethod(
            this, [this] { ::shutdown(m_fd, SHUT_WR); }, Qt::QueuedConnection);
    }
}

void EventDelivery::timerEvent(QTimerEvent*)
{
    settle();
}

void EventDelivery::settle()
{
    settleAs(isRefused() || isUnacknowledged());
}

bool EventDelivery::isRefused() const
{
    // Both sides have ended a connection that the server closed: that it hangs up says nothing, but its error is still
    // there. The error of another one the library may have taken away, but only a refusal ends that at once.
    return has(m_fd, m_closedByServer ? POLLERR : POLLERR | POLLHUP);
}

bool EventDelivery::isUnacknowledged() const
{
    int bytes = 0;
    return g_get_monotonic_time() - m_sentAt > AcknowledgementMicroseconds && ioctl(m_fd, SIOCOUTQ, &bytes) == 0
        && bytes > 0;
}

void EventDelivery::settleAs(bool lost)
{
    dbglog_trace(webserverLog(),
        "answer to poll " << m_token << " of " << m_queue->textId() << (lost ? " is lost" : " has arrived"));
    CMEventQueue* queue = m_queue;
    const quint64 token = m_token;
    delete this;
    if (lost)
        queue->restore(token);
    else
        queue->confirm(token);
}
