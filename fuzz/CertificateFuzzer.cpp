#include <cstdint>

#include "CertificatePair.h"
#include "DeviceCertificate.h"
#include "Expect.h"
#include "dbglog.h"

namespace {

/// The name is the device's own, whatever the authority calls itself, and there is one subject.
void readSubject(const QByteArray& answer)
{
    const QString subject = DeviceCertificate::subjectFrom(answer);
    expect(subject.count(QStringLiteral("/CN=Tidekit-device")) >= 1);
}

/// An address adds no line to a certificate's extensions.
void readAddress(const QByteArray& address)
{
    const QByteArray without = DeviceCertificate::extensions({});
    const QByteArray with = DeviceCertificate::extensions({ QString::fromUtf8(address) });
    expect(with.count('\n') == without.count('\n') && with.count('=') == without.count('='));
}

void readPair(const QByteArray& pem)
{
    const QString text = QString::fromLatin1(pem);
    isCertificateValid(pem, 0, 1);
    certificatePairFault(text, text);
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    DbgLogger::configure(QStringLiteral("off"), false);
    return 0;
}

/// What the authority's certificate and key, the tool's answer about it and the device's addresses bring along.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const QByteArray text(reinterpret_cast<const char*>(data), static_cast<int>(size));
    if (text.startsWith("-----BEGIN")) {
        readPair(text);
    } else {
        readSubject(text);
        readAddress(text);
    }
    return 0;
}
