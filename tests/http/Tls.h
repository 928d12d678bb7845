#pragma once

#include <QByteArray>
#include <QString>
#include <QStringList>

/// A self-signed certificate for 127.0.0.1 and its key, both PEM. Each call makes another; with a key, for that one.
struct TestCertificate {
    QByteArray certificate;
    QByteArray key;
};
TestCertificate makeCertificate(const QByteArray& key = {});
/// Of a device that serves HTTPS with just that.
QStringList httpsSettings(int port, const TestCertificate& pair);

/// What `openssl s_client` says of 127.0.0.1:`port`, its certificate included.
QByteArray handshake(int port, const QStringList& arguments = {}, const QByteArray& input = {});
/// Whether a handshake there succeeds and the certificate is that authority's (a PEM file) for that address. One that
/// is cut, while the server changes its certificate, is none.
bool isTrusted(int port, const QString& authority, const QString& address = QStringLiteral("127.0.0.1"));
/// The certificate that is served there, PEM; empty when no handshake succeeds.
QByteArray servedCertificate(int port);
/// `openssl x509 -noout` of a certificate, with further arguments; empty when it is none.
QByteArray certificateText(const QByteArray& pem, const QStringList& arguments);
