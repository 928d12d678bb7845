#include "CryptoAes.h"

#include <memory>

#include <openssl/evp.h>

namespace {

constexpr int KeySize = 32;
constexpr int BlockSize = 16;

struct FreeContext {
    void operator()(EVP_CIPHER_CTX* context) const { EVP_CIPHER_CTX_free(context); }
};

const uchar* bytes(const QByteArray& array)
{
    return reinterpret_cast<const uchar*>(array.constData());
}

enum Direction { Decrypt = 0, Encrypt = 1 }; // As EVP_CipherInit_ex() numbers them.

/// AES-256-CBC with PKCS #7 padding; false when OpenSSL fails, which for a cipher text means bad padding.
bool transform(Direction direction, const QByteArray& key, const QByteArray& iv, const QByteArray& in, QByteArray& out)
{
    const std::unique_ptr<EVP_CIPHER_CTX, FreeContext> context(EVP_CIPHER_CTX_new());
    out.resize(in.size() + BlockSize);
    uchar* const target = reinterpret_cast<uchar*>(out.data());
    int size = 0;
    int rest = 0;
    const bool ok = context
        && EVP_CipherInit_ex(context.get(), EVP_aes_256_cbc(), nullptr, bytes(key), bytes(iv), direction)
        && EVP_CipherUpdate(context.get(), target, &size, bytes(in), in.size())
        && EVP_CipherFinal_ex(context.get(), target + size, &rest);
    out.truncate(ok ? size + rest : 0);
    return ok;
}

bool isUsable(CryptoAes::Mode mode, const QByteArray& key, const QByteArray& iv)
{
    return mode == CryptoAes::CbcPkcs7 && key.size() == KeySize && iv.size() == BlockSize;
}

} // namespace

int CryptoAes::keySize()
{
    return KeySize;
}

int CryptoAes::ivSize()
{
    return BlockSize;
}

bool CryptoAes::decrypt(
    Mode mode, const QByteArray& key, const QByteArray& iv, const QByteArray& cipherText, QByteArray* out)
{
    QByteArray plainText; // Apart from *out, which may be the cipher text itself.
    const bool isWhole = !cipherText.isEmpty() && cipherText.size() % BlockSize == 0;
    const bool ok = isUsable(mode, key, iv) && isWhole && transform(Decrypt, key, iv, cipherText, plainText);
    *out = plainText;
    return ok;
}

bool CryptoAes::encrypt(
    Mode mode, const QByteArray& key, const QByteArray& iv, const QByteArray& plainText, QByteArray* out)
{
    QByteArray cipherText;
    const bool ok = isUsable(mode, key, iv) && transform(Encrypt, key, iv, plainText, cipherText);
    *out = cipherText;
    return ok;
}
