#include "RequestGuard.h"

#include <cstring>

#include "BodyGuard.h"
#include "ConnectionTable.h"
#include "HeadScanner.h"
#include "RequestHead.h"
#include "WatchedConnection.h"
#include "WebserverLog.h"

namespace {

// Deeper than one request needs, far from the end of any stack.
constexpr qint64 MaximumStackDepth = 32 * 1024;

// Pipelined heads may have come already.
bool isMalformed(const Connection* connection)
{
    return connection->heads && connection->heads->wellFormed() < connection->requests;
}

// An unrecognised encoding is the one fault at this point that the library answers with 400 and a closed connection.
void forceBadRequest(SoupMessage* message)
{
    if (message->method == SOUP_METHOD_CONNECT)
        message->method = g_intern_static_string("x-connect");
    soup_message_headers_remove(message->request_headers, "Transfer-Encoding");
    soup_message_headers_replace(message->request_headers, "Content-Length", "x");
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
    SoupServer* server = connection->table->server();
    soup_server_pause_message(server, message);
    soup_server_unpause_message(server, message);
}

// The method is set once the head is parsed, before anything in it is used. All that is set later would be told to who
// watches the method, too.
void onMethodKnown(SoupMessage* message, GParamSpec*, gpointer data)
{
    auto* connection = static_cast<Connection*>(data);
    if (!message->method)
        return;
    g_signal_handler_disconnect(message, connection->headWatch);
    ConnectionTable::headRead(connection);
    // A request that was sent behind another one: its connection is about to be closed.
    if (connection->table->isDraining())
        return soup_server_pause_message(connection->table->server(), message);
    breakRecursion(message, connection);
    const RequestHead head = headOf(message, isMalformed(connection));
    switch (examineHead(head, connection->table->limits())) {
    case HeadVerdict::Accept:
        break;
    case HeadVerdict::BadRequest:
        dbglog_warn(webserverLog(), "Refusing a malformed request head");
        ++connection->table->counters().malformedHeads;
        return forceBadRequest(message);
    case HeadVerdict::FieldsTooLarge:
        dbglog_warn(webserverLog(), "Refusing a request with " << head.fields << " header fields");
        ++connection->table->counters().longHeads;
        return refuseUnread(message, 431);
    }
    guardBody(message, head, connection);
    if (head.hostFields == 0 && soup_message_get_http_version(message) == SOUP_HTTP_1_0)
        addHost(message, connection);
}

// "notify::method", without a look-up of these words for each request.
gulong watchMethod(SoupMessage* message, Connection* connection)
{
    static const guint notify = g_signal_lookup("notify", G_TYPE_OBJECT);
    static const GQuark method = g_quark_from_static_string("method");
    GClosure* closure = g_cclosure_new(G_CALLBACK(onMethodKnown), connection, nullptr);
    return g_signal_connect_closure_by_id(message, notify, method, closure, FALSE);
}

} // namespace

// The call is made here: the library leaves this signal's to one for any number of arguments, which takes longer than
// all that is done for it.
RequestGuard::RequestGuard(SoupServer* server, ConnectionTable* connectionTable)
    : m_server(server), m_connectionTable(connectionTable)
{
    GClosure* closure = g_closure_new_simple(sizeof(GClosure), this);
    g_closure_set_marshal(closure, onRequestStarted);
    m_requestStartedId = g_signal_connect_closure(server, "request-started", closure, FALSE);
}

RequestGuard::~RequestGuard()
{
    dbglog_scopedFunction(webserverLog());
    g_signal_handler_disconnect(m_server, m_requestStartedId);
}

void RequestGuard::setStrictTransport(int seconds)
{
    dbglog_scopedFunction(webserverLog());
    m_strictTransport = seconds > 0 ? "max-age=" + QByteArray::number(seconds) : QByteArray();
}

void RequestGuard::onRequestStarted(
    GClosure* closure, GValue*, guint, const GValue* serverMessageClient, gpointer, gpointer)
{
    auto* message = static_cast<SoupMessage*>(g_value_get_object(&serverMessageClient[1]));
    auto* client = static_cast<SoupClientContext*>(g_value_get_boxed(&serverMessageClient[2]));
    const auto* guard = static_cast<RequestGuard*>(closure->data);
    Connection* connection = guard->m_connectionTable->requestStarted(client, message);
    if (connection->requests++ == 0 && connection->gsocket)
        connection->heads = WatchedConnection::watch(connection->gsocket);
    // For the library's own error answers too.
    soup_message_headers_append(message->response_headers, "X-Robots-Tag", "noindex");
    if (!guard->m_strictTransport.isEmpty())
        soup_message_headers_append(
            message->response_headers, "Strict-Transport-Security", guard->m_strictTransport.constData());
    connection->headWatch = watchMethod(message, connection);
}
