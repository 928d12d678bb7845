#include "Server.h"

#include <QFile>
#include <QTemporaryDir>

#include <sys/socket.h>

#include "CertificatePair.h"
#include "ConnectionTable.h"
#include "HostFilter.h"
#include "Message.h"
#include "NotFoundHandler.h"
#include "RequestGuard.h"
#include "WebserverLog.h"

namespace {

// The library's own backlog of 10 overflows in a burst, and a client whose handshake is lost waits 200 ms.
constexpr int ListenBacklog = 512;
constexpr int MaximumPort = 65535;

constexpr int RestartCheckMilliseconds = 20;
constexpr int RestartLimitMilliseconds = 2000;

bool isTlsAvailable()
{
    return g_tls_backend_supports_tls(g_tls_backend_get_default());
}

QString take(GError* error)
{
    const QString message = QString::fromUtf8(error->message);
    g_error_free(error);
    return message;
}

/// Null, with the reason in `error`, when the two cannot serve.
GTlsCertificate* loadCertificate(const QString& certificatePem, const QString& keyPem, QString* error)
{
    GError* failure = nullptr;
    const QByteArray pem = (certificatePem + keyPem).toUtf8();
    GTlsCertificate* certificate = g_tls_certificate_new_from_pem(pem.constData(), -1, &failure);
    if (failure) {
        *error = take(failure);
        return nullptr;
    }
    *error = certificatePairFault(certificatePem, keyPem);
    if (!error->isEmpty())
        g_clear_object(&certificate);
    return certificate;
}

} // namespace

Server::HandlerData::~HandlerData()
{
    delete handler;
}

Server::Server(int port, const QString& certificatePem, const QString& keyPem, bool useDeviceCert,
    const ServerLimits& limits, QObject* parent)
    : QObject(parent), m_port(port), m_certificatePem(certificatePem), m_keyPem(keyPem), m_useDeviceCert(useDeviceCert),
      m_deviceCertificate(certificatePem + keyPem)
{
    dbglog_scopedFunction(webserverLog());
    connect(&m_restartTimer, &QTimer::timeout, this, &Server::restartWhenIdle);
    m_soupServer = createSoupServer();
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

SoupServer* Server::createSoupServer()
{
    static const char* httpAliases[] = { "http", nullptr };
    if (m_certificatePem.isEmpty() || m_keyPem.isEmpty())
        return soup_server_new(SOUP_SERVER_RAW_PATHS, TRUE, SOUP_SERVER_HTTP_ALIASES, httpAliases, nullptr);
    m_listenOptions = SOUP_SERVER_LISTEN_HTTPS;
    if (!isTlsAvailable()) {
        m_lastError = QStringLiteral("TLS is not available: the package glib-networking is missing");
        dbglog_fatal(webserverLog(), m_lastError);
        return nullptr;
    }
    if (m_useDeviceCert)
        return soup_server_new(SOUP_SERVER_RAW_PATHS, TRUE, nullptr);
    GTlsCertificate* certificate = loadCertificate(m_certificatePem, m_keyPem, &m_lastError);
    if (!certificate) {
        loadFailed(m_lastError);
        return nullptr;
    }
    SoupServer* server =
        soup_server_new(SOUP_SERVER_RAW_PATHS, TRUE, SOUP_SERVER_TLS_CERTIFICATE, certificate, nullptr);
    g_object_unref(certificate);
    return server;
}

bool Server::loadFailed(const QString& reason)
{
    m_lastError = reason;
    dbglog_error(webserverLog(), "Load certificate failed: " << reason);
    return false;
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
    if (isHttps() && m_useDeviceCert && m_deviceCertificate.certificateFile().isEmpty()) {
        dbglog_info(webserverLog(), "No device-cert ready to start https server");
        return;
    }
    if (m_port < 0 || m_port > MaximumPort)
        return failed(QStringLiteral("There is no such port"));
    GError* error = nullptr;
    m_running = soup_server_listen_all(m_soupServer, static_cast<guint>(m_port), m_listenOptions, &error);
    if (m_running) {
        deepenBacklog();
        m_connectionTable->start(m_listenOptions);
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

void Server::updateIpAddresses(const QSet<QString>& addresses)
{
    dbglog_scopedFunction(webserverLog());
    if (!isHttps() || !m_useDeviceCert)
        return;
    m_addressesKnown = true;
    m_addresses = addresses;
    m_restartTimer.stop();
    if (m_running)
        stop();
    if (!addresses.isEmpty())
        makeDeviceCertificate();
    Q_EMIT stateChanged();
}

void Server::makeDeviceCertificate()
{
    // Until the library has read the files.
    const auto lock = m_deviceCertificate.lock();
    if (!m_deviceCertificate.renew(m_addresses, &m_lastError))
        return;
    if (applyCertificateFiles(m_deviceCertificate.certificateFile(), m_deviceCertificate.keyFile()))
        start();
}

bool Server::applyCertificateFiles(const QString& certificateFile, const QString& keyFile)
{
    GError* error = nullptr;
    if (soup_server_set_ssl_cert_file(m_soupServer, QFile::encodeName(certificateFile).constData(),
            QFile::encodeName(keyFile).constData(), &error))
        return true;
    m_lastError = QStringLiteral("Apply cert failed: ") + take(error);
    dbglog_error(webserverLog(), m_lastError);
    return false;
}

void Server::setCertificate(const QString& certificatePem, const QString& keyPem, bool renew)
{
    dbglog_scopedFunction(webserverLog());
    const bool same = certificatePem == m_certificatePem && keyPem == m_keyPem;
    if (!isHttps() || (same && !(renew && m_useDeviceCert)))
        return;
    QString error;
    GTlsCertificate* certificate = loadCertificate(certificatePem, keyPem, &error);
    if (!certificate) {
        loadFailed(error);
        return Q_EMIT stateChanged();
    }
    g_object_unref(certificate);
    m_certificatePem = certificatePem;
    m_keyPem = keyPem;
    m_deviceCertificate.setAuthority(certificatePem + keyPem);
    if (m_restartTimer.isActive())
        return; // Requests that keep coming do not put it off.
    m_restartDeadline = QDeadlineTimer(RestartLimitMilliseconds);
    m_restartTimer.start(RestartCheckMilliseconds);
}

void Server::restartWhenIdle()
{
    if (m_connectionTable->isAnswering() && !m_restartDeadline.hasExpired())
        return;
    m_restartTimer.stop();
    if (m_useDeviceCert) {
        // Before the first addresses there is nothing to make anew.
        if (m_addressesKnown)
            updateIpAddresses(m_addresses);
        return;
    }
    const QTemporaryDir directory; // Mode 0700. The library takes a new certificate from files alone.
    const PrivateFile certificate(directory.filePath(QStringLiteral("certificate.pem")));
    const PrivateFile key(directory.filePath(QStringLiteral("key.pem")));
    if (!certificate.create(m_certificatePem.toUtf8(), &m_lastError) || !key.create(m_keyPem.toUtf8(), &m_lastError)) {
        loadFailed(m_lastError);
        return Q_EMIT stateChanged();
    }
    stop();
    if (applyCertificateFiles(certificate.path(), key.path()))
        start();
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
    soup_server_add_early_handler(
        m_soupServer, path.toUtf8().constData(), server_callback, new HandlerData(this, handler), deleteHandlerData);
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
    auto* wrapped = new Message({ server, message, path, query, client }, registration->handler);
    registration->server->dispatch(wrapped, registration->handler);
    if (wrapped->isFinished()) {
        dbglog_debug(webserverLog(), "Message already finished, deleting it directly");
        wrapped->deleteLater();
        return;
    }
    const QMetaObject::Connection connected =
        connect(wrapped, &Message::finished, wrapped, &QObject::deleteLater, Qt::QueuedConnection);
    if (!connected)
        qFatal("connection");
}

void Server::dispatch(Message* message, Handler* handler)
{
    SoupMessageHeaders* fields = message->data().message->request_headers;
    if (!m_language.isEmpty() && soup_message_headers_get_one(fields, "Accept-Language"))
        message->setHeader(QByteArrayLiteral("Content-Language"), m_language.toUtf8());
    const char* field = soup_message_headers_get_one(fields, "Host");
    const QByteArray host = QByteArray::fromRawData(field, field ? static_cast<int>(qstrlen(field)) : 0);
    if (!isAcceptedHost(host)) {
        dbglog_error(webserverLog(), "rejecting message: host=" << host);
        message->setStatus(SOUP_STATUS_FORBIDDEN, QString());
        return;
    }
    handler->handle(message);
}
