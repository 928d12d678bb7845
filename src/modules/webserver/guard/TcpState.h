#pragma once

#include <gio/gio.h>

struct ServerLimits;

/// What the kernel knows of a connection at this moment; 0 where it does not tell.
struct TcpState {
    bool hasToRead = false; ///< The peer has not taken all that it was sent.
    guint64 acknowledgedBytes = 0;
    guint64 receivedBytes = 0;

    static TcpState of(GSocket* socket);
};

/// The kernel gives up a peer that is silent (it lost power), and one that takes nothing of what it is sent.
void setTcpTimeouts(GSocket* socket, const ServerLimits& limits);
