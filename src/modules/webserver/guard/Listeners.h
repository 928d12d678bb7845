#pragma once

#include <glib.h>
#include <libsoup/soup.h>

#include <functional>

/// Keeps the library's listeners off the main loop, which would look at three sources for each of them on every turn,
/// two listeners a server: more than a request's own. They live in a context of their own, which is asked only when one
/// epoll set says that somebody has come. What the library does for a new connection it does in the main loop's
/// context.
class Listeners {
public:
    Listeners();
    ~Listeners();
    Listeners(const Listeners&) = delete;
    Listeners& operator=(const Listeners&) = delete;

    /// Calls `listen`, which makes the library listen, and returns what it does. The library's listeners are looked
    /// after from then on, one that it had given up too.
    bool add(SoupServer* server, const std::function<bool()>& listen);

private:
    void watch(int fd) const;
    static gboolean onComing(gint fd, GIOCondition condition, gpointer self);

    GMainContext* m_context;
    int m_epollFd;
    guint m_source = 0;
};
