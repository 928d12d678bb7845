#include <QtTest>

#include "CryptoAes.h"
#include "CryptoHash.h"
#include "Rows.h"

class CryptoTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void digestsMatchTheStandards()
    {
        const auto hash = [](CryptoHash::Algorithm algorithm) {
            QByteArray out("left over");
            return CryptoHash::hash(algorithm, "abc", &out) ? out.toHex().left(16) : "failed";
        };
        QCOMPARE(hash(CryptoHash::Md5), QByteArray("900150983cd24fb0"));
        QCOMPARE(hash(CryptoHash::Sha1), QByteArray("a9993e364706816a"));
        QCOMPARE(hash(CryptoHash::Sha256), QByteArray("ba7816bf8f01cfea"));
        QCOMPARE(hash(CryptoHash::Sha512), QByteArray("ddaf35a193617aba"));
    }

    void badInputIsRefused()
    {
        Rows<int, QByteArray, QByteArray, int, bool> row;
        const int cbc = CryptoAes::CbcPkcs7;
        row("ECB", CryptoAes::Ecb, m_key, m_iv, 48, false);
        row("mode from the wire", 7, m_key, m_iv, 48, false);
        row("key of 128 bits", cbc, m_key.left(16), m_iv, 48, false);
        row("IV too short", cbc, m_key, m_iv.left(15), 48, false);
        row("no cipher text", cbc, m_key, m_iv, 0, true);
        row("cut inside the last block", cbc, m_key, m_iv, 47, true);
        row("last block missing", cbc, m_key, m_iv, 32, true);
        for (const auto& [mode, key, iv, cipherSize, encrypts] : row) {
            QByteArray cipherText;
            QVERIFY(CryptoAes::encrypt(CryptoAes::CbcPkcs7, m_key, m_iv, m_plain, &cipherText));
            QCOMPARE(cipherText.left(32).toHex(), m_cipherBlocks);
            QByteArray out("left over");
            QVERIFY(!CryptoAes::decrypt(CryptoAes::Mode(mode), key, iv, cipherText.left(cipherSize), &out));
            QCOMPARE(out, QByteArray());
            QCOMPARE(CryptoAes::encrypt(CryptoAes::Mode(mode), key, iv, m_plain, &out), encrypts);
            QCOMPARE(out, encrypts ? cipherText : QByteArray());
        }
    }

    void badPaddingIsRefused()
    {
        Rows<QByteArray, bool> row;
        row("a whole block of 16", QByteArray(16, '\x10'), true);
        row("0", QByteArray(15, 'x') + '\0', false);
        row("17", QByteArray(16, '\x11'), false);
        row("16 with a wrong first byte", '\x0f' + QByteArray(15, '\x10'), false);
        for (const auto& [lastBlock, valid] : row) {
            // The padding of whole blocks is a block of its own: without it, lastBlock is what is checked.
            QByteArray text;
            QVERIFY(CryptoAes::encrypt(CryptoAes::CbcPkcs7, m_key, m_iv, m_plain + lastBlock, &text));
            text.chop(16);
            QCOMPARE(CryptoAes::decrypt(CryptoAes::CbcPkcs7, m_key, m_iv, text, &text), valid);
            QCOMPARE(text, valid ? m_plain : QByteArray());
        }
    }

private:
    // NIST SP 800-38A, F.2.5.
    const QByteArray m_key = QByteArray::fromHex("603deb1015ca71be2b73aef0857d77811f352c073b6108d72d9810a30914dff4");
    const QByteArray m_iv = QByteArray::fromHex("000102030405060708090a0b0c0d0e0f");
    const QByteArray m_plain = QByteArray::fromHex("6bc1bee22e409f96e93d7e117393172aae2d8a571e03ac9c9eb76fac45af8e51");
    const QByteArray m_cipherBlocks = "f58c4c04d6e5f1ba779eabfb5f7bfbd69cfc4e967edb808d679f777bc6702c7d";
};

QTEST_GUILESS_MAIN(CryptoTest)
#include "CryptoTest.moc"
