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
        row("mixed", "{\"a\" : [1, \"x\",null, { },[\n]] ,\"\":true}", QVariantHash{ { "a", mixed }, { "", true } });
        row("of equal keys the last", "{\"a\":{\"x\":1},\"a\":2}", QVariantHash{ { "a", 2LL } });
        row("escaped NUL", R"("\u0000")", QString(QChar(0)));
        row("UTF-8 of 2 to 4 bytes", "\"\xC2\x80\xE0\xA0\x80\xED\x9F\xBF\xF4\x8F\xBF\xBF\"",
            QString::fromUtf8("\xC2\x80\xE0\xA0\x80\xED\x9F\xBF\xF4\x8F\xBF\xBF"));
        row("a byte order mark in a string stays", "\"\xEF\xBB\xBFx\"", QString(QChar(0xFEFF)) + 'x');
        const QByteArray many = QByteArray("\xC3\xBC\\n\\\\\\\"").repeated(2000);
        const QString whole = QString::fromUtf8("ü\n\\\"").repeated(2000);
        row("long strings", "{\"" + many + "\":[\"\xEF\xBB\xBF" + many + R"(","\u0041)" + many + "\"]}",
            QVariantHash{ { whole, QVariantList{ QChar(0xFEFF) + whole, 'A' + whole } } });
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
        add("NUL after the value", QByteArray("1\0", 2), 2);
        add("NUL alone", QByteArray("\0", 1), 1);
        add("beyond a double", "[1, 1e309]", 9);
        add("a secret", "\"SECRET\x01\"", 8);
        add("columns are characters, lines end with LF", "{\r\n \"ü😀\": x}", 8, 2);
        add("behind a long string", "[\"" + QByteArray(5000, 'x') + "\",\n x]", 2, 2);
        add("half a character in a long string", '"' + QByteArray(5000, 'x') + "\xC3\"", 5003);
        add("one level too deep", QByteArray(129, '[') + QByteArray(129, ']'), 129);
        add("a million levels", QByteArray("{\"a\":").repeated(1000000), 128 * 5 + 1);
        for (const auto& [text, place] : row) {
            ZarkError error;
            QVERIFY(!ZarkJson::parse(text, &error).isValid());
            QVERIFY(!error.message.isEmpty() && !error.message.contains("SECRET"));
            QCOMPARE(error.toString().chopped(error.message.size()), place);
        }
    }

    void aLoneSurrogateIsRefused()
    {
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
        row("lone surrogate", QString(QChar(0xD800)) + 'x', "\"?x\"");
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
