#pragma once

#include <QByteArray>
#include <QString>

#include <ctime>

// Certificates and private keys, all PEM, looked at in this process: nothing is written anywhere, and nothing blocks.

/// Why a certificate (the first of a chain) and a private key cannot serve together; empty when they can. The HTTP
/// library would take them, and every handshake would fail. An empty certificate or key is not looked at, so that a
/// pair can be replaced one after the other.
QString certificatePairFault(const QString& certificatePem, const QString& keyPem);

/// Whether the certificate (the first of a chain) is valid at `from`, at `until` and in between. False for no PEM.
bool isCertificateValid(const QByteArray& certificatePem, std::time_t from, std::time_t until);

/// The last moment at which the certificate (the first of a chain) is valid; 0 for no PEM.
std::time_t certificateEnd(const QByteArray& certificatePem);

/// The two in one text, the key on a line of its own whether or not the certificate ends with a line end.
QString joinedPem(const QString& certificatePem, const QString& keyPem);
