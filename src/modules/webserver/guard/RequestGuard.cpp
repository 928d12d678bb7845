#include "RequestGuard.h"

#include <algorithm>
#include <cstring>

#include "ConnectionTable.h"
#include "WebserverLog.h"

namespace {

using Connection = ConnectionTable::Connection;

constexpr int MaximumContentLengthDigits = 15;
constexpr int MaximumMethodLength = 32;
// A body of unknown length is read on this far beyond its limit for the sake of a readable 413, then cut.
constexpr qint64 ToleratedExcess = 4;
// Deeper than one request needs, far from the end of any stack.
constexpr qint64 MaximumStackDepth = 32 * 1024;

bool isHostCharacter(char c)
{
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '.' || c == '-'
        || c == '_' || c == '~' || c == ':' || c == '[' || c == ']';
}

// The library pastes the field into a URI, where "?", "#", "@" or "/" would move the path elsewhere. "%" belongs into
// the zone of an IPv6 address only (RFC 6874).
bool isHost(const QByteArray& host)
{
    const bool bracketed = host.startsWith('[');
    return std::all_of(
        host.begin(), host.end(), [bracketed](char c) { return isHostCharacter(c) || (bracketed && c == '%'); });
}

bool isContentLength(const QByteArray& value)
{
    return !value.isEmpty() && value.size() <= MaximumContentLengthDigits
        && std::all_of(value.begin(), value.end(), [](char c) { return c >= '0' && c <= '9'; });
}

RequestHead headOf(SoupMessage* message)
{
    RequestHead head;
    head.method = QByteArray(message->method);
    SoupMessageHeadersIter iterator;
    const char* name = nullptr;
    const char* value = nullptr;
    soup_message_headers_iter_init(&iterator, message->request_headers);
    while (soup_message_headers_iter_next(&iterator, &name, &value)) {
        ++head.fields;
        if (g_ascii_strcasecmp(name, "Host") == 0) {
            ++head.hostFields;
            head.host = QByteArray(value);
        } else if (g_ascii_strcasecmp(name, "Content-Length") == 0) {
            ++head.contentLengthFields;
            head.contentLength = QByteArray(value);
        } else if (g_ascii_strcasecmp(name, "Transfer-Encoding") == 0) {
            ++head.transferEncodingFields;
            head.transferEncoding = QByteArray(value);
        }
    }
    return head;
}

bool isChunked(const RequestHead& head)
{
    return head.transferEncodingFields > 0;
}

// An unrecognised encoding is the one fault at this point that the library answers with 400 and a closed connection.
void forceBadRequest(SoupMessage* message)
{
    if (message->method == SOUP_METHOD_CONNECT)
        message->method = g_intern_static_string("x-connect");
    soup_message_headers_remove(message->request_headers, "Transfer-Encoding");
    soup_message_headers_replace(message->request_headers, "Content-Length", "x");
}

void setRefusal(SoupMessage* message, guint status)
{
    const char* text = status == SOUP_STATUS_REQUEST_ENTITY_TOO_LARGE ? "The request body is too large.\n"
                                                                      : "The request has too many header fields.\n";
    soup_message_set_status(message, status);
    soup_message_headers_replace(message->response_headers, "Connection", "close");
    soup_message_headers_replace(message->response_headers, "X-Robots-Tag", "noindex");
    soup_message_set_response(message, "text/plain", SOUP_MEMORY_STATIC, text, strlen(text));
}

void onGotHeadersRefuse(SoupMessage* message, gpointer status)
{
    setRefusal(message, GPOINTER_TO_UINT(status));
}

// Answers without reading the body: the library then believes that the client waits for "100 Continue".
void refuseUnread(SoupMessage* message, guint status)
{
    soup_message_headers_set_expectations(message->request_headers, SOUP_EXPECTATION_CONTINUE);
    g_signal_connect(message, "got-headers", G_CALLBACK(onGotHeadersRefuse), GUINT_TO_POINTER(status));
}

struct ChunkedBody {
    Connection* connection = nullptr;
    qint64 received = 0;
};

void onGotChunk(SoupMessage* message, SoupBuffer* chunk, gpointer data)
{
    auto* body = static_cast<ChunkedBody*>(data);
    const qint64 limit = body->connection->limits->limits().bodyBytes;
    const bool wasWithin = body->received <= limit;
    body->received += static_cast<qint64>(chunk->length);
    if (body->received <= limit)
        return;
    if (wasWithin) {
        soup_message_body_set_accumulate(message->request_body, FALSE);
        setRefusal(message, SOUP_STATUS_REQUEST_ENTITY_TOO_LARGE);
    } else if (body->received > limit * ToleratedExcess) {
        body->connection->limits->closeSoon(body->connection);
    }
}

void closeAfterAnswer(SoupMessage* message, gpointer)
{
    soup_message_headers_replace(message->response_headers, "Connection", "close");
}

// The library answers some faults at this point without reading the body, which would then pass for a request.
void onGotHeadersOfBody(SoupMessage* message, gpointer)
{
    if (message->status_code != 0)
        closeAfterAnswer(message, nullptr);
}

// Whether the method comes with a body as a rule: without a length that the library understood, as in
// "Content-Length : 5", what follows may be that body.
bool expectsBody(const RequestHead& head)
{
    return head.method == "POST" || head.method == "PUT" || head.method == "PATCH";
}

void watchBody(SoupMessage* message, const RequestHead& head)
{
    if (head.contentLengthFields || head.transferEncodingFields)
        g_signal_connect(message, "got-headers", G_CALLBACK(onGotHeadersOfBody), nullptr);
    else if (expectsBody(head))
        g_signal_connect(message, "got-body", G_CALLBACK(closeAfterAnswer), nullptr);
}

void deleteChunkedBody(gpointer data, GClosure*)
{
    delete static_cast<ChunkedBody*>(data);
}

// The library is lax about where a chunked body ends, so nothing that follows it is taken for a request.
void watchChunkedBody(SoupMessage* message, Connection* connection)
{
    g_signal_connect_data(message, "got-chunk", G_CALLBACK(onGotChunk), new ChunkedBody{ connection },
        deleteChunkedBody, static_cast<GConnectFlags>(0));
    g_signal_connect(message, "got-body", G_CALLBACK(closeAfterAnswer), nullptr);
}

// Without a Host field the library would take the request target for the path, query and all, uncleaned.
void addHost(SoupMessage* message, Connection* connection)
{
    QByteArray host("localhost");
    GSocketAddress* address = connection->gsocket ? g_socket_get_local_address(connection->gsocket, nullptr) : nullptr;
    if (address && G_IS_INET_SOCKET_ADDRESS(address)) {
        auto* inet = G_INET_SOCKET_ADDRESS(address);
        char* text = g_inet_address_to_string(g_inet_socket_address_get_address(inet));
        const bool v6 = strchr(text, ':') != nullptr;
        host = (v6 ? "[" + QByteArray(text) + "]" : QByteArray(text)) + ':'
            + QByteArray::number(g_inet_socket_address_get_port(inet));
        g_free(text);
    }
    if (address)
        g_object_unref(address);
    soup_message_headers_append(message->request_headers, "Host", host.constData());
}

// The library answers a pipelined request from inside the end of the one before. Pausing breaks the chain: the request
// goes on from the event loop. The depth is counted from the shallowest frame seen on this thread.
void breakRecursion(SoupMessage* message, Connection* connection)
{
    static thread_local const char* shallowest = nullptr;
    const char here = 0;
    const char* frame = &here;
    if (!shallowest || frame > shallowest)
        shallowest = frame;
    if (shallowest - frame < MaximumStackDepth)
        return;
    SoupServer* server = connection->limits->server();
    soup_server_pause_message(server, message);
    soup_server_unpause_message(server, message);
}

// The method is set once the head is parsed, before anything in it is used. A handler may set it again later, when the
// connection has long left the state of reading a head.
void onMethodKnown(SoupMessage* message, GParamSpec*, gpointer data)
{
    auto* connection = static_cast<Connection*>(data);
    if (!message->method || connection->state != ConnectionTable::ReadingHead)
        return;
    ConnectionTable::headRead(connection);
    breakRecursion(message, connection);
    const RequestHead head = headOf(message);
    switch (examineHead(head, connection->limits->limits())) {
    case HeadVerdict::Accept:
        break;
    case HeadVerdict::BadRequest:
        dbglog_warn(webserverLog(), "Refusing a malformed request head");
        return forceBadRequest(message);
    case HeadVerdict::ContentTooLarge:
        dbglog_warn(webserverLog(), "Refusing a request body of " << head.contentLength << " bytes");
        return refuseUnread(message, SOUP_STATUS_REQUEST_ENTITY_TOO_LARGE);
    case HeadVerdict::FieldsTooLarge:
        dbglog_warn(webserverLog(), "Refusing a request with " << head.fields << " header fields");
        return refuseUnread(message, 431);
    }
    watchBody(message, head);
    if (isChunked(head))
        watchChunkedBody(message, connection);
    if (head.hostFields == 0 && soup_message_get_http_version(message) == SOUP_HTTP_1_0)
        addHost(message, connection);
}

} // namespace

HeadVerdict examineHead(const RequestHead& head, const ServerLimits& limits)
{
    // The method first: a refusal that reads on would let the library act on CONNECT.
    if (head.method.isEmpty() || head.method.size() > MaximumMethodLength || head.method == "CONNECT")
        return HeadVerdict::BadRequest;
    if (head.fields > limits.headerCount)
        return HeadVerdict::FieldsTooLarge;
    if (head.hostFields > 1 || !isHost(head.host))
        return HeadVerdict::BadRequest;
    if (head.contentLengthFields > 1 || head.transferEncodingFields > 1
        || (head.contentLengthFields && head.transferEncodingFields))
        return HeadVerdict::BadRequest;
    if (head.contentLengthFields && !isContentLength(head.contentLength))
        return HeadVerdict::BadRequest;
    if (head.transferEncodingFields && head.transferEncoding.toLower() != "chunked")
        return HeadVerdict::BadRequest;
    if (head.contentLengthFields && head.contentLength.toLongLong() > limits.bodyBytes)
        return HeadVerdict::ContentTooLarge;
    return HeadVerdict::Accept;
}

RequestGuard::RequestGuard(SoupServer* server, ConnectionTable* connectionTable)
    : m_server(server), m_connectionTable(connectionTable),
      m_requestStartedId(g_signal_connect(server, "request-started", G_CALLBACK(onRequestStarted), this))
{
}

RequestGuard::~RequestGuard()
{
    g_signal_handler_disconnect(m_server, m_requestStartedId);
}

void RequestGuard::onRequestStarted(SoupServer*, SoupMessage* message, SoupClientContext* client, gpointer self)
{
    auto* guard = static_cast<RequestGuard*>(self);
    Connection* connection = guard->m_connectionTable->requestStarted(client);
    // For the library's own error answers too.
    soup_message_headers_append(message->response_headers, "X-Robots-Tag", "noindex");
    g_signal_connect(message, "notify::method", G_CALLBACK(onMethodKnown), connection);
}
