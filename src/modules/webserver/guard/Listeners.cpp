#include "Listeners.h"

#include <glib-unix.h>

#include <array>
#include <sys/epoll.h>
#include <unistd.h>

#include "WebserverLog.h"

Listeners::Listeners() : m_context(g_main_context_new()), m_epollFd(epoll_create1(EPOLL_CLOEXEC))
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

bool Listeners::add(SoupServer* server, const std::function<bool()>& listen)
{
    dbglog_scopedFunction(webserverLog());
    if (m_epollFd < 0)
        return listen();
    g_main_context_push_thread_default(m_context);
    const bool listening = listen();
    g_main_context_pop_thread_default(m_context);
    GSList* listeners = soup_server_get_listeners(server);
    for (const GSList* entry = listeners; entry; entry = entry->next) {
        auto* listener = static_cast<GSocket*>(entry->data);
        // The library leaves it blocking: told of a client whom somebody else has accepted, it would wait for the next
        // one, and everybody with it. As it is, that listener fails, and ConnectionTable starts it again.
        g_socket_set_blocking(listener, FALSE);
        watch(g_socket_get_fd(listener));
    }
    g_slist_free(listeners);
    return listening;
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
