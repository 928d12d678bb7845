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

    /// Writes the raw digest of `data` to `out`. Always true.
    static bool hash(Algorithm algorithm, const QByteArray& data, QByteArray* out);
    /// Writes the raw HMAC of `data` under `key` to `out`. Always true.
    static bool hmac(Algorithm algorithm, const QByteArray& key, const QByteArray& data, QByteArray* out);
};
