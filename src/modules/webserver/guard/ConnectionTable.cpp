#include "ConnectionTable.h"

#include <sys/epoll.h>
#include <sys/resource.h>
#include <sys/socket.h>

#include <algorithm>
#include <utility>

#include "Deadlines.h"
#include "Parking.h"
#include "TcpState.h"
#include "WatchedConnection.h"
#include "WebserverLog.h"

namespace {

constexpr int BusySweepMilliseconds = 250;
constexpr int IdleSweepMilliseconds = 1000;
constexpr gint64 SilentHandshake = 250 * 1000;
constexpr gint64 SlowHandshake = 1000 * 1000;
constexpr int MaximumSlowHandshakes = 4;
constexpr gint64 MicrosecondsPerSecond = 1000 * 1000;

int maximumConnections(int configured)
{
    rlimit files{};
    if (getrlimit(RLIMIT_NOFILE, &files) != 0 || files.rlim_cur == RLIM_INFINITY)
        return configured;
    // Two servers share the process's descriptors with everything else in it.
    const qint64 affordable = std::max<qint64>(16, (static_cast<qint64>(files.rlim_cur) - 64) / 2);
    return static_cast<int>(std::min<qint64>(configured, affordable));
}

SoupSocket* socketOf(SoupClientContext* client)
{
    G_GNUC_BEGIN_IGNORE_DEPRECATIONS
    return soup_client_context_get_socket(client);
    G_GNUC_END_IGNORE_DEPRECATIONS
}

} // namespace

ConnectionTable::ConnectionTable(SoupServer* server, const ServerLimits& limits)
    : m_server(server), m_limits(limits), m_maximumConnections(maximumConnections(limits.connections)),
      m_listeners(server), m_watch([this](quint64 number, quint32 events) { heard(number, events); }),
      m_parking(std::make_unique<Parking>(server, &m_watch))
{
}

ConnectionTable::~ConnectionTable()
{
    dbglog_scopedFunction(webserverLog());
    for (const auto& entry : m_connections)
        g_signal_handlers_disconnect_by_data(entry.second->socket, entry.second.get());
}

bool ConnectionTable::start(int port, SoupServerListenOptions options, GError** error)
{
    dbglog_scopedFunction(webserverLog());
    m_isTls = (options & SOUP_SERVER_LISTEN_HTTPS) != 0;
    WatchedConnection::install(m_isTls);
    const bool listening = m_listeners.start(port, options, error);
    if (listening)
        scheduleSweep(IdleSweepMilliseconds);
    return listening;
}

void ConnectionTable::stop()
{
    dbglog_scopedFunction(webserverLog());
    stopSweep();
    endHandshakes();
    // Answers that are cut here may have half a record to send, for which a good-bye would wait as well.
    for (const auto& entry : m_connections) {
        const Connection& connection = *entry.second;
        if (m_isTls && connection.gsocket && connection.state != Connection::ReadingHead)
            ::shutdown(g_socket_get_fd(connection.gsocket), SHUT_WR);
    }
}

bool ConnectionTable::endHandshakes()
{
    bool found = false;
    for (const auto& entry : m_connections) {
        if (!mayBeShakingHands(*entry.second))
            continue;
        close(entry.second.get());
        found = true;
    }
    return !found;
}

void ConnectionTable::drain()
{
    m_draining = true;
    m_listeners.close();
    for (const auto& entry : m_connections) {
        if (entry.second->state == Connection::ReadingHead)
            closeSoon(entry.second.get());
    }
}

void ConnectionTable::stopSweep()
{
    if (m_timer)
        killTimer(m_timer);
    m_timer = 0;
    m_timerMilliseconds = 0;
}

void ConnectionTable::scheduleSweep(int milliseconds)
{
    if (m_timerMilliseconds == milliseconds)
        return;
    stopSweep();
    m_timer = startTimer(milliseconds, Qt::CoarseTimer);
    m_timerMilliseconds = milliseconds;
}

bool ConnectionTable::isAnswering() const
{
    dbglog_scopedFunction(webserverLog());
    return std::any_of(m_connections.cbegin(), m_connections.cend(),
        [](const auto& entry) { return entry.second->state != Connection::ReadingHead; });
}

Census ConnectionTable::census() const
{
    dbglog_scopedFunction(webserverLog());
    Census census;
    for (const auto& entry : m_connections)
        census.add(*entry.second);
    return census;
}

Connection* ConnectionTable::requestStarted(SoupClientContext* client, SoupMessage* message)
{
    dbglog_scopedFunction(webserverLog());
    const auto found = m_connections.find(client);
    Connection* connection = found == m_connections.end() ? accepted(client) : found->second.get();
    const int seconds = connection->answeredBefore ? m_limits.idleSeconds : m_limits.headerSeconds;
    settle(connection);
    connection->next = message;
    connection->state = Connection::ReadingHead;
    connection->since = g_get_monotonic_time();
    connection->deadline = connection->since + seconds * MicrosecondsPerSecond;
    if (m_draining)
        closeSoon(connection);
    return connection;
}

Connection* ConnectionTable::accepted(SoupClientContext* client)
{
    ++m_acceptCount;
    ++m_counters.accepted;
    auto record = std::make_unique<Connection>();
    Connection* connection = record.get();
    connection->table = this;
    connection->client = client;
    connection->number = m_acceptCount;
    connection->socket = socketOf(client);
    connection->gsocket = soup_client_context_get_gsocket(client);
    m_connections.emplace(client, std::move(record));
    m_numbered.emplace(connection->number, connection);
    g_signal_connect(connection->socket, "disconnected", G_CALLBACK(onDisconnected), connection);
    if (connection->gsocket) {
        setTcpTimeouts(connection->gsocket, m_limits);
        m_watch.add(g_socket_get_fd(connection->gsocket), connection->number);
    }
    scheduleSweep(BusySweepMilliseconds);
    if (static_cast<int>(m_connections.size()) > m_maximumConnections) {
        dbglog_warn(webserverLog(), "More than " << m_maximumConnections << " connections, closing one");
        ++m_counters.displaced;
        closeSoon(leastUseful(connection));
    }
    return connection;
}

// The one that has been idle longest; when all others are at work, the one that has been at it longest, so that held
// answers never lock everybody else out.
Connection* ConnectionTable::leastUseful(Connection* newest) const
{
    Connection* chosen = newest;
    for (const auto& entry : m_connections) {
        Connection* connection = entry.second.get();
        if (connection == newest || connection->doomed)
            continue;
        const bool idle = connection->state == Connection::ReadingHead;
        const bool chosenIdle = chosen->state == Connection::ReadingHead && chosen != newest;
        if (chosen == newest || (idle && !chosenIdle) || (idle == chosenIdle && connection->since < chosen->since))
            chosen = connection;
    }
    return chosen;
}

void ConnectionTable::heard(quint64 number, quint32 events)
{
    const auto found = m_numbered.find(number);
    if (found == m_numbered.end())
        return;
    Connection* connection = found->second;
    if ((events & (EPOLLRDHUP | EPOLLHUP | EPOLLERR)) && connection->halfClosedSince == 0)
        connection->halfClosedSince = g_get_monotonic_time();
    // While it reads, the library notices by itself, after what the client had sent before.
    if (connection->state == Connection::Answering && (events & (EPOLLHUP | EPOLLERR)))
        closeSoon(connection);
    m_parking->resume(connection);
}

void ConnectionTable::headRead(Connection* connection)
{
    dbglog_scopedFunction(webserverLog());
    ++connection->table->m_counters.requests;
    connection->account = Connection::Refused;
    connection->state = Connection::ReadingBody;
    connection->since = g_get_monotonic_time();
    connection->deadline = connection->since + connection->table->m_limits.bodySeconds * MicrosecondsPerSecond;
    connection->answeredBefore = true;
}

void ConnectionTable::bodyAwaited(Connection* connection)
{
    dbglog_scopedFunction(webserverLog());
    if (connection->account == Connection::Refused)
        connection->account = Connection::Awaited;
}

void ConnectionTable::bodyRefused(Connection* connection)
{
    dbglog_scopedFunction(webserverLog());
    if (connection->account == Connection::Awaited)
        connection->account = Connection::Refused;
}

void ConnectionTable::bodyMoved(Connection* connection)
{
    dbglog_scopedFunction(webserverLog());
    const ServerLimits& limits = connection->table->m_limits;
    const gint64 stalled = g_get_monotonic_time() + limits.stalledSeconds * MicrosecondsPerSecond;
    connection->deadline = std::min(stalled, connection->since + limits.uploadSeconds * MicrosecondsPerSecond);
}

Connection* ConnectionTable::requestHandled(SoupClientContext* client, bool isRead)
{
    dbglog_scopedFunction(webserverLog());
    const auto found = m_connections.find(client);
    if (found == m_connections.end())
        return nullptr;
    Connection* connection = found->second.get();
    connection->account = Connection::Handled;
    if (isRead)
        requestRead(connection);
    return connection;
}

void ConnectionTable::requestFinished(Connection* connection, SoupMessage* message)
{
    dbglog_scopedFunction(webserverLog());
    if (connection->account != Connection::Handled)
        return;
    connection->account = Connection::Settled;
    connection->table->m_counters.add(message);
}

// What no handler saw is over with the next request, or with its connection.
void ConnectionTable::settle(Connection* connection)
{
    if (connection->account == Connection::Refused)
        ++connection->table->m_counters.answers[4];
    else if (connection->account == Connection::Awaited)
        ++connection->table->m_counters.answers[0];
    else
        return;
    connection->account = Connection::Settled;
}

void ConnectionTable::requestRead(Connection* connection)
{
    dbglog_scopedFunction(webserverLog());
    connection->state = Connection::Answering;
    connection->since = g_get_monotonic_time();
    connection->deadline = 0;
}

void ConnectionTable::onDisconnected(SoupSocket* socket, gpointer data)
{
    auto* connection = static_cast<Connection*>(data);
    ConnectionTable* table = connection->table;
    g_signal_handlers_disconnect_by_data(socket, data);
    connection->gone = true;
    settle(connection);
    const auto found = table->m_connections.find(connection->client);
    if (found == table->m_connections.end())
        return;
    table->m_numbered.erase(connection->number);
    table->m_gone.push_back(std::move(found->second));
    table->m_connections.erase(found);
}

void ConnectionTable::doom(Connection* connection)
{
    if (!connection->doomed)
        m_doomed.push_back(connection);
    connection->doomed = true;
}

void ConnectionTable::closeSoon(Connection* connection)
{
    dbglog_scopedFunction(webserverLog());
    doom(connection);
    QMetaObject::invokeMethod(
        this, [this] { closeDoomed(); }, Qt::QueuedConnection);
}

bool ConnectionTable::mayBeShakingHands(const Connection& connection) const
{
    return m_isTls && connection.gsocket && connection.state == Connection::ReadingHead && !connection.answeredBefore;
}

void ConnectionTable::close(Connection* connection)
{
    // A TLS handshake runs in a thread that holds the descriptor until the client speaks. Nothing but the end of the
    // stream ends it, and tells the library, which then disconnects. The same goes for an idle connection, whose client
    // may have begun another handshake: disconnected in the middle of one, it would keep its descriptor for ever. What
    // a client does not read is no reason to wait either, and a TLS connection would, for the room to say good-bye.
    const bool isTls = m_isTls && connection->gsocket;
    const bool isIdle = connection->state == Connection::ReadingHead && connection->answeredBefore;
    // An idle plain connection ends in the same way, so that whoever still waits for what became of an answer on it can
    // look before the library closes it.
    if (isTls || (isIdle && connection->gsocket))
        ::shutdown(g_socket_get_fd(connection->gsocket), isIdle ? SHUT_RD : SHUT_RDWR);
    if (!isIdle && (!isTls || connection->state != Connection::ReadingHead))
        soup_socket_disconnect(connection->socket);
}

void ConnectionTable::closeDoomed()
{
    // Closing runs callbacks that may doom others.
    const std::vector<Connection*> doomed = std::exchange(m_doomed, {});
    for (Connection* connection : doomed) {
        if (!connection->gone)
            close(connection);
    }
}

void ConnectionTable::timerEvent(QTimerEvent*)
{
    closeOverdue();
    closeSlowHandshakes();
    closeDoomed();
    parkIdle();
    m_gone.clear();
    m_listeners.revive(m_acceptCount);
    if (m_timer)
        scheduleSweep(m_connections.empty() ? IdleSweepMilliseconds : BusySweepMilliseconds);
}

void ConnectionTable::closeOverdue()
{
    const gint64 now = g_get_monotonic_time();
    for (const auto& entry : m_connections) {
        Connection* connection = entry.second.get();
        const bool overdue = isOverdue(*connection, now);
        if (overdue && connection->state == Connection::ReadingBody && !connection->doomed) {
            tellOfTimeout(*connection);
            bodyRefused(connection);
        }
        if (overdue || isAbandoned(connection, now))
            doom(connection);
    }
}

void ConnectionTable::parkIdle()
{
    const gint64 now = g_get_monotonic_time();
    for (const auto& entry : m_connections) {
        if (!mayBeShakingHands(*entry.second))
            m_parking->parkIfIdle(entry.second.get(), now);
    }
}

// Handshakes share a pool of ten threads: as many silent clients would keep everybody else waiting.
void ConnectionTable::closeSlowHandshakes()
{
    const gint64 now = g_get_monotonic_time();
    std::vector<Connection*> slow;
    for (const auto& entry : m_connections) {
        Connection* connection = entry.second.get();
        const gint64 age = now - connection->since;
        if (!mayBeShakingHands(*connection) || age < SilentHandshake
            || WatchedConnection::hasShakenHands(connection->gsocket))
            continue;
        if (age >= SlowHandshake || TcpState::of(connection->gsocket).receivedBytes == 0)
            slow.push_back(connection);
    }
    if (slow.size() <= MaximumSlowHandshakes)
        return;
    const auto spared = slow.end() - MaximumSlowHandshakes;
    std::nth_element(slow.begin(), spared, slow.end(),
        [](const auto* left, const auto* right) { return left->since < right->since; });
    std::for_each(slow.begin(), spared, [this](Connection* connection) { doom(connection); });
}
