#include "CryptoHash.h"

#include <QMessageAuthenticationCode>

bool CryptoHash::hash(Algorithm algorithm, const QByteArray& data, QByteArray* out)
{
    *out = QCryptographicHash::hash(data, static_cast<QCryptographicHash::Algorithm>(algorithm));
    return true;
}

bool CryptoHash::hmac(Algorithm algorithm, const QByteArray& key, const QByteArray& data, QByteArray* out)
{
    *out = QMessageAuthenticationCode::hash(data, key, static_cast<QCryptographicHash::Algorithm>(algorithm));
    return true;
}
