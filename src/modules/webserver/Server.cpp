#include "Server.h"

#include <QFile>

#include <sys/socket.h>

#include "ConnectionTable.h"
#include "HostFilter.h"
#include "Message.h"
#include "NotFoundHandler.h"
#include "Request.h"
#include "RequestGuard.h"
#include "WebserverLog.h"

namespace {

// The library's own backlog of 10 overflows in a burst, and a client whose handshake is lost waits 200 ms.
constexpr int ListenBacklog = 512;
constexpr int MaximumPort = 65535;
constexpr int LongestName = 253 + 6; // Of a host, with a port (RFC 1035, section 2.3.4).

bool isTlsAvailable()
{
    return g_tls_backend_supports_tls(g_tls_backend_get_default());
}

bool hasBody(SoupMessage* message)
{
    return soup_message_headers_get_encoding(message->request_headers) != SOUP_ENCODING_NONE;
}

QString take(GError* error)
{
    const QString message = QString::fromUtf8(error->message);
    g_error_free(error);
    return message;
}

} // namespace

Server::HandlerData::~HandlerData()
{
    delete handler;
}

Server::Server(int port, const QString& certificatePem, const QString& keyPem, bool useDeviceCert,
    const ServerLimits& limits, QObject* parent)
    : QObject(parent), m_port(port)
{
    dbglog_scopedFunction(webserverLog());
    if (!certificatePem.isEmpty() && !keyPem.isEmpty())
        m_certificate = std::make_unique<ServerCertificate>(
            certificatePem, keyPem, useDeviceCert, static_cast<CertificateUser*>(this));
    m_soupServer = m_certificate ? createHttpsServer() : createHttpServer();
    if (!m_soupServer)
        return;
    m_connectionTable = std::make_unique<ConnectionTable>(m_soupServer, limits);
    m_requestGuard = std::make_unique<RequestGuard>(m_soupServer, m_connectionTable.get());
    // "OPTIONS *" names no path, so no path prefix matches it.
    addHandler(QStringLiteral("*"), new NotFoundHandler(QString(), nullptr));
}

Server::~Server()
{
    dbglog_scopedFunction(webserverLog());
    if (!ok())
        return;
    stop();
    m_requestGuard.reset();
    m_connectionTable.reset();
    g_object_unref(m_soupServer);
}

SoupServer* Server::createHttpServer()
{
    static const char* httpAliases[] = { "http", nullptr };
    return soup_server_new(SOUP_SERVER_RAW_PATHS, TRUE, SOUP_SERVER_HTTP_ALIASES, httpAliases, nullptr);
}

SoupServer* Server::createHttpsServer()
{
    m_listenOptions = SOUP_SERVER_LISTEN_HTTPS;
    if (!isTlsAvailable()) {
        m_lastError = QStringLiteral("TLS is not available: the package glib-networking is missing");
        dbglog_fatal(webserverLog(), m_lastError);
        return nullptr;
    }
    if (m_certificate->isDeviceCert())
        return soup_server_new(SOUP_SERVER_RAW_PATHS, TRUE, nullptr);
    GTlsCertificate* certificate = m_certificate->load(&m_lastError);
    if (!certificate)
        return nullptr;
    SoupServer* server =
        soup_server_new(SOUP_SERVER_RAW_PATHS, TRUE, SOUP_SERVER_TLS_CERTIFICATE, certificate, nullptr);
    g_object_unref(certificate);
    return server;
}

int Server::listeningPort() const
{
    dbglog_scopedFunction(webserverLog());
    if (!m_running)
        return 0;
    GSList* uris = soup_server_get_uris(m_soupServer);
    const int port = uris ? static_cast<int>(soup_uri_get_port(static_cast<SoupURI*>(uris->data))) : 0;
    g_slist_free_full(uris, [](gpointer uri) { soup_uri_free(static_cast<SoupURI*>(uri)); });
    return port;
}

void Server::start()
{
    dbglog_scopedFunction(webserverLog());
    if (!m_soupServer)
        qFatal("m_soupServer");
    if (m_running) {
        dbglog_info(webserverLog(), "SOUP server is already running");
        return;
    }
    if (m_draining)
        return;
    if (m_certificate && m_certificate->isMissing()) {
        dbglog_info(webserverLog(), "No device-cert ready to start https server");
        return;
    }
    if (m_port < 0 || m_port > MaximumPort)
        return failed(QStringLiteral("There is no such port"));
    GError* error = nullptr;
    m_running = m_connectionTable->start(m_port, m_listenOptions, &error);
    if (m_running) {
        deepenBacklog();
        m_lastError.clear();
        dbglog_info(webserverLog(), "SOUP server started (port " << m_port << ")");
        Q_EMIT stateChanged();
        return;
    }
    failed(take(error));
}

void Server::failed(const QString& reason)
{
    m_lastError = reason;
    dbglog_error(webserverLog(), "SOUP server failed to start (port " << m_port << "), Error: " << reason);
    Q_EMIT stateChanged();
}

void Server::deepenBacklog()
{
    GSList* listeners = soup_server_get_listeners(m_soupServer);
    for (const GSList* entry = listeners; entry; entry = entry->next)
        ::listen(g_socket_get_fd(static_cast<GSocket*>(entry->data)), ListenBacklog);
    g_slist_free(listeners);
}

void Server::stop()
{
    dbglog_scopedFunction(webserverLog());
    if (!m_soupServer)
        qFatal("m_soupServer");
    m_connectionTable->stop();
    soup_server_disconnect(m_soupServer);
    m_running = false;
    Q_EMIT stateChanged();
}

void Server::drain()
{
    dbglog_scopedFunction(webserverLog());
    m_draining = true;
    if (m_certificate)
        m_certificate->keep();
    if (m_connectionTable)
        m_connectionTable->drain();
}

void Server::updateIpAddresses(const QSet<QString>& addresses)
{
    dbglog_scopedFunction(webserverLog());
    if (!m_certificate)
        return;
    m_certificate->updateIpAddresses(addresses);
    Q_EMIT stateChanged();
}

void Server::setCertificate(const QString& certificatePem, const QString& keyPem, bool renew)
{
    dbglog_scopedFunction(webserverLog());
    if (m_certificate)
        m_certificate->replace(certificatePem, keyPem, renew);
}

void Server::checkCertificate()
{
    dbglog_scopedFunction(webserverLog());
    if (m_certificate)
        m_certificate->renewWhenDue();
}

void Server::setStrictTransport(int seconds)
{
    dbglog_scopedFunction(webserverLog());
    if (m_certificate)
        m_requestGuard->setStrictTransport(seconds);
}

bool Server::isAnswering() const
{
    return m_connectionTable->isAnswering();
}

bool Server::endHandshakes()
{
    return m_connectionTable->endHandshakes();
}

bool Server::useCertificateFiles(const QString& certificateFile, const QString& keyFile)
{
    GError* error = nullptr;
    if (soup_server_set_ssl_cert_file(m_soupServer, QFile::encodeName(certificateFile).constData(),
            QFile::encodeName(keyFile).constData(), &error))
        return true;
    const QString reason = QStringLiteral("Apply cert failed: ") + take(error);
    dbglog_error(webserverLog(), reason);
    certificateFailed(reason);
    return false;
}

void Server::certificateFailed(const QString& reason)
{
    m_lastError = reason;
    Q_EMIT stateChanged();
}

void Server::addHandler(const QString& path, Handler* handler)
{
    dbglog_scopedFunction(webserverLog());
    dbglog_debug(webserverLog(), "addHandler: " << path << ' ' << static_cast<const void*>(handler));
    soup_server_add_handler(
        m_soupServer, path.toUtf8().constData(), server_callback, new HandlerData(this, handler), deleteHandlerData);
}

void Server::addEarlyHandler(const QString& path, Handler* handler)
{
    dbglog_scopedFunction(webserverLog());
    dbglog_debug(webserverLog(), "addEarlyHandler: " << path << ' ' << static_cast<const void*>(handler));
    soup_server_add_early_handler(m_soupServer, path.toUtf8().constData(), early_server_callback,
        new HandlerData(this, handler), deleteHandlerData);
}

void Server::deleteHandlerData(gpointer handlerData)
{
    delete static_cast<HandlerData*>(handlerData);
}

void Server::pauseMessage(bool pause, Message* message)
{
    dbglog_scopedFunction(webserverLog());
    if (!m_soupServer)
        qFatal("m_soupServer");
    dbglog_debug(webserverLog(), "Pause: " << pause);
    if (pause)
        message->pause();
    else
        message->unpause();
}

void Server::server_callback(SoupServer* server, SoupMessage* message, const char* path, GHashTable* query,
    SoupClientContext* client, gpointer handlerData)
{
    dbglog_trace(webserverLog(), "path: " << path);
    const auto* registration = static_cast<HandlerData*>(handlerData);
    // With a body, the guard sees its end.
    Connection* connection = registration->server->m_connectionTable->requestHandled(client, !hasBody(message));
    if (Message* taker = Message::takerOf(message))
        return Q_EMIT taker->gotBody();
    auto* wrapped = new Request({ server, message, path, query, client }, 0, registration->handler);
    if (connection)
        wrapped->setEnd([connection, message] { ConnectionTable::requestFinished(connection, message); });
    registration->server->dispatch(wrapped, registration->handler);
    if (wrapped->isFinished()) {
        dbglog_debug(webserverLog(), "Message already finished, deleting it directly");
        wrapped->deleteLater();
        return;
    }
    wrapped->deleteWhenFinished();
}

void Server::early_server_callback(SoupServer* server, SoupMessage* message, const char* path, GHashTable* query,
    SoupClientContext* client, gpointer handlerData)
{
    // Most requests have no body: they are spared a Message that nobody would look at.
    if (hasBody(message) || message->method == SOUP_METHOD_POST)
        server_callback(server, message, path, query, client, handlerData);
}

void Server::dispatch(Message* message, Handler* handler)
{
    SoupMessageHeaders* fields = message->data().message->request_headers;
    if (!m_language.isEmpty() && soup_message_headers_get_one(fields, "Accept-Language"))
        message->setHeader(QByteArrayLiteral("Content-Language"), m_language.toUtf8());
    const char* field = soup_message_headers_get_one(fields, "Host");
    const QByteArray host = QByteArray::fromRawData(field, field ? static_cast<int>(qstrlen(field)) : 0);
    const bool isKnown = field && host == m_acceptedHost;
    if (!isKnown && !isAcceptedHost(host)) {
        dbglog_error(webserverLog(), "rejecting message: host=" << host);
        ++m_connectionTable->counters().foreignHosts;
        message->setStatus(SOUP_STATUS_FORBIDDEN, QString());
        return;
    }
    if (!isKnown && host.size() <= LongestName)
        m_acceptedHost = QByteArray(host.constData(), host.size());
    handler->handle(message);
}
