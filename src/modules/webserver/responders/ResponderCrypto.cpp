#include "ResponderCrypto.h"

#include <QDateTime>

#include "CryptoAes.h"
#include "CryptoHash.h"
#include "WebserverLog.h"

namespace {

constexpr qint64 UnremarkableTimeDifference = 1000; // milliseconds

class ResponderCryptoHmacSha256 : public ResponderCrypto {
public:
    ResponderCryptoHmacSha256(const AuthorizationHeaderFields& fields, const ZarkWebserverUser& user, bool encrypt,
        int maximumValues, const std::function<bool()>& warnsOfClock)
        : m_fields(fields), m_user(user), m_encrypt(encrypt), m_maximumValues(maximumValues),
          m_warnsOfClock(warnsOfClock)
    {
        CryptoHash::hash(CryptoHash::Sha256, QByteArray::fromBase64(fields.salt) + user.password().toUtf8(), &m_key);
    }

    bool authenticate(const QByteArray& data) override;
    QVariant decrypt(const QVariant& value, bool* ok) override;

private:
    void logTimeDifference() const;

    AuthorizationHeaderFields m_fields;
    ZarkWebserverUser m_user;
    bool m_encrypt;
    int m_maximumValues;
    std::function<bool()> m_warnsOfClock;
    QByteArray m_key;
};

// For schemes that nobody knows.
class ResponderCryptoInvalid : public ResponderCrypto {
public:
    bool authenticate(const QByteArray&) override { return false; }
    QVariant decrypt(const QVariant& value, bool* ok) override
    {
        if (ok)
            *ok = false;
        return value;
    }
};

// Takes the same time wherever the first difference is.
bool equalBytes(const QByteArray& a, const QByteArray& b)
{
    if (a.size() != b.size())
        return false;
    unsigned char difference = 0;
    for (int i = 0; i < a.size(); ++i)
        difference |= static_cast<unsigned char>(a.at(i) ^ b.at(i));
    return difference == 0;
}

} // namespace

ResponderCrypto::AuthorizationHeaderFields ResponderCrypto::splitAuthorizationHeader(const QByteArray& header)
{
    dbglog_scopedFunction(webserverLog());
    const QList<QByteArray> pieces = header.split(' ');
    const QList<QByteArray> parts = pieces.value(1).split('.');
    AuthorizationHeaderFields fields;
    fields.scheme = QString::fromUtf8(pieces.value(0)).toLower();
    fields.user = QString::fromUtf8(QByteArray::fromBase64(parts.value(0)));
    fields.salt = parts.value(1);
    fields.timestamp = static_cast<qint64>(parts.value(2).toULongLong());
    fields.signature = parts.value(3);
    return fields;
}

QSharedPointer<ResponderCrypto> ResponderCrypto::create(const AuthorizationHeaderFields& fields,
    const ZarkWebserverUser& user, int maximumValues, const std::function<bool()>& warnsOfClock)
{
    dbglog_scopedFunction(webserverLog());
    if (fields.scheme == QLatin1String("hmac_sha256_aes256"))
        return QSharedPointer<ResponderCryptoHmacSha256>::create(fields, user, true, maximumValues, warnsOfClock);
    if (fields.scheme == QLatin1String("hmac_sha256"))
        return QSharedPointer<ResponderCryptoHmacSha256>::create(fields, user, false, maximumValues, warnsOfClock);
    return QSharedPointer<ResponderCryptoInvalid>::create();
}

bool ResponderCryptoHmacSha256::authenticate(const QByteArray& data)
{
    if (m_fields.signature.isEmpty() || m_user.name().isEmpty())
        return false;
    logTimeDifference();
    const QByteArray message =
        m_fields.user.toUtf8() + '.' + m_fields.salt + '.' + QByteArray::number(m_fields.timestamp) + '.' + data;
    QByteArray mac;
    return !m_key.isEmpty() && CryptoHash::hmac(CryptoHash::Sha256, m_key, message, &mac)
        && equalBytes(QByteArray::fromBase64(m_fields.signature), mac);
}

// Reported, never enforced: devices start without a clock. The signature protects the timestamp from being altered.
void ResponderCryptoHmacSha256::logTimeDifference() const
{
    // Unsigned: a client may send any 64 bits.
    const auto difference = static_cast<qint64>(
        static_cast<quint64>(QDateTime::currentMSecsSinceEpoch()) - static_cast<quint64>(m_fields.timestamp));
    const bool isWrong = difference <= -UnremarkableTimeDifference || difference >= UnremarkableTimeDifference;
    if (!isWrong || (m_warnsOfClock && !m_warnsOfClock()))
        dbglog_debug(webserverLog(), "Time difference in milliseconds: " << difference);
    else
        dbglog_warn(webserverLog(), "Time difference in milliseconds: " << difference);
}

QVariant ResponderCryptoHmacSha256::decrypt(const QVariant& value, bool* ok)
{
    bool ignored = false;
    bool& succeeded = ok ? *ok : ignored;
    succeeded = !m_encrypt;
    if (!m_encrypt)
        return value;
    const QByteArray sent = QByteArray::fromBase64(value.toString().toUtf8());
    const int ivSize = CryptoAes::ivSize();
    if (sent.size() < ivSize)
        return {};
    QByteArray plain;
    if (!CryptoAes::decrypt(CryptoAes::CbcPkcs7, m_key, sent.left(ivSize), sent.mid(ivSize), &plain))
        return {};
    ZarkError error;
    const QVariant parsed = ZarkJson::parse(plain, &error, ZarkJson::NoFlags, m_maximumValues);
    if (!error.isEmpty())
        return {};
    succeeded = true;
    return parsed;
}
