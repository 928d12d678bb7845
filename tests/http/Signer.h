#pragma once

#include <QByteArray>

/// Signs requests from the description of the Authorization field alone, with Qt and OpenSSL: nothing of the server's
/// own code is in it.
class Signer {
public:
    Signer(const QByteArray& user, const QByteArray& password, const QByteArray& scheme = "HMAC_SHA256");

    /// "Authorization: ..." over the full URI.
    QByteArray forGet(const QByteArray& fullUri) const { return authorization(fullUri); }
    /// "Authorization: ..." over full URI "." body.
    QByteArray forPost(const QByteArray& uri, const QByteArray& body) const { return authorization(uri + '.' + body); }
    /// Base64 of IV and AES-256-CBC cipher text of a JSON text, under the key that goes with this signer's salt.
    QByteArray encrypt(const QByteArray& json) const;

    void setTimestamp(qint64 milliseconds) { m_timestamp = milliseconds; }

private:
    QByteArray key() const;
    QByteArray authorization(const QByteArray& data) const;

    QByteArray m_user;
    QByteArray m_password;
    QByteArray m_scheme;
    QByteArray m_salt;
    qint64 m_timestamp;
};
