// The floor: what the HTTP library alone costs on this event loop, doing what any device must do. A request is paused,
// answered from a queued event, and sent with Content-Length.
//
//     floor --body FILE [--files DIR] [--tls PEM]
//                                          GET and POST /value (any query) answer FILE's bytes as JSON;
//                                          GET /file/NAME sends DIR/NAME mapped into memory;
//                                          GET /stream?N sends chunks of N bytes until the client has enough;
//                                          POST /upload counts the bytes of a body as they come; with ?store it makes
//                                          their SHA-256 sum, too, and has them in DIR/upload, on disk, at the end;
//                                          over TLS with the certificate and the key in the file PEM
//     floor --idle                         an application and a server that does nothing
//
// Prints "listening on PORT" (or "idle") when it is ready, and runs until it is stopped.

#include <cstdio>

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QFile>
#include <fcntl.h>
#include <libsoup/soup.h>
#include <openssl/evp.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

const int Backlog = 512; ///< The library's 10 loses connections under load, and each costs its client 200 ms.

struct Floor {
    QByteArray body;
    QString directory;
    // Of the upload under way:
    quint64 received = 0; ///< Bytes.
    int file = -1; ///< When it is stored.
    EVP_MD_CTX* sum = EVP_MD_CTX_new();
};

/// Runs `answer` from the event loop, as the reply of an asynchronous framework comes.
template <typename Answer> void answerLater(SoupServer* server, SoupMessage* message, Answer answer)
{
    soup_server_pause_message(server, message);
    g_object_ref(message);
    QMetaObject::invokeMethod(
        QCoreApplication::instance(),
        [server, message, answer] {
            answer(message);
            soup_server_unpause_message(server, message);
            g_object_unref(message);
        },
        Qt::QueuedConnection);
}

void serveValue(SoupServer* server, SoupMessage* message, const char*, GHashTable*, SoupClientContext*, void* data)
{
    const Floor* floor = static_cast<Floor*>(data);
    answerLater(server, message, [floor](SoupMessage* reply) {
        const gsize size = static_cast<gsize>(floor->body.size());
        soup_message_set_status(reply, SOUP_STATUS_OK);
        soup_message_set_response(reply, "application/json", SOUP_MEMORY_STATIC, floor->body.constData(), size);
        soup_message_headers_set_content_length(reply->response_headers, static_cast<goffset>(size));
    });
}

void appendFile(SoupMessage* reply, GMappedFile* file)
{
    const gsize size = g_mapped_file_get_length(file);
    soup_message_set_status(reply, SOUP_STATUS_OK);
    soup_message_headers_set_content_type(reply->response_headers, "application/octet-stream", nullptr);
    soup_message_headers_set_content_length(reply->response_headers, static_cast<goffset>(size));
    if (size == 0)
        return;
    soup_message_body_set_accumulate(reply->response_body, FALSE);
    auto* release = reinterpret_cast<GDestroyNotify>(g_mapped_file_unref);
    SoupBuffer* buffer =
        soup_buffer_new_with_owner(g_mapped_file_get_contents(file), size, g_mapped_file_ref(file), release);
    soup_message_body_append_buffer(reply->response_body, buffer);
    soup_buffer_free(buffer);
}

void serveFile(SoupServer* server, SoupMessage* message, const char* path, GHashTable*, SoupClientContext*, void* data)
{
    const QString name = QString::fromUtf8(path).section(QLatin1Char('/'), 2);
    const QByteArray fileName = QFile::encodeName(static_cast<Floor*>(data)->directory + QLatin1Char('/') + name);
    answerLater(server, message, [fileName](SoupMessage* reply) {
        GMappedFile* file = g_mapped_file_new(fileName.constData(), FALSE, nullptr);
        if (!file) {
            soup_message_set_status(reply, SOUP_STATUS_NOT_FOUND);
            return;
        }
        appendFile(reply, file);
        g_mapped_file_unref(file);
    });
}

void appendChunk(SoupMessage* message, gpointer chunk)
{
    soup_message_body_append_buffer(message->response_body, static_cast<SoupBuffer*>(chunk));
}

void releaseChunk(gpointer chunk, GClosure*)
{
    soup_buffer_free(static_cast<SoupBuffer*>(chunk));
}

void serveStream(SoupServer*, SoupMessage* message, const char*, GHashTable*, SoupClientContext*, void*)
{
    const gsize size = QByteArray(soup_message_get_uri(message)->query).toULong();
    if (size == 0)
        return soup_message_set_status(message, SOUP_STATUS_BAD_REQUEST);
    SoupBuffer* chunk = soup_buffer_new_take(static_cast<guchar*>(g_malloc0(size)), size);
    soup_message_set_status(message, SOUP_STATUS_OK);
    soup_message_headers_set_encoding(message->response_headers, SOUP_ENCODING_CHUNKED);
    soup_message_body_set_accumulate(message->response_body, FALSE);
    g_signal_connect_data(
        message, "wrote-chunk", G_CALLBACK(appendChunk), chunk, releaseChunk, static_cast<GConnectFlags>(0));
    appendChunk(message, chunk);
}

void takeBytes(SoupMessage*, SoupBuffer* chunk, Floor* floor)
{
    floor->received += chunk->length;
    if (floor->file < 0)
        return;
    EVP_DigestUpdate(floor->sum, chunk->data, chunk->length);
    if (write(floor->file, chunk->data, chunk->length) != static_cast<ssize_t>(chunk->length))
        qFatal("write");
}

void beginUpload(SoupServer*, SoupMessage* message, const char*, GHashTable*, SoupClientContext*, void* data)
{
    auto* floor = static_cast<Floor*>(data);
    floor->received = 0;
    if (soup_message_get_uri(message)->query) {
        const QByteArray name = QFile::encodeName(floor->directory + "/upload");
        floor->file = open(name.constData(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        EVP_DigestInit_ex(floor->sum, EVP_sha256(), nullptr);
    }
    soup_message_body_set_accumulate(message->request_body, FALSE);
    g_signal_connect(message, "got-chunk", G_CALLBACK(takeBytes), floor);
}

void endStored(Floor* floor)
{
    unsigned char sum[EVP_MAX_MD_SIZE];
    EVP_DigestFinal_ex(floor->sum, sum, nullptr);
    if (fsync(floor->file) != 0)
        qFatal("fsync");
    close(floor->file);
    floor->file = -1;
}

void serveUpload(SoupServer*, SoupMessage* message, const char*, GHashTable*, SoupClientContext*, void* data)
{
    auto* floor = static_cast<Floor*>(data);
    if (floor->file >= 0)
        endStored(floor);
    const QByteArray count = QByteArray::number(floor->received);
    soup_message_set_status(message, SOUP_STATUS_OK);
    soup_message_set_response(
        message, "application/json", SOUP_MEMORY_COPY, count.constData(), static_cast<gsize>(count.size()));
}

bool fail(GError* error)
{
    std::fprintf(stderr, "floor: %s\n", error->message);
    g_error_free(error);
    return false;
}

bool useCertificate(SoupServer* server, const QByteArray& pemFile)
{
    GError* error = nullptr;
    return soup_server_set_ssl_cert_file(server, pemFile.constData(), pemFile.constData(), &error) || fail(error);
}

bool listenOnLoopback(SoupServer* server, bool secure)
{
    GError* error = nullptr;
    const int options = SOUP_SERVER_LISTEN_IPV4_ONLY | (secure ? SOUP_SERVER_LISTEN_HTTPS : 0);
    if (!soup_server_listen_local(server, 0, static_cast<SoupServerListenOptions>(options), &error))
        return fail(error);
    GSList* listeners = soup_server_get_listeners(server);
    for (GSList* each = listeners; each; each = each->next)
        ::listen(g_socket_get_fd(static_cast<GSocket*>(each->data)), Backlog);
    g_slist_free(listeners);
    GSList* uris = soup_server_get_uris(server);
    std::printf("listening on %u\n", soup_uri_get_port(static_cast<SoupURI*>(uris->data)));
    g_slist_free_full(uris, reinterpret_cast<GDestroyNotify>(soup_uri_free));
    return true;
}

bool readBody(const QString& fileName, QByteArray* body)
{
    QFile file(fileName);
    if (!file.open(QIODevice::ReadOnly)) {
        std::fprintf(stderr, "floor: %s: %s\n", qPrintable(fileName), qPrintable(file.errorString()));
        return false;
    }
    *body = file.readAll();
    return true;
}

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication application(argc, argv);
    QCommandLineParser parser;
    parser.addOptions({
        { "body", "What /value answers.", "FILE" },
        { "files", "What /file/ answers from.", "DIR", "." },
        { "tls", "Certificate and key to serve HTTPS with.", "PEM" },
        { "idle", "No handlers, no listener." },
    });
    parser.process(application);
    SoupServer* server = soup_server_new(nullptr, nullptr);
    Floor floor{ {}, parser.value("files") };
    if (parser.isSet("idle")) {
        std::puts("idle");
    } else {
        if (parser.isSet("body") && !readBody(parser.value("body"), &floor.body))
            return 2;
        soup_server_add_handler(server, "/value", serveValue, &floor, nullptr);
        soup_server_add_handler(server, "/file", serveFile, &floor, nullptr);
        soup_server_add_handler(server, "/stream", serveStream, &floor, nullptr);
        soup_server_add_early_handler(server, "/upload", beginUpload, &floor, nullptr);
        soup_server_add_handler(server, "/upload", serveUpload, &floor, nullptr);
        const QByteArray pem = QFile::encodeName(parser.value("tls"));
        if ((!pem.isEmpty() && !useCertificate(server, pem)) || !listenOnLoopback(server, !pem.isEmpty()))
            return 3;
    }
    std::fflush(stdout);
    return QCoreApplication::exec();
}
