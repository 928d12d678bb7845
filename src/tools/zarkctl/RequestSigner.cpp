#include "RequestSigner.h"

#include <memory>

#include <QCryptographicHash>
#include <QDateTime>
#include <QMessageAuthenticationCode>
#include <QRandomGenerator>
#include <openssl/evp.h>

namespace {

const int BlockSize = 16;

QByteArray randomBytes(int count)
{
    QByteArray bytes(count, Qt::Uninitialized);
    for (char& byte : bytes)
        byte = static_cast<char>(QRandomGenerator::system()->bounded(256));
    return bytes;
}

const unsigned char* raw(const QByteArray& bytes)
{
    return reinterpret_cast<const unsigned char*>(bytes.constData());
}

} // namespace

RequestSigner::RequestSigner(const QString& user, const QString& password) : m_user(user.toUtf8())
{
    const QByteArray salt = randomBytes(BlockSize);
    m_salt = salt.toBase64();
    m_key = QCryptographicHash::hash(salt + password.toUtf8(), QCryptographicHash::Sha256);
}

QByteArray RequestSigner::header(const QByteArray& scheme, const QByteArray& data) const
{
    const QByteArray time = QByteArray::number(QDateTime::currentMSecsSinceEpoch());
    const QByteArray message = m_user + '.' + m_salt + '.' + time + '.' + data;
    const QByteArray signature = QMessageAuthenticationCode::hash(message, m_key, QCryptographicHash::Sha256);
    return scheme + ' ' + m_user.toBase64() + '.' + m_salt + '.' + time + '.' + signature.toBase64();
}

QByteArray RequestSigner::encrypt(const QByteArray& plainText) const
{
    const QByteArray iv = randomBytes(BlockSize);
    QByteArray cipherText(plainText.size() + BlockSize, Qt::Uninitialized);
    auto* out = reinterpret_cast<unsigned char*>(cipherText.data());
    const std::unique_ptr<EVP_CIPHER_CTX, decltype(&EVP_CIPHER_CTX_free)> context(
        EVP_CIPHER_CTX_new(), &EVP_CIPHER_CTX_free);
    int body = 0;
    int padding = 0;
    if (!context || !EVP_EncryptInit_ex(context.get(), EVP_aes_256_cbc(), nullptr, raw(m_key), raw(iv))
        || !EVP_EncryptUpdate(context.get(), out, &body, raw(plainText), plainText.size())
        || !EVP_EncryptFinal_ex(context.get(), out + body, &padding))
        return {};
    return (iv + cipherText.left(body + padding)).toBase64();
}
