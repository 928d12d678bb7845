#include "RenegotiationGuard.h"

#include <gio/gio.h>

#include <algorithm>

#include "WebserverLog.h"

namespace {

constexpr guint HeaderBytes = 5; // Type, version (2), length (2).
constexpr guint8 HandshakeRecord = 22;

// What the TLS library reads from: the socket's stream, looked through on the way.
struct RecordInput {
    GFilterInputStream parent;
    GTlsConnection* connection; // Whose input it is; not owned.
    guint8 header[HeaderBytes];
    guint headerBytes; // Of the present record's header, that have come.
    guint left; // Of its content.
};

// The socket's stream with that input in the place of its own.
struct RecordStream {
    GIOStream parent;
    GIOStream* base;
    RecordInput* input;
};

GType serverType = G_TYPE_INVALID;
GType inputType = G_TYPE_INVALID;
GType streamType = G_TYPE_INVALID;
GObjectClass* libraryClass = nullptr; // Of the TLS library's server connections.

template <class T> T* as(gpointer object)
{
    return static_cast<T*>(object);
}

// Whether a record of a handshake begins within these bytes.
bool follow(RecordInput* input, const guint8* bytes, gsize count)
{
    bool found = false;
    while (count > 0) {
        gsize taken = std::min<gsize>(input->left, count);
        if (input->left > 0) {
            input->left -= static_cast<guint>(taken);
        } else {
            taken = std::min<gsize>(HeaderBytes - input->headerBytes, count);
            std::copy_n(bytes, taken, input->header + input->headerBytes);
            found = found || input->header[0] == HandshakeRecord;
            input->headerBytes += static_cast<guint>(taken);
        }
        if (input->left == 0 && input->headerBytes == HeaderBytes) {
            input->left = static_cast<guint>(input->header[3]) << 8 | input->header[4];
            input->headerBytes = 0;
        }
        bytes += taken;
        count -= taken;
    }
    return found;
}

// The version is known as soon as the first handshake is done.
gssize judged(RecordInput* input, const void* bytes, gssize count, GError** error)
{
    if (count <= 0 || !follow(input, static_cast<const guint8*>(bytes), static_cast<gsize>(count))
        || g_tls_connection_get_protocol_version(input->connection) == G_TLS_PROTOCOL_VERSION_UNKNOWN)
        return count;
    dbglog_warn(webserverLog(), "Closing a connection whose client asks for another TLS handshake");
    g_set_error_literal(error, G_IO_ERROR, G_IO_ERROR_CONNECTION_CLOSED, "No renegotiation");
    return -1;
}

GInputStream* baseOf(gpointer input)
{
    return as<GFilterInputStream>(input)->base_stream;
}

gssize readBlocking(GInputStream* self, void* bytes, gsize count, GCancellable* cancellable, GError** error)
{
    return judged(
        as<RecordInput>(self), bytes, g_input_stream_read(baseOf(self), bytes, count, cancellable, error), error);
}

gssize readNonblocking(GPollableInputStream* self, void* bytes, gsize count, GError** error)
{
    auto* base = as<GPollableInputStream>(baseOf(self));
    return judged(as<RecordInput>(self), bytes,
        g_pollable_input_stream_read_nonblocking(base, bytes, count, nullptr, error), error);
}

GIOStream* baseStreamOf(gpointer stream)
{
    return as<RecordStream>(stream)->base;
}

void initInput(gpointer klass, gpointer)
{
    as<GInputStreamClass>(klass)->read_fn = readBlocking;
}

void initPollable(gpointer interface, gpointer)
{
    auto* pollable = as<GPollableInputStreamInterface>(interface);
    pollable->can_poll = [](GPollableInputStream* self) {
        return g_pollable_input_stream_can_poll(as<GPollableInputStream>(baseOf(self)));
    };
    pollable->is_readable = [](GPollableInputStream* self) {
        return g_pollable_input_stream_is_readable(as<GPollableInputStream>(baseOf(self)));
    };
    pollable->create_source = [](GPollableInputStream* self, GCancellable* cancellable) {
        return g_pollable_input_stream_create_source(as<GPollableInputStream>(baseOf(self)), cancellable);
    };
    pollable->read_nonblocking = readNonblocking;
}

void initStream(gpointer klass, gpointer)
{
    auto* stream = as<GIOStreamClass>(klass);
    stream->get_input_stream = [](GIOStream* self) {
        return as<GInputStream>(as<RecordStream>(self)->input);
    };
    stream->get_output_stream = [](GIOStream* self) {
        return g_io_stream_get_output_stream(baseStreamOf(self));
    };
    stream->close_fn = [](GIOStream* self, GCancellable* cancellable, GError** error) {
        return g_io_stream_close(baseStreamOf(self), cancellable, error);
    };
    as<GObjectClass>(klass)->finalize = [](GObject* self) {
        g_object_unref(as<RecordStream>(self)->input);
        g_object_unref(baseStreamOf(self));
        as<GObjectClass>(g_type_class_peek(G_TYPE_IO_STREAM))->finalize(self);
    };
}

GIOStream* wrapped(GIOStream* base)
{
    auto* stream = as<RecordStream>(g_object_new(streamType, nullptr));
    stream->base = as<GIOStream>(g_object_ref(base));
    stream->input = as<RecordInput>(g_object_new(
        inputType, "base-stream", g_io_stream_get_input_stream(base), "close-base-stream", FALSE, nullptr));
    return as<GIOStream>(stream);
}

GObject* constructServer(GType type, guint count, GObjectConstructParam* parameters)
{
    auto* end = parameters + count;
    auto* found = std::find_if(
        parameters, end, [](const auto& parameter) { return g_str_equal(parameter.pspec->name, "base-io-stream"); });
    GIOStream* stream = found == end ? nullptr : wrapped(as<GIOStream>(g_value_get_object(found->value)));
    if (stream)
        g_value_set_object(found->value, stream);
    GObject* connection = libraryClass->constructor(type, count, parameters);
    if (stream)
        as<RecordStream>(stream)->input->connection = as<GTlsConnection>(connection);
    g_clear_object(&stream); // The connection has it.
    return connection;
}

void initServer(gpointer klass, gpointer)
{
    libraryClass = as<GObjectClass>(g_type_class_peek_parent(klass));
    as<GObjectClass>(klass)->constructor = constructServer;
}

template <class Instance, class Class> GType registered(GType parent, const char* name, GClassInitFunc init)
{
    return g_type_register_static_simple(
        parent, name, sizeof(Class), init, sizeof(Instance), nullptr, static_cast<GTypeFlags>(0));
}

GType typeOfServers(GType parent)
{
    GTypeQuery sizes;
    g_type_query(parent, &sizes);
    return g_type_register_static_simple(parent, "ZarkTlsServerConnection", sizes.class_size, initServer,
        sizes.instance_size, nullptr, static_cast<GTypeFlags>(0));
}

} // namespace

void refuseRenegotiation()
{
    dbglog_scopedFunction(webserverLog());
    GTlsBackend* backend = g_tls_backend_get_default();
    if (serverType != G_TYPE_INVALID || !g_tls_backend_supports_tls(backend))
        return;
    const GInterfaceInfo pollable{ initPollable, nullptr, nullptr };
    inputType =
        registered<RecordInput, GFilterInputStreamClass>(G_TYPE_FILTER_INPUT_STREAM, "ZarkRecordInput", initInput);
    g_type_add_interface_static(inputType, G_TYPE_POLLABLE_INPUT_STREAM, &pollable);
    streamType = registered<RecordStream, GIOStreamClass>(G_TYPE_IO_STREAM, "ZarkRecordStream", initStream);
    serverType = typeOfServers(g_tls_backend_get_server_connection_type(backend));
    // The HTTP library makes its connections itself, and asks here what to make.
    G_TLS_BACKEND_GET_INTERFACE(backend)->get_server_connection_type = [] {
        return serverType;
    };
}
