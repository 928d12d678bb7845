#pragma once

#include <QByteArray>
#include <QList>
#include <QPair>

/// Header fields of a response; names are compared without regard to case (RFC 9110, section 5.1).
class HttpClientHeaders {
public:
    void append(const QByteArray& name, const QByteArray& value) { m_fields.append({ name, value }); }
    QByteArray value(const QByteArray& name, const QByteArray& defaultValue = {}) const;

private:
    QList<QPair<QByteArray, QByteArray>> m_fields;
};

class HttpClientResult {
public:
    enum Failure {
        Unreachable = 0, ///< No connection, or one that broke.
        TimedOut = -1,
        TooLarge = -2, ///< The body went over the read size limit, or the body meter said no.
        Refused = -3, ///< The address filter said no, or the URL is not HTTP or HTTPS.
        Cancelled = -4,
    };

    int status = Unreachable; ///< The HTTP status, or a Failure.
    QByteArray body; ///< Empty unless status is an HTTP status.
    HttpClientHeaders headers;
};
