#include "ServerCertificate.h"

#include <ctime>

#include "CertificatePair.h"
#include "MemoryFile.h"
#include "WebserverLog.h"

namespace {

constexpr int RestartCheckMilliseconds = 20;
constexpr int RestartLimitMilliseconds = 2000;
constexpr int HandshakeCheckMilliseconds = 2;
constexpr int HandshakeLimitMilliseconds = 500;
constexpr int RetryMilliseconds = 60 * 1000;
// Room for clients whose clock differs, and for a device that cannot make a certificate for a while.
constexpr std::time_t RenewalSeconds = 30 * 24 * 3600;

QString take(GError* error)
{
    const QString message = QString::fromUtf8(error->message);
    g_error_free(error);
    return message;
}

/// Null, with the reason in `error`, when the two cannot serve.
GTlsCertificate* certificateFrom(const QString& certificatePem, const QString& keyPem, QString* error)
{
    GError* failure = nullptr;
    const QByteArray pem = joinedPem(certificatePem, keyPem).toUtf8();
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

ServerCertificate::ServerCertificate(
    const QString& certificatePem, const QString& keyPem, bool useDeviceCert, CertificateUser* user)
    : m_certificatePem(certificatePem), m_keyPem(keyPem), m_useDeviceCert(useDeviceCert), m_user(user),
      m_deviceCertificate(joinedPem(certificatePem, keyPem))
{
    dbglog_scopedFunction(webserverLog());
    connect(&m_restartTimer, &QTimer::timeout, this, &ServerCertificate::restartWhenIdle);
}

GTlsCertificate* ServerCertificate::load(const QString& certificatePem, const QString& keyPem, QString* error)
{
    GTlsCertificate* certificate = certificateFrom(certificatePem, keyPem, error);
    if (!certificate)
        dbglog_error(webserverLog(), "Load certificate failed: " << *error);
    return certificate;
}

std::time_t ServerCertificate::end() const
{
    dbglog_scopedFunction(webserverLog());
    return certificateEnd(m_useDeviceCert ? m_deviceCertificate.certificatePem() : m_certificatePem.toUtf8());
}

void ServerCertificate::updateIpAddresses(const QSet<QString>& addresses)
{
    dbglog_scopedFunction(webserverLog());
    if (!m_useDeviceCert)
        return;
    m_addressesKnown = true;
    m_addresses = addresses;
    if (!m_user->isRunning())
        restart();
    else if (!m_isStopping)
        beginStop();
}

void ServerCertificate::replace(const QString& certificatePem, const QString& keyPem, bool renew)
{
    dbglog_scopedFunction(webserverLog());
    const bool same = certificatePem == m_certificatePem && keyPem == m_keyPem;
    if (same && !(renew && m_useDeviceCert))
        return;
    QString error;
    GTlsCertificate* certificate = load(certificatePem, keyPem, &error);
    if (!certificate)
        return m_user->certificateFailed(error);
    g_object_unref(certificate);
    m_certificatePem = certificatePem;
    m_keyPem = keyPem;
    m_deviceCertificate.setAuthority(joinedPem(certificatePem, keyPem));
    if (m_restartTimer.isActive())
        return; // Requests that keep coming do not put it off.
    m_restartDeadline = QDeadlineTimer(RestartLimitMilliseconds);
    m_restartTimer.start(RestartCheckMilliseconds);
}

void ServerCertificate::renewWhenDue()
{
    dbglog_scopedFunction(webserverLog());
    if (m_addresses.isEmpty() || m_restartTimer.isActive())
        return;
    const std::time_t now = std::time(nullptr);
    if (m_user->isRunning() && isCertificateValid(m_deviceCertificate.certificatePem(), now, now + RenewalSeconds))
        return;
    dbglog_info(webserverLog(), "The device certificate is missing, not valid yet, or at its end");
    replace(m_certificatePem, m_keyPem, true);
}

void ServerCertificate::restartWhenIdle()
{
    const bool isIdle = m_isStopping ? m_user->endHandshakes() : !m_user->isAnswering();
    if (!isIdle && !m_restartDeadline.hasExpired())
        return;
    if (m_isStopping || !m_user->isRunning())
        restart();
    else
        beginStop();
}

void ServerCertificate::beginStop()
{
    m_isStopping = true;
    m_restartDeadline = QDeadlineTimer(HandshakeLimitMilliseconds);
    m_restartTimer.start(HandshakeCheckMilliseconds);
    restartWhenIdle();
}

void ServerCertificate::restart()
{
    m_restartTimer.stop();
    m_isStopping = false;
    if (m_user->isRunning())
        m_user->stop();
    if (!m_useDeviceCert)
        startOnOwnCertificate();
    else if (!m_addresses.isEmpty())
        startOnDeviceCertificate();
}

void ServerCertificate::startOnDeviceCertificate()
{
    // Until the library has read the files.
    const auto lock = m_deviceCertificate.lock();
    QString error;
    if (!m_deviceCertificate.renew(m_addresses, &error)) {
        // A full disk or a missing tool may be mended meanwhile; nothing is served until then.
        QTimer::singleShot(RetryMilliseconds, this, &ServerCertificate::renewWhenDue);
        return m_user->certificateFailed(error);
    }
    if (m_user->useCertificateFiles(m_deviceCertificate.certificateFile(), m_deviceCertificate.keyFile()))
        m_user->start();
}

void ServerCertificate::startOnOwnCertificate()
{
    // The library takes a new certificate from files alone.
    const MemoryFile pem(joinedPem(m_certificatePem, m_keyPem));
    if (m_user->useCertificateFiles(pem.path(), pem.path()))
        m_user->start();
}
