#pragma once

#include "Connection.h"

class SocketWatch;

/// Takes idle connections off the main loop. While the library waits for a request, the loop looks at that connection
/// on each of its turns: beside a thousand idle browsers, all that other clients ask for takes thirty times as long. A
/// parked connection costs nothing until something comes from its client; then the library goes on as if nothing had
/// been.
///
/// Nothing is overlooked that came before. The library has then read as much as there was, decrypted bytes included,
/// so whatever it lacks is still to arrive at the socket, or has just: the watch tells of that too.
class Parking {
public:
    /// Neither is owned.
    Parking(SoupServer* server, SocketWatch* watch) : m_server(server), m_watch(watch) { }

    /// Not for a connection in the middle of a handshake, which goes on in another thread.
    void parkIfIdle(Connection* connection, gint64 now) const;
    /// Hands a parked connection back to the library, which looks for a request or the end of the stream.
    void resume(Connection* connection) const;

private:
    SoupServer* m_server;
    SocketWatch* m_watch;
};
