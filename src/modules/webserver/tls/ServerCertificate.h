#pragma once

#include <QDeadlineTimer>
#include <QObject>
#include <QSet>
#include <QString>
#include <QTimer>

#include <gio/gio.h>

#include <ctime>

#include "DeviceCertificate.h"

/// The HTTPS server, as its certificate knows it.
class CertificateUser {
public:
    virtual bool isRunning() const = 0;
    virtual bool isAnswering() const = 0; ///< Some client has no full answer yet.
    virtual void start() = 0;
    virtual bool endHandshakes() = 0; ///< Cuts them. True when there is none any more, and stop() loses nothing.
    virtual void stop() = 0;
    /// Serves what these files hold from the next start() on, and needs them no longer when it returns. False, with the
    /// failure logged, when they cannot be used.
    virtual bool useCertificateFiles(const QString& certificateFile, const QString& keyFile) = 0;
    virtual void certificateFailed(const QString& reason) = 0; ///< Logged already.

protected:
    ~CertificateUser() = default;
};

/// The certificate of an HTTPS server and its life: the server's own as it was configured, or one that the device makes
/// for its addresses; what replaces it, and when the server restarts for that.
class ServerCertificate : public QObject {
public:
    /// Both texts are PEM: the server's own or, with `useDeviceCert`, the authority's. `user` outlives this object.
    ServerCertificate(const QString& certificatePem, const QString& keyPem, bool useDeviceCert, CertificateUser* user);

    bool isDeviceCert() const { return m_useDeviceCert; }
    /// Still without the certificate that updateIpAddresses() makes.
    bool isMissing() const { return m_useDeviceCert && m_deviceCertificate.certificateFile().isEmpty(); }
    /// When the one that is served ends, in seconds since the epoch; 0 when there is none.
    std::time_t end() const;
    bool waitsForAddresses() const { return m_useDeviceCert && !m_addressesKnown; }
    /// What the server serves from its first start on; the caller owns it. Null, with the reason in `error` and logged,
    /// when the two texts cannot serve.
    GTlsCertificate* load(QString* error) const { return load(m_certificatePem, m_keyPem, error); }

    void updateIpAddresses(const QSet<QString>& addresses); ///< Server tells the story.
    void replace(const QString& certificatePem, const QString& keyPem, bool renew); ///< Server::setCertificate().
    void renewWhenDue(); ///< Server::checkCertificate().
    void keep() { m_restartTimer.stop(); } ///< For good: a restart that waits is given up.

private:
    static GTlsCertificate* load(const QString& certificatePem, const QString& keyPem, QString* error);
    void restartWhenIdle();
    void beginStop();
    void restart();
    void startOnDeviceCertificate();
    void startOnOwnCertificate();

    QString m_certificatePem;
    QString m_keyPem;
    bool m_useDeviceCert;
    CertificateUser* m_user;
    bool m_addressesKnown = false;
    QSet<QString> m_addresses; ///< Of the last updateIpAddresses().
    DeviceCertificate m_deviceCertificate;
    QTimer m_restartTimer; ///< Runs while a restart waits for answers, then for handshakes.
    bool m_isStopping = false; ///< The restart waits for handshakes.
    QDeadlineTimer m_restartDeadline;
};
