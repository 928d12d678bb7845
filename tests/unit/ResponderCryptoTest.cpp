#include <QtTest>

#include "ZarkJson.h"
#include "responders/ResponderCrypto.h"

/// Signatures and cipher texts that OpenSSL's command line made; clients are tested against the same.
class ResponderCryptoTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void signaturesAreThoseOfOpenSsl_data() { addRows("signatures"); }
    void signaturesAreThoseOfOpenSsl()
    {
        QFETCH(QVariantHash, vector);
        QByteArray data = bytes(vector, "uri");
        if (vector.value("method") == "POST")
            data += '.' + bytes(vector, "body");
        QVERIFY(checker("HMAC_SHA256", vector)->authenticate(data));
        QVERIFY(!checker("HMAC_SHA256", vector)->authenticate(data + ' '));

        vector["timestamp"] = vector.value("timestamp").toLongLong() + 1;
        QVERIFY(!checker("HMAC_SHA256", vector)->authenticate(data));
    }

    void cipherTextsAreThoseOfOpenSsl_data() { addRows("ciphers"); }
    void cipherTextsAreThoseOfOpenSsl()
    {
        QFETCH(QVariantHash, vector);
        bool ok = false;
        const QVariant value = checker("HMAC_SHA256_AES256", vector)->decrypt(vector.value("encrypted"), &ok);
        QVERIFY(ok);
        QCOMPARE(value, ZarkJson::parse(bytes(vector, "json"), nullptr));
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

    static void addRows(const char* kind)
    {
        QTest::addColumn<QVariantHash>("vector");
        QFile file(VECTORS);
        QVERIFY(file.open(QFile::ReadOnly));
        const QVariantList vectors = ZarkJson::parse(file.readAll(), nullptr).toHash().value(kind).toList();
        QVERIFY(!vectors.isEmpty());
        for (const QVariant& vector : vectors)
            QTest::newRow(bytes(vector.toHash(), "name").constData()) << vector.toHash();
    }
};

QTEST_GUILESS_MAIN(ResponderCryptoTest)
#include "ResponderCryptoTest.moc"
