#pragma once

#include <QByteArray>
#include <QCryptographicHash>

/// Digests and keyed digests (FIPS 180-4, RFC 2104).
class CryptoHash {
public:
    enum Algorithm {
        Md5 = QCryptographicHash::Md5, ///< For validators only, never for secrets.
        Sha1 = QCryptographicHash::Sha1,
        Sha256 = QCryptographicHash::Sha256,
        Sha512 = QCryptographicHash::Sha512,
    };

    // False, with an empty `out`, where OpenSSL does not have the algorithm.

    /// Writes the raw digest of `data` to `out`.
    static bool hash(Algorithm algorithm, const QByteArray& data, QByteArray* out);
    /// Writes the raw HMAC of `data` under `key` to `out`.
    static bool hmac(Algorithm algorithm, const QByteArray& key, const QByteArray& data, QByteArray* out);
};
