#include "Parking.h"

#include "SocketWatch.h"
#include "WebserverLog.h"

namespace {

// Whoever asks more often than that is spared the way in and out.
constexpr gint64 BriefPause = 200 * 1000;

// With a status set, the library is answering a head that it could not read.
bool isIdle(const Connection& connection, gint64 now)
{
    return connection.state == Connection::ReadingHead && now - connection.since >= BriefPause
        && connection.next->status_code == SOUP_STATUS_NONE;
}

} // namespace

void Parking::parkIfIdle(Connection* connection, gint64 now) const
{
    if (connection->parked || connection->doomed || !connection->gsocket || !isIdle(*connection, now))
        return;
    // Before the watch, which tells at once of what has come: paused, the exchange has no sources on the loop.
    soup_server_pause_message(m_server, connection->next);
    connection->parked = true;
    if (!m_watch->setInputWanted(g_socket_get_fd(connection->gsocket), connection->number, true))
        resume(connection);
}

void Parking::resume(Connection* connection) const
{
    dbglog_scopedFunction(webserverLog());
    if (!connection->parked)
        return;
    connection->parked = false;
    m_watch->setInputWanted(g_socket_get_fd(connection->gsocket), connection->number, false);
    soup_server_unpause_message(m_server, connection->next);
}
