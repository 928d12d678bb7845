#pragma once

#include <QByteArray>
#include <QJsonDocument>
#include <QList>
#include <QPair>
#include <QString>

#include <vector>

/// One answer, as it came over the wire.
struct HttpReply {
    int status = 0; ///< 0: none came.
    QList<QPair<QByteArray, QByteArray>> headers;
    QByteArray body;

    QByteArray header(const QByteArray& name) const; ///< Null when absent; names without regard to case.
    QJsonDocument json() const { return QJsonDocument::fromJson(body); }
    QByteArray errorMessage() const; ///< {"error": {"message"}}
};

/// A blocking connection that sends bytes as they are, so that malformed requests are possible.
class HttpConnection {
public:
    /// To 127.0.0.1 unless `address` says otherwise (IPv4).
    explicit HttpConnection(int port, const QByteArray& address = "127.0.0.1");
    ~HttpConnection();
    HttpConnection(HttpConnection&& other) noexcept;
    HttpConnection& operator=(HttpConnection&&) = delete;

    bool isConnected() const { return m_fd >= 0; }
    int descriptor() const { return m_fd; }
    bool send(const QByteArray& bytes);
    /// Reads one answer, by Content-Length, chunks or the end of the connection; status 0 after `timeoutMs` or when the
    /// server closes first. `headRequest`: the answer has no body.
    HttpReply readReply(int timeoutMs = 10000, bool headRequest = false);
    /// As it came, to the end of a head, say; null when that does not come.
    QByteArray readTo(const QByteArray& end, int timeoutMs = 10000);
    QByteArray read(int size, int timeoutMs = 10000); ///< Fewer bytes when no more come.
    /// The data of chunks: `size` bytes of it, or all of them when they end before that; null when neither comes.
    QByteArray readChunks(int size, int timeoutMs = 10000);
    /// True when the server closes within `timeoutMs` (what it sends meanwhile is dropped).
    bool isClosedWithin(int timeoutMs);
    bool hasData(int timeoutMs); ///< Something has arrived that was not read.
    /// Until it is let go, nothing that the server sends reaches this end, as if it were on the way.
    bool holdBack(bool hold);
    void shutDownSending();
    void reset(); ///< Closes with RST.
    void close();

private:
    bool fill(int timeoutMs);

    int m_fd = -1;
    QByteArray m_request; ///< The first one that was not answered yet: method and target.
    QByteArray m_buffer;
};

using Connections = std::vector<HttpConnection>;

/// A request head and body; Host and the rest as given in `headers` ("Name: value").
QByteArray httpRequest(const QByteArray& method, const QByteArray& target,
    const QList<QByteArray>& headers = { "Host: localhost" }, const QByteArray& body = {});
