#include "CertificatePair.h"

#include <memory>

#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/x509.h>

namespace {

template <auto function> struct Free {
    template <class T> void operator()(T* object) const { function(object); }
};
using Bio = std::unique_ptr<BIO, Free<BIO_free>>;
using Certificate = std::unique_ptr<X509, Free<X509_free>>;
using Key = std::unique_ptr<EVP_PKEY, Free<EVP_PKEY_free>>;

Bio reader(const QByteArray& pem)
{
    return Bio(BIO_new_mem_buf(pem.constData(), pem.size()));
}

Certificate certificateFrom(const QByteArray& pem)
{
    return Certificate(PEM_read_bio_X509(reader(pem).get(), nullptr, nullptr, nullptr));
}

Key keyFrom(const QByteArray& pem)
{
    // Without this the library would ask for a password on the terminal.
    const auto noPassword = [](char*, int, int, void*) {
        return -1;
    };
    return Key(PEM_read_bio_PrivateKey(reader(pem).get(), nullptr, noPassword, nullptr));
}

QString findFault(const QByteArray& certificatePem, const QByteArray& keyPem)
{
    const Certificate certificate = certificateFrom(certificatePem);
    if (!certificate && !certificatePem.isEmpty())
        return QStringLiteral("The certificate is not readable as PEM");
    const Key key = keyFrom(keyPem);
    if (!key && !keyPem.isEmpty())
        return QStringLiteral("The private key is not readable as PEM without a password");
    if (certificate && key && X509_check_private_key(certificate.get(), key.get()) != 1)
        return QStringLiteral("The certificate does not belong to the private key");
    return {};
}

} // namespace

QString certificatePairFault(const QString& certificatePem, const QString& keyPem)
{
    const QString fault = findFault(certificatePem.toUtf8(), keyPem.toUtf8());
    ERR_clear_error(); // Others on this thread look there for their own.
    return fault;
}

bool isCertificateValid(const QByteArray& certificatePem, std::time_t from, std::time_t until)
{
    const Certificate certificate = certificateFrom(certificatePem);
    ERR_clear_error();
    return certificate && X509_cmp_time(X509_get0_notBefore(certificate.get()), &from) < 0
        && X509_cmp_time(X509_get0_notAfter(certificate.get()), &until) > 0;
}

std::time_t certificateEnd(const QByteArray& certificatePem)
{
    const Certificate certificate = certificateFrom(certificatePem);
    ERR_clear_error();
    std::tm end = {};
    return certificate && ASN1_TIME_to_tm(X509_get0_notAfter(certificate.get()), &end) == 1 ? ::timegm(&end) : 0;
}

QString joinedPem(const QString& certificatePem, const QString& keyPem)
{
    return certificatePem + QLatin1Char('\n') + keyPem;
}
