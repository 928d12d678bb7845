#pragma once

#include <QVector>

#include <libsoup/soup.h>

/// Keeps the library's listeners off the main loop, which would look at three sources for each of them on every turn,
/// two listeners a server: more than a request's own. They live in a context of their own, which is asked only when one
/// epoll set says that somebody has come. What the library does for a new connection it does in the main loop's
/// context.
///
/// The library stops accepting for good when accept() fails once: such a listener is started again.
class Listeners {
public:
    explicit Listeners(SoupServer* server); ///< Not owned; outlives this object.
    ~Listeners();
    Listeners(const Listeners&) = delete;
    Listeners& operator=(const Listeners&) = delete;

    /// Listens on all interfaces; false, with the reason, when that is not possible. May be called again once the
    /// library has disconnected.
    bool start(int port, SoupServerListenOptions options, GError** error);
    /// Closes them for good, and no connection.
    void close();
    /// To be called now and then, with the number of connections that were ever accepted.
    void revive(quint64 accepted);

private:
    void enter() const;
    void leave() const;
    QVector<GSocket*> awaited() const;
    void watch(int fd) const;
    static gboolean onComing(gint fd, GIOCondition condition, gpointer self);

    SoupServer* m_server;
    SoupServerListenOptions m_options = static_cast<SoupServerListenOptions>(0);
    GMainContext* m_context;
    int m_epollFd;
    guint m_source = 0;
    quint64 m_acceptedAtSweep = 0;
    int m_sweepsWaited = 0; ///< In a row, a client was found waiting and none had been accepted.
};
