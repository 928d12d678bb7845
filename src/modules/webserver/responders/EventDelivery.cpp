#include "EventDelivery.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <fcntl.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <utility>

#include "Message.h"
#include "WebserverLog.h"

namespace {

constexpr int AcknowledgementCheckMilliseconds = 20;

struct EventSource {
    GSource base;
    EventDelivery* delivery;
};

SoupSocket* socketOf(SoupClientContext* client)
{
    G_GNUC_BEGIN_IGNORE_DEPRECATIONS
    return soup_client_context_get_socket(client);
    G_GNUC_END_IGNORE_DEPRECATIONS
}

gboolean nothingToDispatch(GSource*, GSourceFunc, gpointer)
{
    return G_SOURCE_CONTINUE;
}

} // namespace

// A source's check comes after the wait for events and before anything is dispatched.
EventDelivery::EventDelivery() : m_epollFd(epoll_create1(EPOLL_CLOEXEC))
{
    static GSourceFuncs functions{ nullptr, onEvents, nothingToDispatch, nullptr, nullptr, nullptr };
    m_source = g_source_new(&functions, sizeof(EventSource));
    reinterpret_cast<EventSource*>(m_source)->delivery = this;
    if (m_epollFd >= 0)
        g_source_add_unix_fd(m_source, m_epollFd, G_IO_IN);
    else
        dbglog_error(webserverLog(), "Lost answers to polls may not be told again: epoll_create1: errno " << errno);
    g_source_attach(m_source, nullptr);
}

EventDelivery::~EventDelivery()
{
    g_source_destroy(m_source);
    g_source_unref(m_source);
    closeLookout();
    while (!m_connections.empty()) {
        Connection* connection = m_connections.begin()->second.get();
        stopWriting(connection);
        connection->answers.clear();
        forgetIfSettled(connection);
    }
    if (m_epollFd >= 0)
        ::close(m_epollFd);
}

bool EventDelivery::isOver(const Message& message)
{
    GSocket* socket = message.isValid() ? soup_client_context_get_gsocket(message.data().client) : nullptr;
    return !socket || TcpCounters::of(g_socket_get_fd(socket)).isOver;
}

void EventDelivery::watch(const Message& message, CMEventQueue* queue, quint64 token)
{
    dbglog_scopedFunction(webserverLog());
    GSocket* socket = message.isValid() ? soup_client_context_get_gsocket(message.data().client) : nullptr;
    if (!socket)
        return queue->restore(token);
    Connection* connection = connectionOf(message, g_socket_get_fd(socket));
    // Before the last byte leaves: the client may have read and spoken before this thread runs again.
    connection->next = { queue, token, TcpCounters::of(connection->fd) };
    connection->writing = message.data().message;
    g_signal_connect(connection->writing, "wrote-body", G_CALLBACK(onWroteBody), connection);
    g_signal_connect(connection->writing, "finished", G_CALLBACK(onFinished), connection);
}

EventDelivery::Connection* EventDelivery::connectionOf(const Message& message, int fd)
{
    auto& entry = m_connections[fd];
    if (entry)
        return entry.get();
    entry = std::make_unique<Connection>();
    entry->delivery = this;
    entry->fd = fd;
    entry->socket = socketOf(message.data().client);
    entry->server = message.data().server;
    entry->isEncrypted = message.isHttps();
    g_signal_connect(entry->socket, "disconnected", G_CALLBACK(onDisconnected), entry.get());
    epoll_event event{};
    event.events = EPOLLIN | EPOLLRDHUP | EPOLLET;
    event.data.fd = fd;
    epoll_ctl(m_epollFd, EPOLL_CTL_ADD, fd, &event);
    return entry.get();
}

void EventDelivery::settle(CMEventQueue* queue)
{
    dbglog_scopedFunction(webserverLog());
    if (!queue->isSettlingOpen())
        return;
    for (const auto& entry : m_connections) {
        auto& answers = entry.second->answers;
        const auto answer = std::find_if(answers.begin(), answers.end(),
            [queue](const Answer& candidate) { return queue->isHeld(candidate.token) && candidate.queue == queue; });
        if (answer == answers.end())
            continue;
        settleAnswer(*answer, TcpCounters::of(entry.first).acknowledged >= answer->sent.written);
        answers.erase(answer);
        return forgetIfSettled(entry.second.get());
    }
}

void EventDelivery::onWroteBody(SoupMessage* message, gpointer data)
{
    auto* connection = static_cast<Connection*>(data);
    EventDelivery* delivery = connection->delivery;
    delivery->endLookout(); // Which may be over this connection, and forgets none that is being written to.
    delivery->stopWriting(connection);
    delivery->startWatching(connection, message);
    delivery->forgetIfSettled(connection);
}

void EventDelivery::startWatching(Connection* connection, SoupMessage* message)
{
    Answer answer = std::exchange(connection->next, {});
    if (!answer.queue || !answer.queue->isHeld(answer.token))
        return;
    const TcpCounters now = TcpCounters::of(connection->fd);
    answer.sent.written = now.written;
    answer.sent.clientEnded = now.clientEnded;
    const bool closes = !soup_message_is_keepalive(message);
    if (!now.isKnown || hasArrived(answer.sent, now) || (closes && connection->isEncrypted))
        return settleAnswer(answer, true);
    if (closes || answer.sent.clientEnded) {
        connection->kept = message;
        soup_server_pause_message(connection->server, message);
        connect(answer.queue, &QObject::destroyed, this, &EventDelivery::lookAtKept, Qt::UniqueConnection);
    }
    // What else there is to come from the client, an event tells.
    if (answer.sent.clientEnded)
        m_acknowledgements.start(AcknowledgementCheckMilliseconds, this);
    if (closes)
        ::shutdown(connection->fd, SHUT_WR);
    connection->answers.push_back(answer);
    lookOut(connection);
}

// From inside the end of an exchange the library reads on: what it takes there no event tells of, and what it finds
// closed it closes. One connection at a time is therefore held by a second descriptor, until the library's turn is
// over.
void EventDelivery::lookOut(Connection* connection)
{
    m_lookoutOver = connection;
    m_lookoutFd = fcntl(connection->fd, F_DUPFD_CLOEXEC, 0);
}

void EventDelivery::endLookout()
{
    Connection* connection = m_lookoutOver;
    closeLookout();
    if (connection)
        look(connection, TcpCounters::of(connection->fd), Heard);
}

void EventDelivery::closeLookout()
{
    if (m_lookoutFd >= 0)
        ::close(m_lookoutFd);
    m_lookoutFd = -1;
    m_lookoutOver = nullptr;
}

void EventDelivery::onFinished(SoupMessage*, gpointer data)
{
    // Before its answer was written.
    auto* connection = static_cast<Connection*>(data);
    EventDelivery* delivery = connection->delivery;
    delivery->stopWriting(connection);
    delivery->settleAnswer(std::exchange(connection->next, {}), false);
    delivery->forgetIfSettled(connection);
}

void EventDelivery::onDisconnected(SoupSocket*, gpointer data)
{
    auto* connection = static_cast<Connection*>(data);
    EventDelivery* delivery = connection->delivery;
    const int fd = delivery->m_lookoutOver == connection ? delivery->m_lookoutFd : -1;
    connection->kept = nullptr;
    delivery->look(connection, TcpCounters::of(fd), Ended);
}

gboolean EventDelivery::onEvents(GSource* source)
{
    reinterpret_cast<EventSource*>(source)->delivery->hear();
    return FALSE;
}

void EventDelivery::hear()
{
    endLookout();
    if (m_connections.empty())
        return;
    std::array<epoll_event, 64> events{};
    int count = 0;
    do {
        count = epoll_wait(m_epollFd, events.data(), static_cast<int>(events.size()), 0);
        for (int i = 0; i < count; ++i) {
            const auto& event = events.at(static_cast<size_t>(i));
            const auto found = m_connections.find(event.data.fd);
            if (found == m_connections.end())
                continue;
            const TcpCounters now = TcpCounters::of(event.data.fd);
            // The end of the stream without an end from the client: this server closes the connection.
            const bool givenUp = (event.events & EPOLLRDHUP) && !now.clientEnded && !now.isOver;
            look(found->second.get(), now, now.isOver ? Ended : givenUp ? GivenUp : Heard);
        }
    } while (count == static_cast<int>(events.size()));
}

void EventDelivery::look(Connection* connection, const TcpCounters& now, Occasion occasion)
{
    const auto isSettled = [&](const Answer& answer) {
        const bool arrived =
            hasArrived(answer.sent, now) || (occasion == GivenUp && now.acknowledged >= answer.sent.written);
        if (!arrived && occasion == Heard && answer.queue)
            return false;
        settleAnswer(answer, arrived);
        return true;
    };
    auto& answers = connection->answers;
    answers.erase(std::remove_if(answers.begin(), answers.end(), isSettled), answers.end());
    forgetIfSettled(connection);
}

void EventDelivery::settleAnswer(const Answer& answer, bool arrived)
{
    if (!answer.queue || !answer.queue->isHeld(answer.token))
        return;
    dbglog_trace(webserverLog(),
        "answer to poll " << answer.token << " of " << answer.queue->textId()
                          << (arrived ? " has arrived" : " is lost"));
    if (arrived)
        answer.queue->confirm(answer.token);
    else
        answer.queue->restore(answer.token);
}

void EventDelivery::forgetIfSettled(Connection* connection)
{
    if (!connection->answers.empty() || connection->writing)
        return;
    g_signal_handlers_disconnect_by_data(connection->socket, connection);
    if (m_lookoutOver == connection)
        closeLookout();
    epoll_ctl(m_epollFd, EPOLL_CTL_DEL, connection->fd, nullptr);
    if (connection->kept)
        soup_server_unpause_message(connection->server, connection->kept);
    m_connections.erase(connection->fd);
}

void EventDelivery::stopWriting(Connection* connection)
{
    if (connection->writing)
        g_signal_handlers_disconnect_by_data(connection->writing, connection);
    connection->writing = nullptr;
}

void EventDelivery::lookAtKept()
{
    std::vector<Connection*> kept;
    bool isAcknowledgementDue = false;
    for (const auto& entry : m_connections) {
        if (!entry.second->kept)
            continue;
        kept.push_back(entry.second.get());
        isAcknowledgementDue |= entry.second->answers.back().sent.clientEnded;
    }
    if (!isAcknowledgementDue)
        m_acknowledgements.stop();
    for (Connection* connection : kept) {
        const TcpCounters now = TcpCounters::of(connection->fd);
        look(connection, now, now.isOver ? Ended : Heard);
    }
}

void EventDelivery::timerEvent(QTimerEvent*)
{
    lookAtKept();
}
