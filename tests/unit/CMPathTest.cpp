#include <QtTest>

#include "CMPath.h"
#include "Rows.h"

class CMPathTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void onlyOneTextIsAPath()
    {
        Rows<QString, bool> row;
        for (const char* text : { "player:player/volume", "a:b", "a:%20", "a:b%2Fc/d", "a:%C3%BC", "a:~-._",
                 "/player/volume", "/a", "my%20worker:a", "a:%EF%BB%BF", "a:%00", "a:..", "a:%F0%9F%8E%B5" })
            row(QString::asprintf("valid %s", text).toUtf8(), text, true);
        for (const char* text : { "", "a", ":", "a:", ":b", "/", "//", "a:/", "a:b/", "a:/b", "a:b//c", "/a/", "a b:c",
                 "a:b c", "a:b:c", "a:%", "a:%2", "a:%zz", "a:%c3%bc", "a:%41", "a:%7E", "a:%C3", "a:%C3/%BC",
                 "a:%ED%A0%80", "a:%C0%AF", "a:\xc3\xbc", "a:b?c", "a:b#c", "a:b+c", "a%:b", "a/b:c", "a:b%" })
            row(QString::asprintf("invalid %s", text).toUtf8(), QString::fromUtf8(text), false);
        for (const auto& [text, valid] : row) {
            const CMPath path = CMPath::fromEncoded(text);
            QCOMPARE(path.isValid(), valid);
            QCOMPARE(path.toEncoded(), text);
            if (valid && !text.startsWith('/'))
                QCOMPARE(CMPath::fromSegments(path.worker(), path.segments()), path);
            if (!valid)
                QVERIFY(path.segments().isEmpty() && !path.parent().isValid() && !path.child("a").isValid());
        }
    }

    void parentsAndChildrenAreInverse()
    {
        const CMPath top = CMPath::fromEncoded("a:b");
        QVERIFY(!top.parent().isValid());
        QCOMPARE(top.child("c/d").toEncoded(), QString("a:b/c%2Fd"));
        QCOMPARE(top.child("c/d").parent(), top);
        QCOMPARE(top.child(QStringLiteral("%\u00fc ")).toEncoded(), QString("a:b/%25%C3%BC%20"));
        QCOMPARE(top.child("c/d").name(), QString("c/d"));
        const CMPath old = CMPath::fromEncoded("/a/b");
        QCOMPARE(old.parent().toEncoded(), QString("/a"));
        QVERIFY(!old.parent().parent().isValid());
        QCOMPARE(old.worker(), QString());
        QCOMPARE(old.segments(), QStringList({ "a", "b" }));
        QVERIFY(!CMPath::fromSegments("", { "a" }).isValid());
        QVERIFY(!CMPath::fromSegments("a", {}).isValid());
        QVERIFY(!CMPath::fromSegments("a", { "b", "" }).isValid());
    }
};

QTEST_APPLESS_MAIN(CMPathTest)
#include "CMPathTest.moc"
