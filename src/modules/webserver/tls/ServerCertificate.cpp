#include "ServerCertificate.h"

#include <QTemporaryDir>

#include "CertificatePair.h"
#include "WebserverLog.h"

namespace {

constexpr int RestartCheckMilliseconds = 20;
constexpr int RestartLimitMilliseconds = 2000;

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

void logLoadFailure(const QString& reason)
{
    dbglog_error(webserverLog(), "Load certificate failed: " << reason);
}

} // namespace

ServerCertificate::ServerCertificate(
    const QString& certificatePem, const QString& keyPem, bool useDeviceCert, CertificateUser* user)
    : m_certificatePem(certificatePem), m_keyPem(keyPem), m_useDeviceCert(useDeviceCert), m_user(user),
      m_deviceCertificate(certificatePem + keyPem)
{
    dbglog_scopedFunction(webserverLog());
    connect(&m_restartTimer, &QTimer::timeout, this, &ServerCertificate::restartWhenIdle);
}

GTlsCertificate* ServerCertificate::load(const QString& certificatePem, const QString& keyPem, QString* error)
{
    GTlsCertificate* certificate = certificateFrom(certificatePem, keyPem, error);
    if (!certificate)
        logLoadFailure(*error);
    return certificate;
}

void ServerCertificate::updateIpAddresses(const QSet<QString>& addresses)
{
    dbglog_scopedFunction(webserverLog());
    if (!m_useDeviceCert)
        return;
    m_addressesKnown = true;
    m_addresses = addresses;
    m_restartTimer.stop();
    if (m_user->isRunning())
        m_user->stop();
    if (!addresses.isEmpty())
        makeDeviceCertificate();
}

void ServerCertificate::makeDeviceCertificate()
{
    // Until the library has read the files.
    const auto lock = m_deviceCertificate.lock();
    QString error;
    if (!m_deviceCertificate.renew(m_addresses, &error))
        return m_user->certificateFailed(error);
    if (m_user->useCertificateFiles(m_deviceCertificate.certificateFile(), m_deviceCertificate.keyFile()))
        m_user->start();
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
    m_deviceCertificate.setAuthority(certificatePem + keyPem);
    if (m_restartTimer.isActive())
        return; // Requests that keep coming do not put it off.
    m_restartDeadline = QDeadlineTimer(RestartLimitMilliseconds);
    m_restartTimer.start(RestartCheckMilliseconds);
}

void ServerCertificate::restartWhenIdle()
{
    if (m_user->isAnswering() && !m_restartDeadline.hasExpired())
        return;
    m_restartTimer.stop();
    if (!m_useDeviceCert)
        return restartWithOwnCertificate();
    // Before the first addresses there is nothing to make anew.
    if (m_addressesKnown)
        updateIpAddresses(m_addresses);
}

void ServerCertificate::restartWithOwnCertificate()
{
    const QTemporaryDir directory; // Mode 0700. The library takes a new certificate from files alone.
    const PrivateFile certificate(directory.filePath(QStringLiteral("certificate.pem")));
    const PrivateFile key(directory.filePath(QStringLiteral("key.pem")));
    QString error;
    if (!certificate.create(m_certificatePem.toUtf8(), &error) || !key.create(m_keyPem.toUtf8(), &error)) {
        logLoadFailure(error);
        return m_user->certificateFailed(error);
    }
    m_user->stop();
    if (m_user->useCertificateFiles(certificate.path(), key.path()))
        m_user->start();
}
