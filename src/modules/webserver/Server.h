#pragma once

#include <QDeadlineTimer>
#include <QObject>
#include <QSet>
#include <QString>
#include <QTimer>

#include <libsoup/soup.h>

#include <memory>

#include "DeviceCertificate.h"

class ConnectionTable;
class Handler;
class Message;
class RequestGuard;
struct ServerLimits;

/// One HTTP or HTTPS server on one port, and the handlers registered on it, which it owns.
///
/// The life of a request, in call order:
///
/// 1. accept: the library accepts a connection; ConnectionTable counts it and gives it a deadline.
/// 2. guard: RequestGuard looks at the parsed head, and refuses what the library itself would not survive.
/// 3. dispatch: the library reads the body, picks the registration with the longest matching path prefix and calls
///    server_callback(), which wraps the exchange in a Message.
/// 4. filter: a Host field that names a foreign domain is answered 403 here.
/// 5. handler: the registration's Handler answers at once, or
/// 6. pause: a ResponderHandler pauses the exchange and goes on from the event loop, where it makes a
/// 7. responder with a Request as its input and a ServerMessageDevice as its output. The responder asks the framework,
///    writes status, headers and body, and emits finished(id).
/// 8. device: the handler closes the device, which completes the body and resumes the exchange; the library sends it.
/// 9. finished: the library reports the exchange sent, or the client gone, whichever comes first and at any of the
///    steps above; Message::finished() tells everybody who still works on it.
/// 10. deletion: responder, request, devices and message are deleted later, from the event loop.
class Server : public QObject {
    Q_OBJECT
public:
    /// Plain HTTP when `certificatePem` or `keyPem` is empty; otherwise HTTPS, with these two or, with
    /// `useDeviceCert`, with a certificate that updateIpAddresses() makes. ok() is false when they cannot be used.
    Server(int port, const QString& certificatePem, const QString& keyPem, bool useDeviceCert,
        const ServerLimits& limits, QObject* parent);
    ~Server() override;

    bool ok() const { return m_soupServer != nullptr; }
    int port() const { return m_port; } ///< As asked for; 0 lets the system choose.
    int listeningPort() const; ///< The port in use; 0 while the server does not run.
    bool isRunning() const { return m_running; }
    bool isHttps() const { return m_listenOptions & SOUP_SERVER_LISTEN_HTTPS; }
    SoupServer* soupServer() const { return m_soupServer; }
    const QString& lastError() const { return m_lastError; } ///< Why the last start() failed.

    /// Listens on all interfaces. An HTTPS server that still waits for its device certificate stays stopped.
    void start();
    /// Stops listening and cuts every connection.
    void stop();

    /// Registers `handler` for every path that starts with `path`, in place of an earlier one, which is deleted.
    void addHandler(const QString& path, Handler* handler);
    /// The same, but called when the head has been read and the body has not.
    void addEarlyHandler(const QString& path, Handler* handler);
    void pauseMessage(bool pause, Message* message);

    const QString& language() const { return m_language; }
    /// Makes the device certificate for these addresses and serves it; stopped meanwhile, and after a failure. An empty
    /// set stops the server. Only for HTTPS on the device certificate. Blocks: several runs of `openssl`.
    void updateIpAddresses(const QSet<QString>& addresses);
    /// Serves another certificate, or makes the device certificate anew with this authority, once nobody waits for an
    /// answer, 2 s from now at the latest. The library binds a certificate to a listener, and gives no listener up
    /// without its connections: idle ones are cut, and so is an answer that takes longer. What cannot be used leaves
    /// everything as it is, and is logged. Nothing happens for the certificate in use, except that with `renew` a
    /// device certificate is made anew.
    void setCertificate(const QString& certificatePem, const QString& keyPem, bool renew);
    /// Still waiting for its first updateIpAddresses().
    bool waitsForAddresses() const { return isHttps() && m_useDeviceCert && !m_addressesKnown; }

    /// Announced as Content-Language to clients that send Accept-Language; empty: to none.
    void setLanguage(const QString& language) { m_language = language; }

Q_SIGNALS:
    void stateChanged(); ///< isRunning() or lastError() may have changed.

private:
    struct HandlerData {
        Server* server;
        Handler* handler;

        HandlerData(Server* owner, Handler* target) : server(owner), handler(target) { }
        ~HandlerData();
        HandlerData(const HandlerData&) = delete;
        HandlerData& operator=(const HandlerData&) = delete;
    };

    static void server_callback(SoupServer* server, SoupMessage* message, const char* path, GHashTable* query,
        SoupClientContext* client, gpointer handlerData);
    static void deleteHandlerData(gpointer handlerData);

    SoupServer* createSoupServer();
    bool loadFailed(const QString& reason);
    void failed(const QString& reason);
    bool applyCertificateFiles(const QString& certificateFile, const QString& keyFile);
    void makeDeviceCertificate();
    void restartWhenIdle();
    void deepenBacklog();
    void dispatch(Message* message, Handler* handler);

    SoupServer* m_soupServer = nullptr;
    int m_port;
    bool m_running = false;
    QString m_certificatePem;
    QString m_keyPem;
    bool m_useDeviceCert;
    bool m_addressesKnown = false;
    QSet<QString> m_addresses; ///< Of the last updateIpAddresses().
    DeviceCertificate m_deviceCertificate;
    QTimer m_restartTimer; ///< Runs while a new certificate waits for the answers under way.
    QDeadlineTimer m_restartDeadline;
    QString m_language;
    QString m_lastError;
    SoupServerListenOptions m_listenOptions = static_cast<SoupServerListenOptions>(0);
    std::unique_ptr<ConnectionTable> m_connectionTable;
    std::unique_ptr<RequestGuard> m_requestGuard;
};
