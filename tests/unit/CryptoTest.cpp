#include <QTest>

#include "CryptoAes.h"
#include "CryptoHash.h"

namespace {

QByteArray hex(const char* text)
{
    return QByteArray::fromHex(text);
}

// NIST SP 800-38A, F.2.5.
const QByteArray Key = hex("603deb1015ca71be2b73aef0857d77811f352c073b6108d72d9810a30914dff4");
const QByteArray Iv = hex("000102030405060708090a0b0c0d0e0f");
const QByteArray Plain = hex("6bc1bee22e409f96e93d7e117393172aae2d8a571e03ac9c9eb76fac45af8e51");
const QByteArray CipherBlocks = hex("f58c4c04d6e5f1ba779eabfb5f7bfbd69cfc4e967edb808d679f777bc6702c7d");

} // namespace

class CryptoTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void digestsMatchTheStandards_data();
    void digestsMatchTheStandards();
    void keyedDigestsMatchRfc4231_data();
    void keyedDigestsMatchRfc4231();
    void cipherMatchesTheStandard();
    void everyLengthSurvivesARoundTrip();
    void badInputIsRefused_data();
    void badInputIsRefused();
    void badPaddingIsRefused_data();
    void badPaddingIsRefused();
};

void CryptoTest::digestsMatchTheStandards_data()
{
    QTest::addColumn<int>("algorithm");
    QTest::addColumn<QByteArray>("data");
    QTest::addColumn<QByteArray>("digest");
    QTest::newRow("MD5") << int(CryptoHash::Md5) << QByteArray("abc") << hex("900150983cd24fb0d6963f7d28e17f72");
    QTest::newRow("SHA-1") << int(CryptoHash::Sha1) << QByteArray("abc")
                           << hex("a9993e364706816aba3e25717850c26c9cd0d89d");
    QTest::newRow("SHA-256") << int(CryptoHash::Sha256) << QByteArray("abc")
                             << hex("ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
    QTest::newRow("SHA-256, empty") << int(CryptoHash::Sha256) << QByteArray()
                                    << hex("e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855");
    QTest::newRow("SHA-512") << int(CryptoHash::Sha512) << QByteArray("abc")
                             << hex("ddaf35a193617abacc417349ae20413112e6fa4e89a97ea20a9eeee64b55d39a"
                                    "2192992a274fc1a836ba3c23a3feebbd454d4423643ce80e2a9ac94fa54ca49f");
}

void CryptoTest::digestsMatchTheStandards()
{
    QFETCH(int, algorithm);
    QFETCH(QByteArray, data);
    QByteArray out("left over");
    QVERIFY(CryptoHash::hash(CryptoHash::Algorithm(algorithm), data, &out));
    QTEST(out, "digest");
}

void CryptoTest::keyedDigestsMatchRfc4231_data()
{
    QTest::addColumn<QByteArray>("key");
    QTest::addColumn<QByteArray>("data");
    QTest::addColumn<QByteArray>("digest");
    QTest::newRow("short key") << QByteArray("Jefe") << QByteArray("what do ya want for nothing?")
                               << hex("5bdcc146bf60754e6a042426089575c75a003f089d2739839dec58b964ec3843");
    QTest::newRow("20 byte key") << QByteArray(20, '\x0b') << QByteArray("Hi There")
                                 << hex("b0344c61d8db38535ca8afceaf0bf12b881dc200c9833da726e9376c2e32cff7");
    QTest::newRow("key longer than a block")
        << QByteArray(131, '\xaa') << QByteArray("Test Using Larger Than Block-Size Key - Hash Key First")
        << hex("60e431591ee0b67f0d8a26aacbf5b77f8e0bc6213728c5140546040f0ee37f54");
}

void CryptoTest::keyedDigestsMatchRfc4231()
{
    QFETCH(QByteArray, key);
    QFETCH(QByteArray, data);
    QByteArray out;
    QVERIFY(CryptoHash::hmac(CryptoHash::Sha256, key, data, &out));
    QTEST(out, "digest");
}

void CryptoTest::cipherMatchesTheStandard()
{
    QByteArray out;
    QVERIFY(CryptoAes::encrypt(CryptoAes::CbcPkcs7, Key, Iv, Plain, &out));
    QCOMPARE(out.left(32), CipherBlocks);
    QCOMPARE(out.size(), 48);
}

void CryptoTest::everyLengthSurvivesARoundTrip()
{
    for (int size = 0; size <= 33; ++size) {
        const QByteArray plainText = QByteArray(size, char('a' + size % 7));
        QByteArray text = plainText;
        QVERIFY(CryptoAes::encrypt(CryptoAes::CbcPkcs7, Key, Iv, text, &text));
        QCOMPARE(text.size(), (size / 16 + 1) * 16);
        QVERIFY(CryptoAes::decrypt(CryptoAes::CbcPkcs7, Key, Iv, text, &text));
        QCOMPARE(text, plainText);
    }
}

void CryptoTest::badInputIsRefused_data()
{
    QTest::addColumn<int>("mode");
    QTest::addColumn<QByteArray>("key");
    QTest::addColumn<QByteArray>("iv");
    QTest::addColumn<int>("cipherSize");
    QTest::addColumn<bool>("encrypts");
    const int cbc = CryptoAes::CbcPkcs7;
    QTest::newRow("ECB") << int(CryptoAes::Ecb) << Key << Iv << 48 << false;
    QTest::newRow("mode from the wire") << 7 << Key << Iv << 48 << false;
    QTest::newRow("key of 128 bits") << cbc << Key.left(16) << Iv << 48 << false;
    QTest::newRow("key too long") << cbc << Key + 'x' << Iv << 48 << false;
    QTest::newRow("no key") << cbc << QByteArray() << Iv << 48 << false;
    QTest::newRow("IV too short") << cbc << Key << Iv.left(15) << 48 << false;
    QTest::newRow("IV too long") << cbc << Key << Iv + 'x' << 48 << false;
    QTest::newRow("no cipher text") << cbc << Key << Iv << 0 << true;
    QTest::newRow("part of a block") << cbc << Key << Iv << 15 << true;
    QTest::newRow("cut inside the last block") << cbc << Key << Iv << 47 << true;
    QTest::newRow("last block missing") << cbc << Key << Iv << 32 << true;
}

void CryptoTest::badInputIsRefused()
{
    QFETCH(int, mode);
    QFETCH(QByteArray, key);
    QFETCH(QByteArray, iv);
    QFETCH(int, cipherSize);
    QByteArray cipherText;
    QVERIFY(CryptoAes::encrypt(CryptoAes::CbcPkcs7, Key, Iv, Plain, &cipherText));

    QByteArray out("left over");
    QVERIFY(!CryptoAes::decrypt(CryptoAes::Mode(mode), key, iv, cipherText.left(cipherSize), &out));
    QCOMPARE(out, QByteArray());
    out = "left over";
    QFETCH(bool, encrypts);
    QCOMPARE(CryptoAes::encrypt(CryptoAes::Mode(mode), key, iv, Plain, &out), encrypts);
    QCOMPARE(out, encrypts ? cipherText : QByteArray());
}

void CryptoTest::badPaddingIsRefused_data()
{
    QTest::addColumn<QByteArray>("lastBlock");
    QTest::addColumn<bool>("valid");
    QTest::newRow("one byte of 1") << QByteArray(15, 'x') + '\x01' << true;
    QTest::newRow("a whole block of 16") << QByteArray(16, '\x10') << true;
    QTest::newRow("0") << QByteArray(15, 'x') + '\0' << false;
    QTest::newRow("17") << QByteArray(16, '\x11') << false;
    QTest::newRow("255") << QByteArray(16, '\xff') << false;
    QTest::newRow("bytes that differ") << QByteArray(13, 'x') + hex("020303") << false;
    QTest::newRow("16 with a wrong first byte") << '\x0f' + QByteArray(15, '\x10') << false;
}

void CryptoTest::badPaddingIsRefused()
{
    QFETCH(QByteArray, lastBlock);
    QFETCH(bool, valid);
    // Of a text that is whole blocks the padding is a block of its own: without it, lastBlock is what is checked.
    QByteArray cipherText;
    QVERIFY(CryptoAes::encrypt(CryptoAes::CbcPkcs7, Key, Iv, Plain + lastBlock, &cipherText));
    cipherText.chop(16);
    QByteArray out("left over");
    QCOMPARE(CryptoAes::decrypt(CryptoAes::CbcPkcs7, Key, Iv, cipherText, &out), valid);
    QCOMPARE(out, valid ? (Plain + lastBlock).left(48 - lastBlock.back()) : QByteArray());
}

QTEST_GUILESS_MAIN(CryptoTest)
#include "CryptoTest.moc"
