#include "WatchedConnection.h"

#include <utility>

#include "HeadScanner.h"
#include "RecordScanner.h"
#include "WebserverLog.h"

namespace {

/// Of a socket.
struct Watch {
    HeadScanner scanner;
    bool isWanted = false;
    const void* shown = nullptr; ///< The stream whose bytes are, of one over the other.
    RecordScanner records; ///< Of the stream below that one.
    GTlsConnection* tls = nullptr; ///< That reads the stream below; not owned.
};

GQuark watchKey()
{
    static const GQuark key = g_quark_from_static_string("zark-head-scanner");
    return key;
}

Watch* watchOf(GSocket* socket)
{
    return static_cast<Watch*>(g_object_get_qdata(G_OBJECT(socket), watchKey()));
}

// ---- The stream: reads as the one below does, and shows what it has read.

// Of the stream below, the functions themselves are called: whoever reads has checked the arguments already.
struct WatchedInput {
    GFilterInputStream parent;
    GPollableInputStream* below;
    GPollableInputStreamInterface* belowCalls;
    GSocket* socket; ///< A reference.
    Watch* watch; ///< The socket's.
};

WatchedInput* watched(void* stream)
{
    return static_cast<WatchedInput*>(stream);
}

// The version is known as soon as the first handshake is done.
bool hasShakenHands(const Watch* watch)
{
    return watch->tls && g_tls_connection_get_protocol_version(watch->tls) != G_TLS_PROTOCOL_VERSION_UNKNOWN;
}

// What reads here is either the TLS connection itself or the thread in which it shakes hands.
bool isRenegotiating(Watch* watch, const char* data, gssize count)
{
    return watch->tls && watch->records.feed(data, count) && hasShakenHands(watch);
}

gssize refuse(const char* why, GError** error)
{
    g_set_error_literal(error, G_IO_ERROR, G_IO_ERROR_INVALID_DATA, why);
    return -1;
}

gssize show(void* stream, void* buffer, gssize count, GError** error)
{
    Watch* watch = watched(stream)->watch;
    auto* data = static_cast<char*>(buffer);
    if (count <= 0)
        return count;
    if (watch->shown == stream)
        return !watch->isWanted || watch->scanner.feed(data, count) ? count
                                                                    : refuse("Not to be shown to the library", error);
    if (!isRenegotiating(watch, data, count))
        return count;
    dbglog_warn(webserverLog(), "Closing a connection whose client asks for another TLS handshake");
    return refuse("No renegotiation", error);
}

gssize read(GInputStream* stream, void* buffer, gsize count, GCancellable* cancellable, GError** error)
{
    GInputStream* below = watched(stream)->parent.base_stream;
    return show(stream, buffer, g_input_stream_read(below, buffer, count, cancellable, error), error);
}

gssize readNonblocking(GPollableInputStream* stream, void* buffer, gsize count, GError** error)
{
    const WatchedInput* input = watched(stream);
    return show(stream, buffer, input->belowCalls->read_nonblocking(input->below, buffer, count, error), error);
}

gboolean isReadable(GPollableInputStream* stream)
{
    return watched(stream)->belowCalls->is_readable(watched(stream)->below);
}

// The source is that of the stream below: one around it would be another for the main loop to look at on each turn.
GSource* createSource(GPollableInputStream* stream, GCancellable* cancellable)
{
    return watched(stream)->belowCalls->create_source(watched(stream)->below, cancellable);
}

void finalize(GObject* object)
{
    static auto* const parent = static_cast<GObjectClass*>(g_type_class_peek(G_TYPE_FILTER_INPUT_STREAM));
    const auto* input = reinterpret_cast<WatchedInput*>(object);
    if (input->watch->shown == input)
        input->watch->tls = nullptr; // Which goes with its stream.
    g_object_unref(input->socket);
    parent->finalize(object);
}

void initClass(gpointer klass, gpointer)
{
    G_OBJECT_CLASS(klass)->finalize = finalize;
    G_INPUT_STREAM_CLASS(klass)->read_fn = read;
}

void initPollable(gpointer interface, gpointer)
{
    auto* pollable = static_cast<GPollableInputStreamInterface*>(interface);
    pollable->is_readable = isReadable;
    pollable->create_source = createSource;
    pollable->read_nonblocking = readNonblocking;
}

GType registerInput()
{
    const GType type = g_type_register_static_simple(G_TYPE_FILTER_INPUT_STREAM, "ZarkWatchedInput",
        sizeof(GFilterInputStreamClass), initClass, sizeof(WatchedInput), nullptr, static_cast<GTypeFlags>(0));
    const GInterfaceInfo pollable{ initPollable, nullptr, nullptr };
    g_type_add_interface_static(type, G_TYPE_POLLABLE_INPUT_STREAM, &pollable);
    return type;
}

/// A reference. The upper one of two streams over the same socket is made later, and shown.
GInputStream* makeInput(GInputStream* base, GSocket* socket)
{
    static const GType type = registerInput();
    if (!watchOf(socket))
        g_object_set_qdata_full(
            G_OBJECT(socket), watchKey(), new Watch, [](gpointer watch) { delete static_cast<Watch*>(watch); });
    auto* input = static_cast<WatchedInput*>(g_object_new(type, "base-stream", base, nullptr));
    input->below = G_POLLABLE_INPUT_STREAM(base);
    input->belowCalls = G_POLLABLE_INPUT_STREAM_GET_INTERFACE(base);
    input->socket = static_cast<GSocket*>(g_object_ref(socket));
    input->watch = watchOf(socket);
    input->watch->shown = input;
    return G_INPUT_STREAM(input);
}

// ---- The connections.

using GetInputStream = GInputStream* (*)(GIOStream* stream);

GetInputStream originalOfTcp = nullptr;
GetInputStream originalOfTls = nullptr;
decltype(GIOStreamClass::close_fn) originalCloseOfTls = nullptr;

// The connection keeps the stream in front of its own as long as it lives.
GInputStream* inputOf(GIOStream* connection, GSocket* socket, GetInputStream original)
{
    static const GQuark key = g_quark_from_static_string("zark-watched-input");
    if (!socket)
        return original(connection);
    auto* input = static_cast<GInputStream*>(g_object_get_qdata(G_OBJECT(connection), key));
    if (!input) {
        input = makeInput(original(connection), socket);
        g_object_set_qdata_full(G_OBJECT(connection), key, input, g_object_unref);
    }
    return input;
}

GInputStream* inputOfTcp(GIOStream* connection)
{
    return inputOf(connection, g_socket_connection_get_socket(G_SOCKET_CONNECTION(connection)), originalOfTcp);
}

/// Null when it is not known. Lives as long as the connection.
GSocket* socketOfTls(GIOStream* connection)
{
    GIOStream* base = nullptr;
    g_object_get(connection, "base-io-stream", &base, nullptr);
    GSocket* socket =
        G_IS_SOCKET_CONNECTION(base) ? g_socket_connection_get_socket(G_SOCKET_CONNECTION(base)) : nullptr;
    g_clear_object(&base);
    return socket;
}

GInputStream* inputOfTls(GIOStream* connection)
{
    GSocket* socket = socketOfTls(connection);
    GInputStream* input = inputOf(connection, socket, originalOfTls);
    if (socket)
        watchOf(socket)->tls = G_TLS_CONNECTION(connection);
    return input;
}

// The good-bye is written by whoever closes, which waits until there is room for it. After the end of the stream there
// is nothing to wait for, and what was sent before still arrives.
gboolean closeTls(GIOStream* connection, GCancellable* cancellable, GError** error)
{
    GSocket* socket = socketOfTls(connection);
    if (socket && !(g_socket_condition_check(socket, G_IO_OUT) & G_IO_OUT))
        g_socket_shutdown(socket, FALSE, TRUE, nullptr);
    return originalCloseOfTls(connection, cancellable, error);
}

// The reference to the class is kept: with the last one it would go, and what it was given with it. Null when that was
// done before.
GIOStreamClass* replace(GType type, GetInputStream* original, GetInputStream replacement)
{
    if (*original)
        return nullptr;
    auto* klass = static_cast<GIOStreamClass*>(g_type_class_ref(type));
    *original = klass->get_input_stream;
    klass->get_input_stream = replacement;
    return klass;
}

} // namespace

void WatchedConnection::install(bool overTls)
{
    replace(G_TYPE_TCP_CONNECTION, &originalOfTcp, inputOfTcp);
    if (!overTls)
        return;
    const GType type = g_tls_backend_get_server_connection_type(g_tls_backend_get_default());
    if (GIOStreamClass* klass = replace(type, &originalOfTls, inputOfTls))
        originalCloseOfTls = std::exchange(klass->close_fn, closeTls);
}

HeadScanner* WatchedConnection::watch(GSocket* socket)
{
    Watch* watch = watchOf(socket);
    if (!watch)
        return nullptr;
    watch->isWanted = true;
    return &watch->scanner;
}

bool WatchedConnection::hasShakenHands(GSocket* socket)
{
    const Watch* watch = watchOf(socket);
    return watch && ::hasShakenHands(watch);
}
