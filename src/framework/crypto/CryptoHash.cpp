#include "CryptoHash.h"

#include <memory>

#include <openssl/core_names.h>
#include <openssl/evp.h>
#include <openssl/params.h>

namespace {

struct FreeContext {
    void operator()(EVP_MAC_CTX* context) const { EVP_MAC_CTX_free(context); }
};

/// One algorithm, looked up once and kept: the search costs more than the digest of a short text. Null where OpenSSL
/// lacks it.
class Digest {
public:
    explicit Digest(const char* name) : m_digest(EVP_MD_fetch(nullptr, name, nullptr))
    {
        EVP_MAC* const hmac = EVP_MAC_fetch(nullptr, "HMAC", nullptr);
        m_hmac = EVP_MAC_CTX_new(hmac);
        EVP_MAC_free(hmac);
        const OSSL_PARAM digest = OSSL_PARAM_construct_utf8_string(OSSL_MAC_PARAM_DIGEST, const_cast<char*>(name), 0);
        const OSSL_PARAM parameters[]{ digest, OSSL_PARAM_construct_end() };
        if (m_hmac && !EVP_MAC_CTX_set_params(m_hmac, parameters))
            m_hmac = nullptr;
    }

    static const Digest& of(CryptoHash::Algorithm algorithm)
    {
        static const Digest md5("MD5");
        static const Digest sha1("SHA1");
        static const Digest sha256("SHA256");
        static const Digest sha512("SHA512");
        switch (algorithm) {
        case CryptoHash::Md5:
            return md5;
        case CryptoHash::Sha1:
            return sha1;
        case CryptoHash::Sha256:
            return sha256;
        case CryptoHash::Sha512:
            break;
        }
        return sha512;
    }

    const EVP_MD* digest() const { return m_digest; }
    std::unique_ptr<EVP_MAC_CTX, FreeContext> hmac() const
    {
        return std::unique_ptr<EVP_MAC_CTX, FreeContext>(m_hmac ? EVP_MAC_CTX_dup(m_hmac) : nullptr);
    }

private:
    const EVP_MD* m_digest;
    EVP_MAC_CTX* m_hmac;
};

const uchar* bytes(const QByteArray& array)
{
    return reinterpret_cast<const uchar*>(array.constData());
}

size_t sizeOf(const QByteArray& array)
{
    return static_cast<size_t>(array.size());
}

} // namespace

bool CryptoHash::hash(Algorithm algorithm, const QByteArray& data, QByteArray* out)
{
    QByteArray digest(EVP_MAX_MD_SIZE, Qt::Uninitialized);
    const EVP_MD* const type = Digest::of(algorithm).digest();
    unsigned int size = 0;
    const bool ok =
        type && EVP_Digest(bytes(data), sizeOf(data), reinterpret_cast<uchar*>(digest.data()), &size, type, nullptr);
    digest.truncate(ok ? static_cast<int>(size) : 0);
    *out = digest;
    return ok;
}

bool CryptoHash::hmac(Algorithm algorithm, const QByteArray& key, const QByteArray& data, QByteArray* out)
{
    QByteArray digest(EVP_MAX_MD_SIZE, Qt::Uninitialized);
    const auto context = Digest::of(algorithm).hmac();
    size_t size = 0;
    const bool ok = context && EVP_MAC_init(context.get(), bytes(key), sizeOf(key), nullptr)
        && EVP_MAC_update(context.get(), bytes(data), sizeOf(data))
        && EVP_MAC_final(context.get(), reinterpret_cast<uchar*>(digest.data()), &size, sizeOf(digest));
    digest.truncate(ok ? static_cast<int>(size) : 0);
    *out = digest;
    return ok;
}
