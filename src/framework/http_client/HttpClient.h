#pragma once

#include <QByteArray>
#include <QList>
#include <QPair>
#include <QString>

#include <functional>

#include "ZarkUrl.h"

class QHostAddress;

class HttpClientOptions {
public:
    /// Decides on the address that a connection would be made to, before it is made; false refuses it.
    using AddressFilter = std::function<bool(const QHostAddress&)>;
    /// Told the size of each piece of the body before it is kept; false ends the fetch as TooLarge.
    using BodyMeter = std::function<bool(int bytes)>;

    int readSizeLimit() const { return m_readSizeLimit; }
    void setReadSizeLimit(int bytes) { m_readSizeLimit = bytes; }
    int timeoutMs() const { return m_timeoutMs; }
    void setTimeoutMs(int milliseconds) { m_timeoutMs = milliseconds; } ///< For the whole exchange.
    const AddressFilter& addressFilter() const { return m_addressFilter; }
    void setAddressFilter(const AddressFilter& filter) { m_addressFilter = filter; }
    const BodyMeter& bodyMeter() const { return m_bodyMeter; }
    void setBodyMeter(const BodyMeter& meter) { m_bodyMeter = meter; }

private:
    int m_readSizeLimit = 1024 * 1024;
    int m_timeoutMs = 30000;
    AddressFilter m_addressFilter;
    BodyMeter m_bodyMeter;
};

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

/// Fetches resources over HTTP and HTTPS on the application's thread and event loop. Redirects are not followed.
class HttpClient {
public:
    using Callback = std::function<void(const HttpClientResult&)>;

    /// A running fetch; cancel() ends it without a further callback. Copyable; harmless after the end. What the
    /// callback holds is let go from the event loop, as soon as the fetch takes nothing of the machine any more: a name
    /// that is looked up at that moment takes a thread until the name server has answered or the timeout is over.
    class Handle {
    public:
        std::function<void()> cancel = [] {
        };
    };

    /// Calls `callback` exactly once, later, from the event loop, unless the handle is cancelled before.
    static Handle get(const ZarkUrl& url, const HttpClientOptions& options, const Callback& callback);
};
