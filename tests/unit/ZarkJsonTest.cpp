#include <QtTest>

#include <cmath>
#include <limits>

#include "Rows.h"
#include "TrString.h"
#include "ZarkJson.h"
#include "ZarkRowsRoles.h"
#include "ZarkValue.h"

class ZarkJsonTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void textsAreRead()
    {
        Rows<QByteArray, QVariant> row;
        const QVariantList mixed{ 1LL, "x", QVariant::fromValue(nullptr), QVariantHash(), QVariantList() };
        row("in white space", " \t\r\nfalse\n ", false);
        row("mixed", "{\"a\" : [1, \"x\",null, { },[\n]] ,\"\":true}", QVariantHash{ { "a", mixed }, { "", true } });
        row("of equal keys the last", "{\"a\":{\"x\":1},\"a\":2}", QVariantHash{ { "a", 2LL } });
        row("every escape", "\"x\\\"\\\\\\/\\b\\f\\n\\r\\t\\u0041\\u00fC\\u20ac.\"",
            QString::fromUtf8("x\"\\/\b\f\n\r\tAü€."));
        row("escaped NUL", R"("\u0000")", QString(QChar(0)));
        row("surrogate pair", R"("\uD83D\ude00\u0041")", QString::fromUtf8("😀A"));
        row("UTF-8 of 2 to 4 bytes", "\"\xC2\x80\xE0\xA0\x80\xED\x9F\xBF\xF4\x8F\xBF\xBF\"",
            QString::fromUtf8("\xC2\x80\xE0\xA0\x80\xED\x9F\xBF\xF4\x8F\xBF\xBF"));
        row("UTF-8 beside escapes", "\"\xC3\xBC\\n\xC3\xBC\"", QString::fromUtf8("ü\nü"));
        row("a byte order mark in a string stays", "\"\xEF\xBB\xBFx\"", QString(QChar(0xFEFF)) + 'x');
        row("the deepest list", QByteArray(128, '[') + QByteArray(128, ']'), QVariant());
        for (const auto& [text, value] : row) {
            ZarkError error{ QStringLiteral("left over"), 1, 1 };
            const QVariant read = ZarkJson::parse(text, &error);
            QCOMPARE(error.toString(), QString());
            QCOMPARE(ZarkJson::parse(QString::fromUtf8(text), nullptr), read);
            if (value.isValid())
                QCOMPARE(read, value);
            QCOMPARE(ZarkJson::parse(ZarkJson::serialize(read), nullptr), read);
        }
    }

    void numbersKeepTheirType()
    {
        Rows<QVariant> row;
        row("-9223372036854775808", std::numeric_limits<qlonglong>::min());
        row("9223372036854775808", 9223372036854775808ULL);
        row("18446744073709551615", std::numeric_limits<qulonglong>::max());
        row("18446744073709551616", 18446744073709551616.0);
        row("-0", -0.0);
        row("0.1", 0.1);
        row("1e+22", 1e22);
        row("1.7976931348623157e+308", std::numeric_limits<double>::max());
        row("5e-324", std::numeric_limits<double>::denorm_min());
        for (const auto& [value] : row) {
            const QVariant read = ZarkJson::parse(QByteArray(row.name()), nullptr);
            QCOMPARE(read.userType(), value.userType());
            QCOMPARE(read, value);
            QCOMPARE(std::signbit(read.toDouble()), std::signbit(value.toDouble()));
            QCOMPARE(ZarkJson::serialize(read), QByteArray(row.name()));
        }
    }

    void wrongTextsAreRefusedWithTheirPlace()
    {
        Rows<QByteArray, QString> row;
        const auto add = [&](const char* name, const QByteArray& text, int column, int line = 1) {
            row(name, text, QStringLiteral("line %1, column %2: ").arg(line).arg(column));
        };
        add("white space only", " \n ", 2, 2);
        add("byte order mark", "\xEF\xBB\xBF{}", 1);
        add("second value", "1\n2", 1, 2);
        add("NUL after the value", QByteArray("1\0", 2), 2);
        add("comment", "[1, // x\n2]", 5);
        add("no digit after the point", "2.e3", 3);
        add("negative leading zero", "-00", 3);
        add("plus sign", "+1", 1);
        add("minus alone", "[-]", 3);
        add("exponent without a digit", "1e+", 4);
        add("Infinity", "-Infinity", 2);
        add("beyond a double", "[1, 1e309]", 5);
        add("misspelt literal", "trUe", 3);
        add("trailing comma in an array", "[1,]", 4);
        add("trailing comma in an object", "{\"a\":1,}", 8);
        add("no comma", "[1 2]", 4);
        add("no colon", "{\"a\" 1}", 6);
        add("key without quotes", "{a:1}", 2);
        add("wrong bracket", "[1}", 3);
        add("raw control character", "\"a\x1f\"", 3);
        add("unknown escape", R"("a\x")", 4);
        add("\\u with a sign", R"("\u+123")", 4);
        add("lone low surrogate", R"("\uDC00")", 2);
        add("high surrogate and a letter", R"("\uD800\u0041")", 2);
        add("overlong, 2 bytes", "\"\xC0\xAF\"", 2);
        add("overlong, 3 bytes", "\"\xE0\x9F\xBF\"", 2);
        add("overlong, 4 bytes", "\"\xF0\x8F\xBF\xBF\"", 2);
        add("encoded surrogate", "\"\xED\xA0\x80\"", 2);
        add("above U+10FFFF", "\"\xF4\x90\x80\x80\"", 2);
        add("sequence cut by a quote", "\"\xE2\x82\"", 2);
        add("columns are characters, lines end with LF", "{\r\n \"ü😀\": x}", 8, 2);
        add("one level too deep", QByteArray(129, '[') + QByteArray(129, ']'), 129);
        add("a million levels", QByteArray("{\"a\":").repeated(1000000), 128 * 5 + 1);
        for (const auto& [text, place] : row) {
            ZarkError error;
            QVERIFY(!ZarkJson::parse(text, &error).isValid());
            QVERIFY(!error.message.isEmpty());
            QCOMPARE(error.toString().chopped(error.message.size()), place);
        }
    }

    void everyCutOfATextIsRefused()
    {
        const QByteArray text = "{\"a\":[true,null,\"\\u0041\\n\xC3\xBC\",-1.5e-3],\"b\":{}}";
        QVERIFY(ZarkJson::parse(text, nullptr).isValid());
        for (int size = 0; size < text.size(); ++size) {
            ZarkError error;
            // A copy of its own size lets AddressSanitizer see a read behind the end.
            QVERIFY2(!ZarkJson::parse(QByteArray(text.constData(), size), &error).isValid(), QByteArray::number(size));
            QVERIFY(!error.isEmpty());
        }
        QVERIFY(!ZarkJson::parse(QStringLiteral("\"") + QChar(0xD800) + '"', nullptr).isValid());
    }

    void linesAreRecorded()
    {
        const QByteArray text = "\n{\"a\": [{},\r\n{\"b\": \"\\n\"}],\n\"@line\": 7}";
        const QByteArray recorded = ZarkJson::serialize(ZarkJson::parse(text, nullptr, ZarkJson::RecordLines));
        QCOMPARE(recorded, QByteArray(R"({"@line":2,"a":[{"@line":2},{"@line":3,"b":"\n"}]})"));
    }

    void valuesAreWritten()
    {
        Rows<QVariant, QByteArray> row;
        row("minus infinity", -qInf(), "null");
        row("uint", 4000000000U, "4000000000");
        row("short", QVariant::fromValue(short(-3)), "-3");
        row("float", 0.5F, "0.5");
        row("bytes", QByteArray("\0\xff", 2), R"("AP8=")");
        row("time", QDateTime::fromMSecsSinceEpoch(1234567890123), "1234567890123");
        row("no time", QDateTime(), "null");
        row("map", QVariantMap{ { "b", 1 }, { "a", 2 } }, R"({"a":2,"b":1})");
        row("sorted keys", QVariantHash{ { "b", 1 }, { "a", 2 }, { "", 3 }, { "B", 4 } },
            R"({"":3,"B":4,"a":2,"b":1})");
        row("invalid value", QVariant::fromValue(ZarkValue()), "null");
        row("escapes", QString("\"\\/\b\f\n\r\t\x01\x1f\x7f"), "\"\\\"\\\\/\\b\\f\\n\\r\\t\\u0001\\u001f\x7f\"");
        row("high surrogate before a letter", QString(QChar(0xD800)) + 'x', "\"\uFFFDx\"");
        row("surrogates in the wrong order", QString(QChar(0xDC00)) + QChar(0xD800), "\"\uFFFD\uFFFD\"");
        row("longer than a buffer", QString::fromUtf8("€😀").repeated(1000),
            '"' + QByteArray("€😀").repeated(1000) + '"');
        for (const auto& [value, json] : row) {
            QCOMPARE(ZarkJson::serialize(value), json);
        }
    }

    void translatedTextsAreWritten()
    {
        class Upper : public QTranslator {
        public:
            bool isEmpty() const override { return false; }
            QString translate(const char* context, const char* source, const char*, int) const override
            {
                return qstrcmp(context, "Zark") == 0 ? QString::fromUtf8(source).toUpper() : QString();
            }
        } upper;
        QCoreApplication::installTranslator(&upper);
        const QVariantList texts{ QVariant::fromValue(TrString("füße")), "plain" };
        QCOMPARE(ZarkJson::serializeTranslate(texts), QByteArray("[\"FÜSSE\",\"plain\"]"));
        QCOMPARE(ZarkJson::serialize(texts), QByteArray("[\"füße\",\"plain\"]"));
        QCoreApplication::removeTranslator(&upper);
    }
};

QTEST_GUILESS_MAIN(ZarkJsonTest)
#include "ZarkJsonTest.moc"
