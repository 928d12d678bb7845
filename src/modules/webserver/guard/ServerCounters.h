#pragma once

#include <QtGlobal>

#include <libsoup/soup.h>

/// What one server has done since it was made: plain numbers that cost an addition each, and that nobody looks at
/// unless somebody asks. On the server's thread.
struct ServerCounters {
    qint64 requests = 0; ///< Heads that were read to their end, refused ones among them.
    /// By the first digit of their status; 0: the client left before the end. What the library refuses by itself counts
    /// as 4.
    qint64 answers[6] = {};
    qint64 receivedBytes = 0; ///< Of request bodies.
    qint64 sentBytes = 0; ///< Of the bodies of answers, as they ended.

    // Heads that were refused.
    qint64 malformedHeads = 0;
    qint64 longHeads = 0; ///< Too many fields.
    qint64 longBodies = 0; ///< Over the limit, announced or found.
    qint64 foreignHosts = 0;

    qint64 accepted = 0; ///< Connections.
    qint64 displaced = 0; ///< Closed for a newer one, at the most that there may be.

    void add(SoupMessage* answered); ///< An exchange that is over.
    ServerCounters& operator+=(const ServerCounters& other);
};
