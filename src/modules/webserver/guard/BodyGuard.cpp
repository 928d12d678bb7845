#include "BodyGuard.h"

#include <cstring>
#include <limits>

#include "ConnectionTable.h"
#include "RequestHead.h"
#include "WebserverLog.h"

namespace {

// A body that is refused in its middle is read on, this many times the limit: the library gives no answer before its
// end.
constexpr qint64 ToleratedExcess = 3;
// The library reads 8 KiB at a time, and each piece passes through everybody.
constexpr gsize StreamedPieceBytes = 64 * 1024;

/// Of one request; lives as long as the library's message.
struct Body {
    Connection* connection;
    bool isChunked;
    bool isTooLarge = false; ///< By its announced length, to be held in memory.
    bool isStreamed = false; ///< An early handler takes it as it arrives.
    bool isRefused = false; ///< The answer is settled before the end of the body.
    qint64 received = 0;
    qint64 end = 0; ///< Of a refused body: beyond, the connection is cut.
    SoupMessageHeaders* fields = nullptr; ///< The answer's, kept while "100 Continue" is sent.

    Body(Connection* from, bool chunked) : connection(from), isChunked(chunked) { }
    ~Body() { g_clear_pointer(&fields, soup_message_headers_free); }
    Body(const Body&) = delete;
    Body& operator=(const Body&) = delete;
    qint64 limit() const { return connection->table->limits().bodyBytes; }
};

void onGotBody(SoupMessage* message, gpointer data)
{
    auto* connection = static_cast<Connection*>(data);
    connection->table->counters().receivedBytes += message->request_body->length; // 0 of one that was streamed.
    ConnectionTable::requestRead(connection);
}

void deleteBody(gpointer body, GClosure*)
{
    delete static_cast<Body*>(body);
}

void closeAfterAnswer(SoupMessage* message, gpointer)
{
    soup_message_headers_replace(message->response_headers, "Connection", "close");
}

void setRefusal(SoupMessage* message, guint status)
{
    const char* text = status == SOUP_STATUS_REQUEST_ENTITY_TOO_LARGE ? "The request body is too large.\n"
                                                                      : "The request has too many header fields.\n";
    soup_message_set_status(message, status);
    closeAfterAnswer(message, nullptr);
    soup_message_headers_replace(message->response_headers, "X-Robots-Tag", "noindex");
    soup_message_set_response(message, "text/plain", SOUP_MEMORY_STATIC, text, strlen(text));
}

void onGotHeadersRefuse(SoupMessage* message, gpointer status)
{
    setRefusal(message, GPOINTER_TO_UINT(status));
}

// The library then takes an answer that is there after the head for the whole exchange, and reads no body.
void expectContinue(SoupMessage* message)
{
    soup_message_headers_set_expectations(message->request_headers, SOUP_EXPECTATION_CONTINUE);
}

// What is left of the body is of no use, and must not pass for a request.
void stopReading(SoupMessage* message, Body* body)
{
    if (body->isRefused)
        return;
    body->isRefused = true;
    // A streamed body may be of any length, and a client that is cut off in it sees no answer. Its deadline, which
    // moves no more, bounds it.
    body->end =
        body->isStreamed ? std::numeric_limits<qint64>::max() : body->received + body->limit() * ToleratedExcess;
    soup_message_body_set_accumulate(message->request_body, FALSE);
    closeAfterAnswer(message, nullptr);
}

void copyFields(SoupMessageHeaders* from, SoupMessageHeaders* to)
{
    SoupMessageHeadersIter iterator;
    const char* name = nullptr;
    const char* value = nullptr;
    soup_message_headers_iter_init(&iterator, from);
    while (soup_message_headers_iter_next(&iterator, &name, &value))
        soup_message_headers_append(to, name, value);
}

// The library sets 100 to let the body come, and takes it back together with all fields of the answer.
void onStatus(SoupMessage* message, GParamSpec*, gpointer data)
{
    auto* body = static_cast<Body*>(data);
    if (message->status_code == SOUP_STATUS_CONTINUE && !body->fields) {
        body->fields = soup_message_headers_new(SOUP_MESSAGE_HEADERS_RESPONSE);
        copyFields(message->response_headers, body->fields);
    } else if (message->status_code == SOUP_STATUS_NONE && body->fields) {
        copyFields(body->fields, message->response_headers);
        g_clear_pointer(&body->fields, soup_message_headers_free);
    } else if (body->isStreamed && message->status_code >= SOUP_STATUS_BAD_REQUEST) {
        stopReading(message, body);
    }
}

void onEnd(SoupMessage* message, gpointer data)
{
    g_signal_handlers_disconnect_by_func(message, reinterpret_cast<gpointer>(onStatus), data);
}

void watchStatus(SoupMessage* message, Body* body)
{
    g_signal_connect(message, "notify::status-code", G_CALLBACK(onStatus), body);
    g_signal_connect(message, "got-body", G_CALLBACK(onEnd), body);
}

void onGotChunk(SoupMessage* message, SoupBuffer* chunk, gpointer data)
{
    auto* body = static_cast<Body*>(data);
    body->received += static_cast<qint64>(chunk->length);
    if (body->isRefused) {
        if (body->received > body->end)
            body->connection->table->closeSoon(body->connection);
    } else if (body->isStreamed) {
        body->connection->table->counters().receivedBytes += static_cast<qint64>(chunk->length);
        ConnectionTable::bodyMoved(body->connection);
    } else if (body->received > body->limit()) {
        stopReading(message, body);
        ConnectionTable::bodyRefused(body->connection);
        ++body->connection->table->counters().longBodies;
        setRefusal(message, SOUP_STATUS_REQUEST_ENTITY_TOO_LARGE);
    }
}

SoupBuffer* allocatePiece(SoupMessage*, gsize, gpointer)
{
    return soup_buffer_new(SOUP_MEMORY_TAKE, static_cast<guchar*>(g_malloc(StreamedPieceBytes)), StreamedPieceBytes);
}

void watchStream(SoupMessage* message, Body* body)
{
    G_GNUC_BEGIN_IGNORE_DEPRECATIONS
    soup_message_set_chunk_allocator(message, allocatePiece, nullptr, nullptr);
    G_GNUC_END_IGNORE_DEPRECATIONS
    ConnectionTable::bodyMoved(body->connection);
    if (!body->isChunked)
        g_signal_connect(message, "got-chunk", G_CALLBACK(onGotChunk), body);
}

// Comes after the early handler, which the library calls for the same signal. A client of HTTP/1.0 does not understand
// "100 Continue" (RFC 9110, section 15.2).
void onGotHeaders(SoupMessage* message, gpointer data)
{
    auto* body = static_cast<Body*>(data);
    body->isStreamed = !soup_message_body_get_accumulate(message->request_body);
    if (body->isTooLarge && (!body->isStreamed || soup_message_get_http_version(message) == SOUP_HTTP_1_0)) {
        dbglog_warn(webserverLog(), "Refusing a request body of more than " << body->limit() << " bytes");
        ++body->connection->table->counters().longBodies;
        return setRefusal(message, SOUP_STATUS_REQUEST_ENTITY_TOO_LARGE);
    }
    if (body->isStreamed)
        watchStream(message, body);
    if (body->isStreamed
        || soup_message_headers_get_expectations(message->request_headers) == SOUP_EXPECTATION_CONTINUE)
        watchStatus(message, body);
    // An answer at this point, of an early handler or to a fault that the library found, comes before the body.
    if (message->status_code != SOUP_STATUS_NONE)
        stopReading(message, body);
    else
        ConnectionTable::bodyAwaited(body->connection);
}

bool hasBody(const RequestHead& head)
{
    return head.contentLengthFields || head.transferEncodingFields;
}

// Whether the method comes with a body as a rule: without a length that the library understood, as in
// "Content-Length : 5", what follows may be that body.
bool expectsBody(const RequestHead& head)
{
    return head.method == "POST" || head.method == "PUT" || head.method == "PATCH";
}

} // namespace

void guardBody(SoupMessage* message, const RequestHead& head, Connection* connection)
{
    dbglog_scopedFunction(webserverLog());
    // The library is lax about where a chunked body ends, so nothing that follows it is taken for a request. An early
    // handler that refuses what the client waits to send ends the exchange before "got-body".
    const bool isChunked = head.transferEncodingFields > 0;
    if (isChunked || (!hasBody(head) && expectsBody(head))) {
        for (const char* signal : { "got-headers", "got-body" })
            g_signal_connect(message, signal, G_CALLBACK(closeAfterAnswer), nullptr);
    }
    if (!hasBody(head))
        return;
    g_signal_connect(message, "got-body", G_CALLBACK(onGotBody), connection);
    auto* body = new Body(connection, isChunked);
    body->isTooLarge = !isChunked && head.contentLength.toLongLong() > body->limit();
    if (body->isTooLarge)
        expectContinue(message);
    g_signal_connect_data(
        message, "got-headers", G_CALLBACK(onGotHeaders), body, deleteBody, static_cast<GConnectFlags>(0));
    if (isChunked)
        g_signal_connect(message, "got-chunk", G_CALLBACK(onGotChunk), body);
}

void refuseUnread(SoupMessage* message, guint status)
{
    dbglog_scopedFunction(webserverLog());
    expectContinue(message);
    g_signal_connect(message, "got-headers", G_CALLBACK(onGotHeadersRefuse), GUINT_TO_POINTER(status));
}
