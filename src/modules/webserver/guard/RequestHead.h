#pragma once

#include <QByteArray>

#include <libsoup/soup.h>

struct ServerLimits;

/// What decides on a request's head, counted from its fields.
struct RequestHead {
    bool isMalformed = false; ///< As it was sent: the library may have dropped what was wrong with it.
    QByteArray method;
    QByteArray host; ///< The last one.
    int hostFields = 0;
    QByteArray contentLength; ///< The last one.
    int contentLengthFields = 0;
    QByteArray transferEncoding; ///< The last one.
    int transferEncodingFields = 0;
    int fields = 0;
};

RequestHead headOf(SoupMessage* message, bool isMalformed);

enum class HeadVerdict {
    Accept,
    BadRequest, ///< 400: contradictory or malformed (RFC 9112, sections 3.2 and 6).
    FieldsTooLarge, ///< 431 (RFC 6585, section 5)
};

/// Decides on one head, without looking at anything else.
HeadVerdict examineHead(const RequestHead& head, const ServerLimits& limits);
