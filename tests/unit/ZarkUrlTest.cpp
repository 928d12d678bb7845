#include <QtTest>

#include "Rows.h"
#include "ZarkUrl.h"

class ZarkUrlTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void queryValuesAreDecoded()
    {
        Rows<QByteArray, QString> row;
        row("the first of several", "?b=0&a=1&a=2", "1");
        row("without =", "?a", "");
        row("a percent is decoded once", "?a=%2541", "%41");
        row("a plus stays", "?a=1+2%2B3", "1+2+3");
        row("UTF-8", "?a=%C3%BC%F0%9F%98%80", QString::fromUtf8("ü😀"));
        row("an escape that is none", "?a=%zz%4", "%zz%4");
        row("the key is encoded", "?%61=1", "1");
        for (const auto& [query, value] : row) {
            const ZarkUrl url = ZarkUrl::fromEncoded("/api/getData" + query);
            QVERIFY(url.hasQueryItem(QStringLiteral("a")));
            QCOMPARE(url.queryItemValue(QStringLiteral("a")), value);
            QCOMPARE(ZarkUrl::splitQuery("a=%41%25%").queryItemValue(QStringLiteral("a"), QUrl::FullyDecoded),
                QStringLiteral("A%%"));
            QVERIFY(!url.hasQueryItem(QStringLiteral("c")));
            QVERIFY(url.queryItemValue(QStringLiteral("c")).isNull());
        }
    }

    void setEncodedQueryReplacesTheTable()
    {
        ZarkUrl url = ZarkUrl::fromEncoded("http://h/p?a=1%202");
        QCOMPARE(url.queryItemValue("a"), QString("1 2"));
        url.setEncodedQuery("b=%C3%BC&c=%26");
        QVERIFY(!url.hasQueryItem("a"));
        QCOMPARE(url.queryItemValue("c"), QString("&"));
    }

    // Bytes that are no UTF-8 must not end the server; what becomes of them is not promised.
    void anythingIsAQuery()
    {
        QVERIFY(ZarkUrl::fromEncoded("/p?a=%FF%C3&b=%ED%A0%80").hasQueryItem("b"));
        QVERIFY(ZarkUrl::fromEncoded("/p").encodedQuery().isNull());
        QVERIFY(!ZarkUrl::fromEncoded("/p?").encodedQuery().isNull());
    }
};

QTEST_GUILESS_MAIN(ZarkUrlTest)
#include "ZarkUrlTest.moc"
