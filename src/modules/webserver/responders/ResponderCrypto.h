#pragma once

#include <QByteArray>
#include <QSharedPointer>
#include <QString>
#include <QVariant>

#include <functional>

#include "ZarkJson.h"
#include "ZarkWebserverUser.h"

/// Checks that a request was signed by a web user, and opens the values that the user encrypted.
///
/// Authorization: SCHEME base64(user) "." salt "." timestamp "." signature
///
/// SCHEME is HMAC_SHA256, or HMAC_SHA256_AES256 when values are encrypted too, in any letter case; salt and signature
/// are Base64 (RFC 4648, section 4); the timestamp is the client's clock in milliseconds since the epoch. The key is
/// SHA-256(salt bytes, password in UTF-8), and the signature is HMAC-SHA-256 (RFC 2104) under that key of
/// user "." salt as sent "." timestamp "." data.
///
/// One object a request, on the worker's thread.
class ResponderCrypto {
public:
    struct AuthorizationHeaderFields {
        QString scheme; ///< Lower-case.
        QString user;
        QByteArray salt; ///< As sent.
        qint64 timestamp = 0;
        QByteArray signature; ///< As sent.
    };

    static constexpr const char* AdvertisedSchemes = "HMAC_SHA256, HMAC_SHA256_AES256"; ///< For WWW-Authenticate.

    /// Never fails: what is missing is empty.
    static AuthorizationHeaderFields splitAuthorizationHeader(const QByteArray& header);
    /// A checker that says no to everything for an unknown scheme. `maximumValues` bounds the JSON that it opens;
    /// `warnsOfClock` is asked whether a wrong clock of the client is worth a warning (it always is without).
    static QSharedPointer<ResponderCrypto> create(const AuthorizationHeaderFields& fields,
        const ZarkWebserverUser& user, int maximumValues = ZarkJson::AnyNumber,
        const std::function<bool()>& warnsOfClock = {});

    /// Whether the signature is that of `data` under the user's key; false for an unknown user.
    virtual bool authenticate(const QByteArray& data) = 0;
    /// The plain value of what the client sent: `value` itself in the scheme that does not encrypt, otherwise the JSON
    /// inside the Base64 text of IV and cipher text. `ok` (may be null) tells; on failure the result is invalid.
    virtual QVariant decrypt(const QVariant& value, bool* ok) = 0;
    virtual ~ResponderCrypto() = default;
};
