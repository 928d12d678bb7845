#include "Deadlines.h"

#include <algorithm>

#include "TcpState.h"

namespace {

// A client that shuts down its sending side may still want the answer; one that for longer than this has nothing to
// read is taken for gone.
constexpr gint64 HalfClosedGrace = 500 * 1000;

} // namespace

// An answer that is still on its way does not make an idle connection.
bool isOverdue(const Connection& connection, gint64 now)
{
    if (connection.deadline == 0 || now < connection.deadline)
        return false;
    const bool isIdle = connection.state == Connection::ReadingHead && connection.answeredBefore;
    return !isIdle || !connection.gsocket || !TcpState::of(connection.gsocket).hasToRead;
}

// What the client has yet to read, or has read since the last look, tells that it is there.
bool isAbandoned(Connection* connection, gint64 now)
{
    if (connection->state != Connection::Answering || connection->halfClosedSince == 0)
        return false;
    const TcpState state = connection->gsocket ? TcpState::of(connection->gsocket) : TcpState();
    if (state.hasToRead || state.acknowledgedBytes != connection->acknowledgedBytes)
        connection->movedSince = now;
    connection->acknowledgedBytes = state.acknowledgedBytes;
    return now - std::max({ connection->halfClosedSince, connection->since, connection->movedSince })
        >= HalfClosedGrace;
}

// The library gives no answer before the end of a body. What the socket has no room for is not worth waiting for.
void tellOfTimeout(const Connection& connection)
{
    constexpr char Answer[] = "HTTP/1.1 408 Request Timeout\r\nConnection: close\r\nContent-Length: 0\r\n"
                              "X-Robots-Tag: noindex\r\n\r\n";
    gsize written = 0;
    soup_socket_write(connection.socket, Answer, sizeof Answer - 1, &written, nullptr, nullptr);
}
