#pragma once

#include <QByteArray>

/// AES with a 256-bit key (FIPS 197).
class CryptoAes {
public:
    enum Mode {
        Ecb = 0, ///< Reserved by the wire format; every call with it fails.
        CbcPkcs7 = 1, ///< CBC (NIST SP 800-38A) with PKCS #7 padding (RFC 5652, section 6.3).
    };

    static int keySize(); ///< 32 bytes.
    static int ivSize(); ///< 16 bytes.

    /// False, with `out` empty, for another mode, a key or IV of another size, or a cipher text that is empty, no
    /// multiple of 16 bytes or badly padded.
    static bool decrypt(
        Mode mode, const QByteArray& key, const QByteArray& iv, const QByteArray& cipherText, QByteArray* out);
    /// False, with `out` empty, for another mode or a key or IV of another size.
    static bool encrypt(
        Mode mode, const QByteArray& key, const QByteArray& iv, const QByteArray& plainText, QByteArray* out);
};
