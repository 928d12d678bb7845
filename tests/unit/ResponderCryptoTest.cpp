#include <QtTest>

#include "Files.h"
#include "ZarkJson.h"
#include "responders/ResponderCrypto.h"

/// Signatures and cipher texts that OpenSSL's command line made; clients are tested against the same.
class ResponderCryptoTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void signaturesAreThoseOfOpenSsl()
    {
        for (QVariantHash vector : vectors("signatures")) {
            QByteArray data = bytes(vector, "uri");
            if (vector.value("method") == "POST")
                data += '.' + bytes(vector, "body");
            QVERIFY2(checker("HMAC_SHA256", vector)->authenticate(data), bytes(vector, "name"));
            QVERIFY(!checker("HMAC_SHA256", vector)->authenticate(data + ' '));

            vector["timestamp"] = vector.value("timestamp").toLongLong() + 1;
            QVERIFY(!checker("HMAC_SHA256", vector)->authenticate(data));
        }
    }

    void cipherTextsAreThoseOfOpenSsl()
    {
        for (const QVariantHash& vector : vectors("ciphers")) {
            bool ok = false;
            const QVariant value = checker("HMAC_SHA256_AES256", vector)->decrypt(vector.value("encrypted"), &ok);
            QVERIFY2(ok, bytes(vector, "name"));
            QCOMPARE(value, ZarkJson::parse(bytes(vector, "json"), nullptr));
        }
    }

private:
    static QByteArray bytes(const QVariantHash& vector, const char* key)
    {
        return vector.value(key).toString().toUtf8();
    }

    static QSharedPointer<ResponderCrypto> checker(const QByteArray& scheme, const QVariantHash& vector)
    {
        const QByteArray header = scheme + ' ' + bytes(vector, "user").toBase64() + '.' + bytes(vector, "salt") + '.'
            + bytes(vector, "timestamp") + '.' + bytes(vector, "signature");
        const ZarkWebserverUser user(vector.value("user").toString(), vector.value("password").toString());
        return ResponderCrypto::create(ResponderCrypto::splitAuthorizationHeader(header), user);
    }

    static QVector<QVariantHash> vectors(const char* kind)
    {
        QVector<QVariantHash> vectors;
        const QVariantHash all = ZarkJson::parse(contentOf(VECTORS), nullptr).toHash();
        for (const QVariant& vector : all.value(kind).toList())
            vectors.append(vector.toHash());
        if (vectors.isEmpty())
            qFatal("no vectors");
        return vectors;
    }
};

QTEST_GUILESS_MAIN(ResponderCryptoTest)
#include "ResponderCryptoTest.moc"
