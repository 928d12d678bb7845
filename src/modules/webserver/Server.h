#pragma once

#include <QObject>
#include <QSet>
#include <QString>

#include <libsoup/soup.h>

#include <memory>

#include "ServerCertificate.h"

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
///    server_callback(), which wraps the exchange in a Request: the Message of its whole life.
/// 4. filter: a Host field that names a foreign domain is answered 403 here.
/// 5. handler: the registration's Handler answers at once, or
/// 6. pause: a ResponderHandler pauses the exchange and goes on from the event loop, where it makes a
/// 7. responder with the Request as its input. The responder asks the framework, sets status, headers and body, or
///    streams the body into a ServerMessageDevice, and emits finished(id).
/// 8. completion: the handler ends what was streamed and resumes the exchange; the library sends it.
/// 9. finished: the library reports the exchange sent, or the client gone, whichever comes first and at any of the
///    steps above; Message::finished() tells everybody who still works on it.
/// 10. deletion: the responder when it is done, the request after it; later, from the event loop.
class Server : public QObject, private CertificateUser {
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
    bool isRunning() const override { return m_running; }
    bool isHttps() const { return m_listenOptions & SOUP_SERVER_LISTEN_HTTPS; }
    SoupServer* soupServer() const { return m_soupServer; }
    const QString& lastError() const { return m_lastError; } ///< Why the last start() failed.

    /// Listens on all interfaces. An HTTPS server that still waits for its device certificate stays stopped.
    void start() override;
    /// Stops listening and cuts every connection.
    void stop() override;
    /// For good: takes no new connection and no new request, and answers those that it has. Stays running meanwhile.
    void drain();

    /// Registers `handler` for every path that starts with `path`, in place of an earlier one, which is deleted.
    void addHandler(const QString& path, Handler* handler);
    /// The same, but called when the head has been read and the body has not; without a body, for POST alone.
    void addEarlyHandler(const QString& path, Handler* handler);
    void pauseMessage(bool pause, Message* message);

    const QString& language() const { return m_language; }
    /// Makes the device certificate for these addresses and serves it; stopped meanwhile, and after a failure. An empty
    /// set stops the server. Only for HTTPS on the device certificate. Blocks: several runs of `openssl`. A running
    /// server first cuts those who shake hands, and stops some milliseconds later.
    void updateIpAddresses(const QSet<QString>& addresses);
    /// Serves another certificate, or makes the device certificate anew with this authority, once nobody waits for an
    /// answer, 2 s from now at the latest. The library binds a certificate to a listener, and gives no listener up
    /// without its connections: idle ones are cut, and so is an answer that takes longer. What cannot be used leaves
    /// everything as it is, and is logged. Nothing happens for the certificate in use, except that with `renew` a
    /// device certificate is made anew.
    void setCertificate(const QString& certificatePem, const QString& keyPem, bool renew);
    /// Makes a device certificate anew that today's date is not in, or only for another month, and tries again to make
    /// one that could not be made. For whenever the clock was set, and now and then.
    void checkCertificate();
    std::time_t certificateEnd() const
    {
        return m_certificate ? m_certificate->end() : 0;
    } ///< ServerCertificate::end().
    ConnectionTable& connectionTable() const { return *m_connectionTable; } ///< Of one that is ok().
    /// Still waiting for its first updateIpAddresses().
    bool waitsForAddresses() const { return m_certificate && m_certificate->waitsForAddresses(); }

    /// Announced as Content-Language to clients that send Accept-Language; empty: to none.
    void setLanguage(const QString& language) { m_language = language; }
    /// RequestGuard::setStrictTransport(); without effect on plain HTTP.
    void setStrictTransport(int seconds);

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
    static void early_server_callback(SoupServer* server, SoupMessage* message, const char* path, GHashTable* query,
        SoupClientContext* client, gpointer handlerData);
    static void deleteHandlerData(gpointer handlerData);

    bool isAnswering() const override;
    bool endHandshakes() override;
    bool useCertificateFiles(const QString& certificateFile, const QString& keyFile) override;
    void certificateFailed(const QString& reason) override;

    static SoupServer* createHttpServer();
    SoupServer* createHttpsServer();
    void failed(const QString& reason);
    void deepenBacklog();
    void dispatch(Message* message, Handler* handler);

    SoupServer* m_soupServer = nullptr;
    int m_port;
    bool m_running = false;
    bool m_draining = false;
    QString m_language;
    QByteArray m_acceptedHost; ///< The last one: most clients name the same.
    QString m_lastError;
    SoupServerListenOptions m_listenOptions = static_cast<SoupServerListenOptions>(0);
    std::unique_ptr<ServerCertificate> m_certificate; ///< Null on plain HTTP.
    std::unique_ptr<ConnectionTable> m_connectionTable;
    std::unique_ptr<RequestGuard> m_requestGuard;
};
