#include "RequestSigner.h"

#include <QDateTime>
#include <QRandomGenerator>

#include "CryptoAes.h"
#include "CryptoHash.h"
#include "Failure.h"

namespace {

const int SaltBytes = 16;

QByteArray randomBytes(int count)
{
    QByteArray bytes(count, Qt::Uninitialized);
    for (char& byte : bytes)
        byte = static_cast<char>(QRandomGenerator::system()->bounded(256));
    return bytes;
}

} // namespace

RequestSigner::RequestSigner(const QString& user, const QString& password) : m_user(user.toUtf8())
{
    const QByteArray salt = randomBytes(SaltBytes);
    m_salt = salt.toBase64();
    CryptoHash::hash(CryptoHash::Sha256, salt + password.toUtf8(), &m_key);
}

QByteArray RequestSigner::header(const QByteArray& scheme, const QByteArray& data) const
{
    const QByteArray time = QByteArray::number(QDateTime::currentMSecsSinceEpoch());
    QByteArray mac;
    CryptoHash::hmac(CryptoHash::Sha256, m_key, m_user + '.' + m_salt + '.' + time + '.' + data, &mac);
    return scheme + ' ' + m_user.toBase64() + '.' + m_salt + '.' + time + '.' + mac.toBase64();
}

QByteArray RequestSigner::encrypt(const QByteArray& plainText) const
{
    const QByteArray iv = randomBytes(CryptoAes::ivSize());
    QByteArray cipherText;
    if (!CryptoAes::encrypt(CryptoAes::CbcPkcs7, m_key, iv, plainText, &cipherText))
        throw Failure{ ExitFailed, QStringLiteral("the value cannot be encrypted") };
    return (iv + cipherText).toBase64();
}
