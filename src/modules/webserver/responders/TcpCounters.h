#pragma once

#include <QtGlobal>

/// How far the two sides of a TCP connection have come, as the kernel counts (RFC 4898).
struct TcpCounters {
    bool isKnown = false; ///< False for what is no such connection, and before Linux 4.19.
    quint64 written = 0; ///< Bytes that the kernel was given to send.
    quint64 acknowledged = 0; ///< Of these, and one more for the end of the stream.
    quint64 received = 0; ///< Bytes of the client, and one more for the end of its stream.
    bool clientEnded = false; ///< The client has closed its side, in order.
    bool isOver = false; ///< Both sides are closed, or the connection was reset or given up.

    static TcpCounters of(int fd);

    bool isAllAcknowledged() const { return acknowledged >= written; }
};

/// Whether what had been written when `sent` was read has arrived by `now`: the last byte is acknowledged, and the
/// client has sent something since, its end of the stream included.
bool hasArrived(const TcpCounters& sent, const TcpCounters& now);
