#include <QTest>

#include "ZarkUrl.h"

class ZarkUrlTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void queryValuesAreDecoded_data()
    {
        QTest::addColumn<QByteArray>("query");
        QTest::addColumn<QString>("value");
        QTest::newRow("the first of several") << QByteArray("?b=0&a=1&a=2") << "1";
        QTest::newRow("without =") << QByteArray("?a") << "";
        QTest::newRow("a percent is decoded once") << QByteArray("?a=%2541") << "%41";
        QTest::newRow("a plus stays") << QByteArray("?a=1+2%2B3") << "1+2+3";
        QTest::newRow("UTF-8") << QByteArray("?a=%C3%BC%F0%9F%98%80") << QString::fromUtf8("ü😀");
        QTest::newRow("an escape that is none") << QByteArray("?a=%zz%4") << "%zz%4";
        QTest::newRow("the key is encoded") << QByteArray("?%61=1") << "1";
    }

    void queryValuesAreDecoded()
    {
        QFETCH(QByteArray, query);
        const ZarkUrl url = ZarkUrl::fromEncoded("/api/getData" + query);
        QVERIFY(url.hasQueryItem(QStringLiteral("a")));
        QTEST(url.queryItemValue(QStringLiteral("a")), "value");
        QCOMPARE(ZarkUrl::splitQuery("a=%41%25%").queryItemValue(QStringLiteral("a"), QUrl::FullyDecoded),
            QStringLiteral("A%%"));
        QVERIFY(!url.hasQueryItem(QStringLiteral("c")));
        QVERIFY(url.queryItemValue(QStringLiteral("c")).isNull());
    }

    void setEncodedQueryReplacesTheTable()
    {
        ZarkUrl url = ZarkUrl::fromEncoded("http://h/p?a=1%202");
        QCOMPARE(url.encodedQuery(), QByteArray("a=1%202"));
        QCOMPARE(url.queryItemValue(QStringLiteral("a")), QStringLiteral("1 2"));
        url.setEncodedQuery("b=%C3%BC&c=%26");
        QVERIFY(!url.hasQueryItem(QStringLiteral("a")));
        QCOMPARE(url.queryItemValue(QStringLiteral("c")), QStringLiteral("&"));
        QCOMPARE(url.encodedQuery(), QByteArray("b=%C3%BC&c=%26"));
        QCOMPARE(url.toEncoded(), QByteArray("http://h/p?b=%C3%BC&c=%26"));

        QVERIFY(ZarkUrl::fromEncoded("/p").encodedQuery().isNull());
        QVERIFY(!ZarkUrl::fromEncoded("/p?").encodedQuery().isNull());
        // Bytes that are no UTF-8 must not end the server; what becomes of them is not promised.
        QVERIFY(ZarkUrl::fromEncoded("/p?a=%FF%C3&b=%ED%A0%80").hasQueryItem(QStringLiteral("b")));
    }
};

QTEST_GUILESS_MAIN(ZarkUrlTest)
#include "ZarkUrlTest.moc"
