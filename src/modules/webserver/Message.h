#pragma once

#include <QByteArray>
#include <QObject>
#include <QString>

#include <functional>
#include <libsoup/soup.h>

#include "QueryItems.h"
#include "ZarkUrl.h"

/// What the HTTP library hands to a request callback. Nothing is owned; a Message keeps `query` for as long as it
/// lives.
struct MessageData {
    SoupServer* server = nullptr;
    SoupMessage* message = nullptr;
    const char* path = nullptr; ///< As received: not decoded.
    GHashTable* query = nullptr; ///< Text to text; null without a query.
    SoupClientContext* client = nullptr;
};

/// One HTTP exchange, as every part of the web server sees it.
///
/// Valid until the library reports the exchange finished (answered, or the client has gone); from then on nothing but
/// the flags, fullUri() and deletion is allowed. The functions below that write do nothing from the moment on in which
/// finished() is emitted, while the message can still be read. Deletion is always deferred: nobody deletes a Message
/// directly. On the thread of the server's event loop.
class Message : public QObject {
    Q_OBJECT
public:
    enum Encoding {
        PlainContentLength = 0, ///< The whole body is known before the first byte leaves.
        Streamed = 1, ///< Chunked for HTTP/1.1, ended by closing the connection for HTTP/1.0.
    };

    Message(const MessageData& data, QObject* parent);
    /// A second view of the same exchange, with signals of its own.
    Message(const Message& other);
    Message& operator=(const Message&) = delete;
    ~Message() override;

    /// Called once, before finished() is emitted.
    void setEnd(std::function<void()> end) { m_end = std::move(end); }
    /// deleteLater() on itself as the last thing of finished().
    void deleteWhenFinished() { m_deletedWhenFinished = true; }

    const MessageData& data() const { return m_data; }
    bool isValid() const { return m_valid; }
    bool isFinished() const { return m_finished; }

    // The answer. Every write to the body also resumes a paused exchange; pause() after it holds the answer back.
    int status() const;
    /// 200 to 599; anything else becomes 500, since the library would loop on a final 1xx. An empty reason gives the
    /// standard phrase, and so does one with a line break, which would begin a header field.
    void setStatus(int code, const QString& reason);
    /// Replaces the field. False, and nothing changed, for a name that is no token (RFC 9110, section 5.1) and for a
    /// value with a line break in it.
    bool setHeader(const QByteArray& name, const QByteArray& value);
    bool setHeader(const QString& name, const QString& value);
    void setContentType(const QString& contentType);
    void setContentLength(qint64 bytes);
    bool setNoCache();
    void setEncoding(Encoding encoding);
    void responseBodyAdd(const char* data, qint64 length); ///< Copies.
    void responseBodyAdd(const QByteArray& data); ///< Shares the array until the library has sent it.
    void setResponseBody(const QByteArray& body, const QString& contentType);
    void setResponseBody(const QString& body, const QString& contentType);
    void responseBodyComplete();
    void pause();
    void unpause();

    // The request.
    bool isMethod(const char* method) const; ///< In this letter case.
    /// Whether the body is kept for requestBody(): by default, up to the limit `bodyBytes` (beyond: 413).
    ///
    /// An early handler that says false before it returns takes the body through gotChunk() alone, of any length, for
    /// as long as it moves (limit `stalledSeconds`).
    /// - While the handler pauses the exchange nothing is read, and "100 Continue" waits until it goes on.
    /// - A body over the limit gets that line unasked, so that it can be refused unread; over HTTP/1.0 the limit stays.
    /// - A status from 400 up that is set before the end of the body closes the connection after the answer. It leaves
    ///   at once when nothing of a body was read that is over the limit or waited for, else after the rest of the body,
    ///   of which three times `bodyBytes` are read at the most.
    /// - A status has to be set by the end of the body, or the normal handler is called as well; unless the handler
    ///   said take().
    void setAccumulate(bool accumulate);
    /// For an early handler that answers later: gotBody() is emitted when the body has ended, in place of a call of the
    /// normal handler. It has to set a status and pause the exchange, unless its answer is complete.
    void take();
    /// Whoever took the exchange; null when nobody did.
    static Message* takerOf(SoupMessage* message);
    /// The whole body, valid until releaseInput() or the end of the exchange; not copied. Empty for a body that is not
    /// accumulated.
    QByteArray requestBody() const;
    QByteArray requestContentType() const; ///< Without parameters; empty when there is none.
    bool isMultipart() const; ///< multipart/form-data
    QByteArray header(const char* name) const; ///< All fields of that name joined by ", "; empty when there is none.
    QByteArray header(const QString& name) const { return header(name.toUtf8().constData()); }
    bool isRepeated(const char* name) const; ///< There are several fields of that name.
    /// Scheme, host, port, path, query: what clients sign. Rendered on first use; empty when that comes after the end.
    const QString& fullUri() const;
    QString sender() const; ///< The client's IP address; empty when it has none.
    bool isFromLocalhost() const;
    bool isHttps() const;
    QByteArray path() const { return m_data.path; } ///< Of the URI, not decoded; dot segments are resolved.
    /// The parameters of the URI's query; without parsing the rest of the URI.
    const QueryItems& query() const;
    /// The parsed URI, in whose query "+" reads as a space.
    ZarkUrl url() const;
    /// Gives back the body and what url() and query() keep for the next call: an exchange that waits has no use for
    /// them. The body is empty from then on.
    void releaseInput();
    /// CR LF "--" boundary of a multipart/form-data body, as written in the header; empty without one.
    QByteArray getDelimiterFromHeader() const;

Q_SIGNALS:
    void gotChunk(const char* data, unsigned int length);
    void gotBody(); ///< After take().
    void wroteChunk();
    void finished();

protected:
    /// The library's chunk signals are connected with the first listener: most exchanges have none, and a connection
    /// costs as much as a header field.
    void connectNotify(const QMetaMethod& signal) override;

private:
    bool isWritable() const { return m_valid && !m_finished; }
    void connectGlibSignals();
    void disconnectGlibSignals();

    static void msg_got_chunk_cb(SoupMessage* message, SoupBuffer* chunk, gpointer self);
    static void msg_wrote_chunk_cb(SoupMessage* message, gpointer self);
    static void msg_finished_cb(SoupMessage* message, gpointer self);

    MessageData m_data;
    bool m_valid = true;
    bool m_finished = false;
    bool m_deletedWhenFinished = false;
    std::function<void()> m_end;
    mutable QString m_fullUri;
    mutable ZarkUrl m_url;
    mutable QueryItems m_query;
    mutable bool m_querySplit = false;
    gulong m_gotChunkId = 0; ///< 0: not connected.
    gulong m_wroteChunkId = 0; ///< 0: not connected.
    gulong m_finishedId = 0;
};
