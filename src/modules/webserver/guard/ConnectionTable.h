#pragma once

#include <QObject>

#include <libsoup/soup.h>

#include <memory>
#include <unordered_map>
#include <vector>

#include "Census.h"
#include "Connection.h"
#include "Listeners.h"
#include "ServerCounters.h"
#include "ServerLimits.h"
#include "SocketWatch.h"

class Parking;

/// What the HTTP library leaves out about connections: deadlines for silent and dripping clients (Deadlines), a cap on
/// how many there are, and notice of a client that leaves while its exchange is paused. Idle connections it parks
/// (Parking); new ones come through Listeners. On the server's thread; lives from the server's construction to just
/// before its destruction.
class ConnectionTable : public QObject {
public:
    ConnectionTable(SoupServer* server, const ServerLimits& limits);
    ~ConnectionTable() override;
    ConnectionTable(const ConnectionTable&) = delete;
    ConnectionTable& operator=(const ConnectionTable&) = delete;

    SoupServer* server() const { return m_server; }
    const ServerLimits& limits() const { return m_limits; }
    ServerCounters& counters() { return m_counters; }

    /// Listens on all interfaces; false, with the reason, when that is not possible.
    bool start(int port, SoupServerListenOptions options, GError** error);
    /// To be called before the library disconnects everybody. Where there is time, endHandshakes() comes before.
    void stop();
    /// Closes the listeners and the idle connections, and each other one when its client has its answer.
    void drain();
    bool isDraining() const { return m_draining; }
    /// Cuts those who shake hands; the library learns of it from the event loop. Disconnected before that, each would
    /// leave a descriptor behind for good. True when there is none (any more): now is the time to stop().
    bool endHandshakes();

    /// Some client has sent a request, or is sending its body, and has no full answer yet.
    bool isAnswering() const;
    Census census() const;

    /// The record of the connection that `client` is; made when it is new. Valid until the connection is gone and the
    /// event loop has turned. The library is about to read the head of `message`.
    Connection* requestStarted(SoupClientContext* client, SoupMessage* message);
    static void headRead(Connection* connection);
    /// The whole request was read: its answer has no deadline.
    static void requestRead(Connection* connection);
    /// A handler is about to get a request, whose body has been read. Null for a connection that is not known.
    Connection* requestHandled(SoupClientContext* client, bool isRead);
    /// The exchange is over, whether or not the client has the answer. Once for each: later calls have no effect.
    static void requestFinished(Connection* connection, SoupMessage* message);
    /// The head is accepted, and nothing else stands between its body and a handler; or it was refused after all.
    static void bodyAwaited(Connection* connection);
    static void bodyRefused(Connection* connection);
    /// Something of a body has come that an early handler takes as it arrives: it has `stalledSeconds` to go on, and
    /// `uploadSeconds` in all.
    static void bodyMoved(Connection* connection);
    /// Closes the connection from the event loop.
    void closeSoon(Connection* connection);

protected:
    void timerEvent(QTimerEvent* event) override;

private:
    static void onDisconnected(SoupSocket* socket, gpointer connection);

    Connection* accepted(SoupClientContext* client);
    static void settle(Connection* connection);
    void heard(quint64 number, quint32 events);
    Connection* leastUseful(Connection* newest) const;
    bool mayBeShakingHands(const Connection& connection) const;
    void close(Connection* connection);
    void doom(Connection* connection);
    void closeDoomed();
    void closeOverdue();
    void closeSlowHandshakes();
    void parkIdle();
    void scheduleSweep(int milliseconds);
    void stopSweep();

    SoupServer* m_server;
    ServerLimits m_limits;
    int m_maximumConnections;
    bool m_isTls = false;
    Listeners m_listeners;
    SocketWatch m_watch;
    std::unique_ptr<Parking> m_parking;
    int m_timer = 0;
    int m_timerMilliseconds = 0;
    ServerCounters m_counters;
    quint64 m_acceptCount = 0;
    bool m_draining = false;
    std::unordered_map<SoupClientContext*, std::unique_ptr<Connection>> m_connections;
    std::unordered_map<quint64, Connection*> m_numbered; ///< The same.
    std::vector<std::unique_ptr<Connection>> m_gone; ///< Kept until the next sweep: callbacks may still hold them.
    std::vector<Connection*> m_doomed;
};
