#pragma once

#include <functional>

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
