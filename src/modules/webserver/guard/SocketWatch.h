#pragma once

#include <QtGlobal>

#include <glib.h>

#include <functional>

/// One epoll set for the sockets of all connections: a watch each on the main loop would double the work of every turn.
/// Tells of each change once, from the event loop. A socket that was closed leaves the set by itself, unless somebody
/// has duplicated it: then there may be events for a number that nobody knows any more.
class SocketWatch {
public:
    /// The number that the socket was added under, and the EPOLL… bits of what happened.
    using Happened = std::function<void(quint64 number, quint32 events)>;

    explicit SocketWatch(const Happened& happened);
    ~SocketWatch();
    SocketWatch(const SocketWatch&) = delete;
    SocketWatch& operator=(const SocketWatch&) = delete;

    /// Watches for the peer's end of the connection. False when there is no watching it.
    bool add(int fd, quint64 number);
    /// Watches for bytes too, or no longer; what is there already is told. False when there is no watching it.
    bool setInputWanted(int fd, quint64 number, bool wanted);

private:
    static gboolean onEvents(gint fd, GIOCondition condition, gpointer self);

    Happened m_happened;
    int m_epollFd;
    guint m_source = 0;
};
