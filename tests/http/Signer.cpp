#include "Signer.h"

#include <QCryptographicHash>
#include <QDateTime>
#include <QMessageAuthenticationCode>

#include <openssl/evp.h>
#include <openssl/rand.h>

#include <memory>

namespace {

const unsigned char* bytes(const QByteArray& array)
{
    return reinterpret_cast<const unsigned char*>(array.constData());
}
unsigned char* bytes(QByteArray& array)
{
    return reinterpret_cast<unsigned char*>(array.data());
}

QByteArray random(int size)
{
    QByteArray result(size, 0);
    RAND_bytes(bytes(result), size);
    return result;
}

} // namespace

Signer::Signer(const QByteArray& user, const QByteArray& password, const QByteArray& scheme)
    : m_user(user), m_password(password), m_scheme(scheme), m_salt(random(16).toBase64()),
      m_timestamp(QDateTime::currentMSecsSinceEpoch())
{
}

QByteArray Signer::key() const
{
    return QCryptographicHash::hash(QByteArray::fromBase64(m_salt) + m_password, QCryptographicHash::Sha256);
}

QByteArray Signer::authorization(const QByteArray& data) const
{
    const QByteArray stamp = QByteArray::number(m_timestamp);
    const QByteArray text = m_user + '.' + m_salt + '.' + stamp + '.' + data;
    const QByteArray mac = QMessageAuthenticationCode::hash(text, key(), QCryptographicHash::Sha256);
    return "Authorization: " + m_scheme + ' ' + m_user.toBase64() + '.' + m_salt + '.' + stamp + '.' + mac.toBase64();
}

QByteArray Signer::encrypt(const QByteArray& json) const
{
    const QByteArray iv = random(16);
    const QByteArray secret = key();
    const std::unique_ptr<EVP_CIPHER_CTX, decltype(&EVP_CIPHER_CTX_free)> context(
        EVP_CIPHER_CTX_new(), EVP_CIPHER_CTX_free);
    EVP_EncryptInit_ex(context.get(), EVP_aes_256_cbc(), nullptr, bytes(secret), bytes(iv));
    QByteArray cipherText(json.size() + 16, 0);
    int length = 0;
    int last = 0;
    EVP_EncryptUpdate(context.get(), bytes(cipherText), &length, bytes(json), json.size());
    EVP_EncryptFinal_ex(context.get(), bytes(cipherText) + length, &last);
    cipherText.truncate(length + last);
    return (iv + cipherText).toBase64();
}
