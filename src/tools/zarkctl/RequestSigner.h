#pragma once

#include <QByteArray>
#include <QString>

/// Signs requests as one user of the device, and encrypts what must not be read on the way.
///
/// The key is SHA-256(salt, password); the signature is HMAC-SHA-256 over "user.salt.time.data" under it. The password
/// itself never travels. One salt serves all requests of a run.
class RequestSigner {
public:
    /// A fresh random salt.
    RequestSigner(const QString& user, const QString& password);

    /// The Authorization header's value, for now. `data` is the full URI and, for a POST, "." and the body.
    QByteArray authorization(const QByteArray& data) const { return header("HMAC_SHA256", data); }
    /// The same for a request whose value is encrypted.
    QByteArray encryptedAuthorization(const QByteArray& data) const { return header("HMAC_SHA256_AES256", data); }

    /// Base64 of a random initialisation vector and the AES-256-CBC cipher text under the signing key. Throws a Failure
    /// when the crypto library refuses.
    QByteArray encrypt(const QByteArray& plainText) const;

private:
    QByteArray header(const QByteArray& scheme, const QByteArray& data) const;

    QByteArray m_user;
    QByteArray m_salt; ///< Base64, as it is sent and signed.
    QByteArray m_key;
};
