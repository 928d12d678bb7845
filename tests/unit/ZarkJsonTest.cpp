#include <QDateTime>
#include <QTest>
#include <QTranslator>

#include <cmath>
#include <limits>

#include "TrString.h"
#include "ZarkJson.h"
#include "ZarkRowsRoles.h"
#include "ZarkValue.h"

class ZarkJsonTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void textsAreRead_data();
    void textsAreRead();
    void numbersKeepTheirType_data();
    void numbersKeepTheirType();
    void wrongTextsAreRefusedWithTheirPlace_data();
    void wrongTextsAreRefusedWithTheirPlace();
    void everyCutOfATextIsRefused();
    void nestingIsLimited();
    void textsFromQStringAreCheckedToo();
    void linesAreRecorded();
    void valuesAreWritten_data();
    void valuesAreWritten();
    void translatedTextsAreWritten();
};

void ZarkJsonTest::textsAreRead_data()
{
    QTest::addColumn<QByteArray>("text");
    QTest::addColumn<QVariant>("value");
    const QVariant null = QVariant::fromValue(nullptr);
    QTest::newRow("null") << QByteArray("null") << null;
    QTest::newRow("true") << QByteArray("true") << QVariant(true);
    QTest::newRow("false, in white space") << QByteArray(" \t\r\nfalse\n ") << QVariant(false);
    QTest::newRow("empty object") << QByteArray("{ }") << QVariant(QVariantHash());
    QTest::newRow("empty array") << QByteArray("[\n]") << QVariant(QVariantList());
    QTest::newRow("mixed") << QByteArray("{\"a\" : [1, \"x\",null, {}] ,\"\":false}")
                           << QVariant(QVariantHash{
                                  { "a", QVariantList{ 1LL, "x", null, QVariantHash() } }, { "", false } });
    QTest::newRow("of equal keys the last")
        << QByteArray("{\"a\":{\"x\":1},\"a\":2}") << QVariant(QVariantHash{ { "a", 2LL } });
    QTest::newRow("empty string") << QByteArray("\"\"") << QVariant(QString(""));
    QTest::newRow("every escape") << QByteArray(R"("x\"\\\/\b\f\n\r\t\u0041\u00fC\u20ac.")")
                                  << QVariant(QString::fromUtf8("x\"\\/\b\f\n\r\tAü€."));
    QTest::newRow("escaped NUL") << QByteArray(R"("\u0000")") << QVariant(QString(QChar(0)));
    QTest::newRow("surrogate pair") << QByteArray(R"("\uD83D\ude00\u0041")") << QVariant(QString::fromUtf8("😀A"));
    QTest::newRow("UTF-8 of 2 to 4 bytes")
        << QByteArray("\"\xC2\x80\xE0\xA0\x80\xED\x9F\xBF\xF4\x8F\xBF\xBF\"")
        << QVariant(QString::fromUtf8("\xC2\x80\xE0\xA0\x80\xED\x9F\xBF\xF4\x8F\xBF\xBF"));
    QTest::newRow("UTF-8 beside escapes")
        << QByteArray("\"\xC3\xBC\\n\xC3\xBC\"") << QVariant(QString::fromUtf8("ü\nü"));
    QTest::newRow("a byte order mark inside strings stays")
        << QByteArray("[\"\xEF\xBB\xBF\xEF\xBB\xBFx\",\"\\n\xEF\xBB\xBF\"]")
        << QVariant(QVariantList{ QString(2, QChar(0xFEFF)) + 'x', QString('\n') + QChar(0xFEFF) });
    QTest::newRow("DEL is no control character of JSON") << QByteArray("\"\x7F\"") << QVariant(QString("\x7F"));
    QTest::newRow("the deepest list") << QByteArray(128, '[') + QByteArray(128, ']') << QVariant();
}

void ZarkJsonTest::textsAreRead()
{
    QFETCH(QByteArray, text);
    QFETCH(QVariant, value);
    ZarkError error{ QStringLiteral("left over"), 1, 1 };
    const QVariant read = ZarkJson::parse(text, &error);
    QCOMPARE(error.toString(), QString());
    QCOMPARE(ZarkJson::parse(QString::fromUtf8(text), nullptr), read);
    if (!value.isValid())
        QCOMPARE(ZarkJson::serialize(read), text);
    else
        QCOMPARE(read, value);
    QCOMPARE(ZarkJson::parse(ZarkJson::serialize(read), nullptr), read);
}

void ZarkJsonTest::numbersKeepTheirType_data()
{
    QTest::addColumn<QVariant>("value");
    QTest::addColumn<QByteArray>("written");
    const auto row = [](const char* text, const QVariant& value, const char* written) {
        QTest::newRow(text) << value << QByteArray(written);
    };
    row("0", 0LL, "0");
    row("-1", -1LL, "-1");
    row("9223372036854775807", std::numeric_limits<qlonglong>::max(), "9223372036854775807");
    row("-9223372036854775808", std::numeric_limits<qlonglong>::min(), "-9223372036854775808");
    row("9223372036854775808", 9223372036854775808ULL, "9223372036854775808");
    row("18446744073709551615", std::numeric_limits<qulonglong>::max(), "18446744073709551615");
    row("18446744073709551616", 18446744073709551616.0, "18446744073709551616");
    row("-9223372036854775809", -9223372036854775808.0, "-9223372036854775808");
    row("-0", -0.0, "-0");
    row("-0.0e5", -0.0, "-0");
    row("1.0", 1.0, "1");
    row("0.1", 0.1, "0.1");
    row("1E2", 100.0, "100");
    row("1e+22", 1e22, "1e+22");
    row("123456789.125", 123456789.125, "123456789.125");
    row("1.7976931348623157e308", std::numeric_limits<double>::max(), "1.7976931348623157e+308");
    row("5e-324", std::numeric_limits<double>::denorm_min(), "5e-324");
    row("1e-400", 0.0, "0");
    row("-1e-400", -0.0, "-0");
    row("0e999999", 0.0, "0");
}

void ZarkJsonTest::numbersKeepTheirType()
{
    QFETCH(QVariant, value);
    QFETCH(QByteArray, written);
    ZarkError error;
    const QVariant read = ZarkJson::parse(QByteArray(QTest::currentDataTag()), &error);
    QCOMPARE(error.toString(), QString());
    QCOMPARE(read.userType(), value.userType());
    QCOMPARE(read, value);
    QCOMPARE(std::signbit(read.toDouble()), std::signbit(value.toDouble()));
    QCOMPARE(ZarkJson::serialize(read), written);
}

void ZarkJsonTest::wrongTextsAreRefusedWithTheirPlace_data()
{
    QTest::addColumn<QByteArray>("text");
    QTest::addColumn<int>("line");
    QTest::addColumn<int>("column");
    const auto row = [](const char* name, const QByteArray& text, int column, int line = 1) {
        QTest::newRow(name) << text << line << column;
    };
    row("empty", "", 1);
    row("white space only", " \n ", 2, 2);
    row("byte order mark", "\xEF\xBB\xBF{}", 1);
    row("form feed is no white space", "\f1", 1);
    row("text after the value", "{} x", 4);
    row("second value", "1\n2", 1, 2);
    row("NUL after the value", QByteArray("1\0", 2), 2);
    row("comment", "[1, // x\n2]", 5);
    row("no digit after the point", "2.e3", 3);
    row("no digit before the point", ".1", 1);
    row("leading zero", "01", 2);
    row("negative leading zero", "-00", 3);
    row("plus sign", "+1", 1);
    row("minus alone", "[-]", 3);
    row("exponent without a digit", "1e+", 4);
    row("hexadecimal", "0x10", 2);
    row("NaN", "NaN", 1);
    row("Infinity", "-Infinity", 2);
    row("beyond a double", "[1, 1e309]", 5);
    row("integer beyond a double", QByteArray(400, '9'), 1);
    row("misspelt literal", "trUe", 3);
    row("upper case", "True", 1);
    row("single quotes", "'a'", 1);
    row("trailing comma in an array", "[1,]", 4);
    row("trailing comma in an object", "{\"a\":1,}", 8);
    row("leading comma", "[,1]", 2);
    row("no comma", "[1 2]", 4);
    row("no colon", "{\"a\" 1}", 6);
    row("key without quotes", "{a:1}", 2);
    row("key that is a number", "{1:1}", 2);
    row("wrong bracket", "[1}", 3);
    row("raw line feed in a string", "\"a\nb\"", 3);
    row("raw control character", "\"a\x1f\"", 3);
    row("raw tab after an escape", "\"\\n\t\"", 4);
    row("unknown escape", R"("a\x")", 4);
    row("short \\u", R"("\u12")", 6);
    row("\\u with a sign", R"("\u+123")", 4);
    row("lone high surrogate", R"("a\uD800")", 3);
    row("lone low surrogate", R"("\uDC00")", 2);
    row("high surrogate and a letter", R"("\uD800\u0041")", 2);
    row("two high surrogates", R"("\uD800\uD800")", 2);
    row("lone continuation byte", "\"\x80\"", 2);
    row("overlong, 2 bytes", "\"\xC0\xAF\"", 2);
    row("overlong, 3 bytes", "\"\xE0\x9F\xBF\"", 2);
    row("overlong, 4 bytes", "\"\xF0\x8F\xBF\xBF\"", 2);
    row("encoded surrogate", "\"\xED\xA0\x80\"", 2);
    row("above U+10FFFF", "\"\xF4\x90\x80\x80\"", 2);
    row("byte FF", "\"\xFF\"", 2);
    row("sequence cut by a quote", "\"\xE2\x82\"", 2);
    row("sequence cut by the end", "\"\xE2\x82", 2);
    row("invalid UTF-8 outside a string", "[\xFF]", 2);
    row("columns are characters, lines end with LF", "{\r\n \"ü😀\": x}", 8, 2);
}

void ZarkJsonTest::wrongTextsAreRefusedWithTheirPlace()
{
    QFETCH(QByteArray, text);
    QFETCH(int, line);
    QFETCH(int, column);
    ZarkError error;
    QVERIFY(!ZarkJson::parse(text, &error).isValid());
    QVERIFY(!error.message.isEmpty());
    const QString place = QStringLiteral("line %1, column %2: ").arg(line).arg(column);
    QCOMPARE(error.toString(), place + error.message);
}

void ZarkJsonTest::everyCutOfATextIsRefused()
{
    const QByteArray text = R"({"a":[true,null,"\u0041\n)"
                            "\xC3\xBC"
                            R"(",-1.5e-3],"b":{}})";
    QVERIFY(ZarkJson::parse(text, nullptr).isValid());
    for (int size = 0; size < text.size(); ++size) {
        ZarkError error;
        // A copy of its own size lets AddressSanitizer see a read behind the end.
        QVERIFY2(!ZarkJson::parse(QByteArray(text.constData(), size), &error).isValid(), QByteArray::number(size));
        QVERIFY(!error.isEmpty());
    }
}

void ZarkJsonTest::nestingIsLimited()
{
    ZarkError error;
    QVERIFY(!ZarkJson::parse(QByteArray(129, '[') + QByteArray(129, ']'), &error).isValid());
    QCOMPARE(error.column, 129);
    QVERIFY(!ZarkJson::parse(QByteArray("{\"a\":").repeated(1000000), &error).isValid());
    QCOMPARE(error.column, 128 * 5 + 1);
    // Beside each other there may be any number.
    QVERIFY(ZarkJson::parse("[" + QByteArray("[{}],").repeated(500) + "[]]", &error).isValid());
}

void ZarkJsonTest::textsFromQStringAreCheckedToo()
{
    ZarkError error;
    QVERIFY(!ZarkJson::parse(QStringLiteral("[\n \"😀") + QChar(0xDC00) + QStringLiteral("\"]"), &error).isValid());
    QCOMPARE(error.toString(), QStringLiteral("line 2, column 4: lone surrogate"));
    QVERIFY(!ZarkJson::parse(QStringLiteral("\"") + QChar(0xD800), &error).isValid());
    QVERIFY(!ZarkJson::parse(QString(), &error).isValid());
}

void ZarkJsonTest::linesAreRecorded()
{
    const QByteArray text = "\n{\"a\": [{},\r\n{\"b\": \"\\n\"}],\n\"@line\": 7}";
    const QByteArray recorded = ZarkJson::serialize(ZarkJson::parse(text, nullptr, ZarkJson::RecordLines));
    QCOMPARE(recorded, QByteArray(R"({"@line":2,"a":[{"@line":2},{"@line":3,"b":"\n"}]})"));
    QVERIFY(!ZarkJson::serialize(ZarkJson::parse(QByteArray("{}"), nullptr)).contains("@line"));
}

void ZarkJsonTest::valuesAreWritten_data()
{
    QTest::addColumn<QVariant>("value");
    QTest::addColumn<QByteArray>("json");
    const auto row = [](const char* name, const QVariant& value, const QByteArray& json) {
        QTest::newRow(name) << value << json;
    };
    row("invalid", QVariant(), "null");
    row("NaN", qQNaN(), "null");
    row("minus infinity", -qInf(), "null");
    row("int", -42, "-42");
    row("uint", 4000000000U, "4000000000");
    row("short", QVariant::fromValue(short(-3)), "-3");
    row("float", 0.5F, "0.5");
    row("bytes", QByteArray("\0\xff", 2), R"("AP8=")");
    row("string list", QStringList{ "a", "b" }, R"(["a","b"])");
    row("time", QDateTime::fromMSecsSinceEpoch(1234567890123), "1234567890123");
    row("no time", QDateTime(), "null");
    row("map", QVariantMap{ { "b", 1 }, { "a", 2 } }, R"({"a":2,"b":1})");
    row("sorted keys", QVariantHash{ { "b", 1 }, { "a", 2 }, { "", 3 }, { "B", 4 } }, R"({"":3,"B":4,"a":2,"b":1})");
    row("value", QVariant::fromValue(ZarkValue::fromI32(42)), R"({"type":"i32","value":42})");
    row("invalid value", QVariant::fromValue(ZarkValue()), "null");
    row("translatable text", QVariant::fromValue(TrString("Volume")), R"("Volume")");
    row("escapes", QString("\"\\/\b\f\n\r\t\x01\x0b\x1f\x7f"), "\"\\\"\\\\/\\b\\f\\n\\r\\t\\u0001\\u000b\\u001f\x7f\"");
    row("line separators as they are", QString::fromUtf8("\u2028\u2029"), "\"\u2028\u2029\"");
    row("all lengths of UTF-8", QString::fromUtf8("aü€😀"), "\"aü€😀\"");
    row("high surrogate before a letter", QString(QChar(0xD800)) + 'x', "\"\uFFFDx\"");
    row("high surrogate at the end", QString(QChar(0xD800)), "\"\uFFFD\"");
    row("surrogates in the wrong order", QString(QChar(0xDC00)) + QChar(0xD800), "\"\uFFFD\uFFFD\"");
    row("longer than a buffer", QString::fromUtf8("€").repeated(1000), '"' + QByteArray("€").repeated(1000) + '"');
    ZarkRowsRoles rows;
    rows.setRoles(ZarkRoles({ { ZarkRoles::Title(), "List" } }));
    rows.setRows({ { 1, "a" }, { 2, "b" } });
    rows.setFrom(5);
    rows.setRowsCount(9);
    rows.setRowsVersion(1LL << 40);
    row("rows", QVariant::fromValue(rows),
        R"({"from":5,"roles":{"title":"List"},"rows":[[1,"a"],[2,"b"]],"rowsCount":9,"rowsVersion":1099511627776})");
}

void ZarkJsonTest::valuesAreWritten()
{
    QFETCH(QVariant, value);
    QTEST(ZarkJson::serialize(value), "json");
}

void ZarkJsonTest::translatedTextsAreWritten()
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

QTEST_GUILESS_MAIN(ZarkJsonTest)
#include "ZarkJsonTest.moc"
