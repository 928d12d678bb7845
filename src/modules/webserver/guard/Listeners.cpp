#include "Listeners.h"

#include <glib-unix.h>

#include <array>
#include <fcntl.h>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include "WebserverLog.h"

Listeners::Listeners(SoupServer* server)
    : m_server(server), m_context(g_main_context_new()), m_epollFd(epoll_create1(EPOLL_CLOEXEC))
{
    if (m_epollFd >= 0)
        m_source = g_unix_fd_add(m_epollFd, G_IO_IN, onComing, this);
}

Listeners::~Listeners()
{
    if (m_source)
        g_source_remove(m_source);
    if (m_epollFd >= 0)
        ::close(m_epollFd);
    g_main_context_unref(m_context);
}

bool Listeners::start(int port, SoupServerListenOptions options, GError** error)
{
    dbglog_scopedFunction(webserverLog());
    m_options = options;
    enter();
    const bool listening = soup_server_listen_all(m_server, static_cast<guint>(port), options, error) != FALSE;
    leave();
    return listening;
}

void Listeners::enter() const
{
    if (m_epollFd >= 0)
        g_main_context_push_thread_default(m_context);
}

void Listeners::leave() const
{
    if (m_epollFd < 0)
        return;
    g_main_context_pop_thread_default(m_context);
    GSList* listeners = soup_server_get_listeners(m_server);
    for (const GSList* entry = listeners; entry; entry = entry->next) {
        auto* listener = static_cast<GSocket*>(entry->data);
        // The library leaves it blocking: told of a client whom somebody else has accepted, it would wait for the next
        // one, and everybody with it. As it is, that listener fails, and revive() starts it again.
        g_socket_set_blocking(listener, FALSE);
        watch(g_socket_get_fd(listener));
    }
    g_slist_free(listeners);
}

// The library gives no listener up without its connections, and does not survive one that fails. So its descriptor
// becomes one on which nothing ever happens, which closes the socket that it was.
void Listeners::close()
{
    dbglog_scopedFunction(webserverLog());
    const int silent = ::eventfd(0, EFD_CLOEXEC);
    GSList* listeners = soup_server_get_listeners(m_server);
    for (const GSList* entry = listeners; silent >= 0 && entry; entry = entry->next)
        ::dup3(silent, g_socket_get_fd(static_cast<GSocket*>(entry->data)), O_CLOEXEC);
    g_slist_free(listeners);
    if (silent >= 0)
        ::close(silent);
}

// A listener with a client waiting at three sweeps, and none accepted in between, has stopped. Two are not enough: a
// sweep comes before the listeners in its turn of the loop, so after a turn that took long the second sees the client
// that came in the middle of the first one's.
void Listeners::revive(quint64 accepted)
{
    const QVector<GSocket*> stuck = awaited();
    m_sweepsWaited = !stuck.isEmpty() && accepted == m_acceptedAtSweep ? m_sweepsWaited + 1 : int(!stuck.isEmpty());
    m_acceptedAtSweep = accepted;
    if (m_sweepsWaited < 3)
        return;
    m_sweepsWaited = 0;
    dbglog_error(webserverLog(), "A listener had stopped accepting, starting it again");
    enter();
    for (GSocket* listener : stuck)
        soup_server_listen_socket(m_server, listener, m_options, nullptr);
    leave();
}

// Once each: the library has one that was revived twice.
QVector<GSocket*> Listeners::awaited() const
{
    QVector<GSocket*> waited;
    GSList* listeners = soup_server_get_listeners(m_server);
    for (const GSList* entry = listeners; entry; entry = entry->next) {
        auto* listener = static_cast<GSocket*>(entry->data);
        pollfd request{ g_socket_get_fd(listener), POLLIN, 0 };
        if (::poll(&request, 1, 0) == 1 && !waited.contains(listener))
            waited.append(listener);
    }
    g_slist_free(listeners);
    return waited;
}

// A closed one leaves the set by itself.
void Listeners::watch(int fd) const
{
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.fd = fd;
    if (epoll_ctl(m_epollFd, EPOLL_CTL_ADD, fd, &event) != 0)
        epoll_ctl(m_epollFd, EPOLL_CTL_MOD, fd, &event);
}

// One turn takes one connection of each listener; the others have the loop's next turn. A listener that the library has
// given up takes none, and would be reported for ever: it is left alone until it is added again.
gboolean Listeners::onComing(gint epollFd, GIOCondition, gpointer self)
{
    std::array<epoll_event, 4> events{};
    const int count = epoll_wait(epollFd, events.data(), static_cast<int>(events.size()), 0);
    if (g_main_context_iteration(static_cast<Listeners*>(self)->m_context, FALSE))
        return G_SOURCE_CONTINUE;
    for (int i = 0; i < count; ++i) {
        epoll_event& event = events.at(static_cast<size_t>(i));
        event.events = 0;
        epoll_ctl(epollFd, EPOLL_CTL_MOD, event.data.fd, &event);
    }
    return G_SOURCE_CONTINUE;
}
