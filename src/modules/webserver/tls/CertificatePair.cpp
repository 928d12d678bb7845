#include "CertificatePair.h"

#include <QFile>
#include <QTemporaryDir>

#include "ZarkProcessHandler.h"

namespace {

constexpr int ToolTimeoutMilliseconds = 5000;

/// The public key in `pem`, which `arguments` tell the tool to read from a file; null when there is none.
QByteArray publicKey(const QString& file, const QString& pem, QStringList arguments)
{
    QFile out(file);
    const QByteArray text = pem.toUtf8();
    if (!out.open(QIODevice::WriteOnly) || out.write(text) != text.size())
        return {};
    out.close();
    arguments << QStringLiteral("-in") << file;
    const ZarkProcessResult result =
        ZarkProcessHandler::startSync(QStringLiteral("openssl"), arguments, ToolTimeoutMilliseconds);
    return result.finishedOk() ? result.getData() : QByteArray();
}

} // namespace

QString certificatePairFault(const QString& certificatePem, const QString& keyPem)
{
    const QTemporaryDir directory; // Mode 0700: a key goes in.
    QByteArray certified;
    QByteArray owned;
    if (!certificatePem.isEmpty()) {
        certified = publicKey(directory.filePath(QStringLiteral("certificate.pem")), certificatePem,
            { QStringLiteral("x509"), QStringLiteral("-noout"), QStringLiteral("-pubkey") });
        if (certified.isEmpty())
            return QStringLiteral("The certificate is not readable as PEM");
    }
    if (!keyPem.isEmpty()) {
        // With a password given, the tool does not ask for one.
        owned = publicKey(directory.filePath(QStringLiteral("key.pem")), keyPem,
            { QStringLiteral("pkey"), QStringLiteral("-pubout"), QStringLiteral("-passin"), QStringLiteral("pass:") });
        if (owned.isEmpty())
            return QStringLiteral("The private key is not readable as PEM without a password");
    }
    const bool isPair = certified.isEmpty() || owned.isEmpty() || certified == owned;
    return isPair ? QString() : QStringLiteral("The certificate does not belong to the private key");
}
