#pragma once

#include <QtGlobal>

#include <libsoup/soup.h>

class ConnectionTable;
class HeadScanner;

/// What the ConnectionTable knows of one client's connection.
struct Connection {
    enum State {
        ReadingHead, ///< Idle, or in the middle of a head: the library does not tell which.
        ReadingBody,
        Answering,
    };

    enum Account {
        Settled,
        Refused, ///< Unless a handler gets to see the request, the guard has refused it, or the library.
        Awaited, ///< Its body is on its way: the client leaves, or a handler gets to see it.
        Handled,
    };

    ConnectionTable* table = nullptr;
    SoupClientContext* client = nullptr; ///< The key of the table; not owned.
    quint64 number = 0; ///< Never used again, unlike the pointers.
    SoupSocket* socket = nullptr; ///< Not owned.
    GSocket* gsocket = nullptr; ///< Not owned.
    HeadScanner* heads = nullptr; ///< Sees what the library reads; not owned.
    int requests = 0; ///< How many the library has begun to read.
    SoupMessage* next = nullptr; ///< While its head is read: the library's exchange; not owned.
    gulong headWatch = 0; ///< What tells, meanwhile, that the head was read.
    State state = ReadingHead;
    Account account = Settled; ///< Of the last request, with the counters.
    gint64 since = 0; ///< When the state began, in microseconds of the monotonic clock.
    gint64 deadline = 0; ///< 0: none.
    gint64 halfClosedSince = 0; ///< When the peer's FIN was seen; 0: not yet.
    gint64 movedSince = 0; ///< When a half-closed client was last seen to have something to read; 0: never.
    quint64 acknowledgedBytes = 0; ///< At that time.
    bool answeredBefore = false;
    bool parked = false; ///< See Parking.
    bool doomed = false; ///< Will be closed; the library may take a moment to notice.
    bool gone = false;
};
