#pragma once

#include <QString>

/// Why a certificate and a private key, both PEM, cannot serve together; empty when they can. The HTTP library would
/// take them, and every handshake would fail. An empty certificate or key is not looked at, so that a pair can be
/// replaced one after the other. Runs the system's `openssl`, a few milliseconds a run.
QString certificatePairFault(const QString& certificatePem, const QString& keyPem);
