#include <QtTest>

#include "Rows.h"
#include "ZarkJson.h"
#include "ZarkPermission.h"
#include "ZarkRowEvent.h"
#include "ZarkValue.h"

using Type = ZarkValueType;

/// A type, a text, and the plain value that it makes; "" for what is refused.
class Cases : public Rows<QString, QByteArray, QByteArray> {
public:
    void taken(const char* type, const char* text, const char* plain)
    {
        (*this)(QByteArray(type) + " from " + text, type, text, plain);
    }
    void refused(const char* type, const char* text) { taken(type, text, ""); }
};

class ZarkValueTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void jsonIsReadStrictly()
    {
        Cases row;
        row.taken("i32", R"({"type":"i32","value":-2147483648,"@line":4})", "-2147483648");
        for (const char* json : { "-2147483649", "42.0", "-0", R"({"type":"i32","value":1,"more":2})",
                 R"({"type":"i32","value":{"type":"i32","value":1}})", R"({"type":1,"value":1})", R"({"value":1})" })
            row.refused("i32", json);
        row.refused("i64", "1e3");
        // A double takes those integers only that it holds exactly.
        for (const char* json : { "42", "-9007199254740992", "9007199254740994", "18446744073709549568" })
            row.taken("double", json, json);
        for (const char* json : { "9007199254740993", "9223372036854775807", "18446744073709551615", R"("4.5")" })
            row.refused("double", json);
        row.refused("string", "1");
        row.taken("bytes", R"("")", R"("")");
        for (const char* json : { R"("AP8")", R"("AP9=")", R"("A P8=")", R"("__8=")", "[0]" })
            row.refused("bytes", json);
        row.taken("stringList", "[]", "[]");
        row.refused("", "1");

        row.taken("webserverAuthMode", R"({"mode":"off","@line":3})", R"({"mode":"off"})");
        row.taken("webserverAuthMode", "3", R"({"mode":"everything"})");
        row.taken("webserverAuthMode", R"("2")", R"({"mode":"writesAndEvents"})");
        for (const char* json : { "4", "1.0", R"("Writes")", R"({"mode":"off","x":1})" })
            row.refused("webserverAuthMode", json);
        row.taken("webserverUsers", "[]", R"({"users":[]})");
        row.taken("webserverUsers", R"({"users":[{"name":"a","password":"p"},{"name":"b","password":"p"}],"@line":1})",
            R"({"users":[{"name":"a","password":"p"},{"name":"b","password":"p"}]})");
        for (const char* json : { R"([{"name":"a","password":"1"},{"name":"a","password":"2"}])", R"(["a"])",
                 R"([{"name":"","password":""}])", R"([{"name":"a","password":1}])", R"({"users":{}})" })
            row.refused("webserverUsers", json);
        row.taken("webserverChangePassword", R"({"name":"a","oldPassword":"","newPassword":"n"})",
            R"({"name":"a","newPassword":"n","oldPassword":""})");
        row.refused("webserverChangePassword", R"({"name":"a","oldPassword":""})");
        row.refused("webserverChangePassword", R"({"name":"a","oldPassword":null,"newPassword":"n"})");
        row.taken("networkInfo", R"({"wired":{"name":"e","addresses":[{"ip":"::1","prefixLength":128,"@line":1}]}})",
            R"({"wired":{"addresses":[{"ip":"::1","prefixLength":128}],"name":"e"}})");
        for (const char* json : { R"({"wired":[]})", R"({"wired":{"name":1}})", R"({"bluetooth":{}})",
                 R"({"wireless":{"addresses":[{"prefixLength":1}]}})", R"({"softAp":{"aps":[{"addresses":{}}]}})",
                 R"({"wireless":{"addresses":[{"ip":"x","prefixLength":-1}]}})" })
            row.refused("networkInfo", json);
        for (const auto& [type, text, plain] : row) {
            const QVariant parsed = ZarkJson::parse(text, nullptr);
            QVERIFY(parsed.isValid());
            QString error;
            const ZarkValue value = ZarkValue::fromJson(parsed, Type::fromString(type), &error);
            check(value, error, plain);
            if (!value.isValid())
                continue;
            // Whichever way the value went out, it comes back as the same.
            const QByteArray sent = ZarkJson::serialize(QVariant::fromValue(value));
            QCOMPARE(ZarkValue(ZarkJson::parse(sent, nullptr)), value);
            QCOMPARE(ZarkValue(value.toVariant()), value);
            QCOMPARE(ZarkValue::fromJson(QVariant::fromValue(value), value.type(), nullptr), value);
        }
    }

    void errorsAreSentences()
    {
        Rows<QString, QByteArray> row;
        const auto add = [&](const char* type, const char* json, const char* error) {
            row(error, type, json);
        };
        add("i32", "4.5", "expected an i32, got a double");
        add("i32", "2147483648", "2147483648 is out of the range of an i32");
        add("bool", "null", "expected a bool, got null");
        add("i32", R"({"type":"string","value":"x"})", "expected an i32, got a string");
        add("stringList", "[1]", "expected a list of strings, got an integer in it");
        add("webserverUsers", R"([{"name":"a"}])", "a user: \"password\" is missing");
        add("networkInfo", R"({"wired":{"addresses":1}})", "addresses: expected a list, got an integer");
        for (const auto& [type, json] : row) {
            QString error;
            QVERIFY(!ZarkValue::fromJson(ZarkJson::parse(json, nullptr), Type::fromString(type), &error).isValid());
            QCOMPARE(error, QString(row.name()));
        }
    }

    void textsAreRead()
    {
        Cases row;
        row.refused("bool", "yes");
        row.taken("i32", "-42", "-42");
        row.refused("i32", "042");
        row.refused("i32", "");
        row.taken("double", "1e3", "1000");
        row.taken("string", "42", R"("42")");
        row.taken("string", "", R"("")");
        row.taken("bytes", "AP8=", R"("AP8=")");
        row.taken("stringList", R"(["a"])", R"(["a"])");
        row.refused("stringList", "a");
        row.taken("webserverAuthMode", "writes", R"({"mode":"writes"})");
        row.taken("webserverAuthMode", R"({"mode":"off"})", R"({"mode":"off"})");
        row.refused("webserverAuthMode", "sometimes");
        for (const auto& [type, text, plain] : row) {
            QString error;
            const ZarkValue value = ZarkValue::fromText(QString::fromUtf8(text), Type::fromString(type), &error);
            check(value, error, plain);
        }
    }

    void gettersAnswerTheirOwnTypeOnly()
    {
        const ZarkValue i32 = ZarkValue::fromI32(-7);
        QVERIFY(i32.i64() == 0 && i32.double_() == 0 && i32.string().isEmpty() && !i32.bool_());
        QCOMPARE(i32.webserverAuthMode(), ZarkWebserverAuthMode::Everything);
        QVERIFY(ZarkValue::fromI32(1) != ZarkValue::fromI64(1));
        QVERIFY(!ZarkValue(QVariant(42)).isValid());
    }

    void namesReadBack()
    {
        for (int type = Type::Bool; type <= Type::NetworkInfo; ++type)
            QCOMPARE(int(Type::fromString(Type::toString(Type::Enum(type)))), type);
        bool ok = false;
        for (auto permission : { ZarkPermission::Open, ZarkPermission::Default, ZarkPermission::Protected }) {
            QCOMPARE(ZarkPermission::fromString(ZarkPermission::toString(permission), &ok), permission);
            QVERIFY(ok);
        }
        // What nobody understands must not open anything.
        for (const char* text : { "", "Open", "internal " }) {
            QCOMPARE(ZarkPermission::fromString(text, &ok), ZarkPermission::Internal);
            QVERIFY(!ok);
            QCOMPARE(ZarkWebserverAuthMode::fromString(text), ZarkWebserverAuthMode::Everything);
        }
        for (const ZarkRowEvent& event : { ZarkRowEvent(ZarkRowEventType::Moved, 4, 2), ZarkRowEvent() })
            QVERIFY(ZarkRowEvent(event.toVariant()) == event);
        QCOMPARE(ZarkRowEvent(QVariantHash{ { "type", 9 } }).type(), ZarkRowEventType::Reset);
    }

private:
    static void check(const ZarkValue& value, const QString& error, const QByteArray& plain)
    {
        QVERIFY2(value.isValid() == !plain.isEmpty(), qPrintable(error));
        QCOMPARE(value.isValid(), error.isEmpty());
        if (value.isValid())
            QCOMPARE(ZarkJson::serialize(value.plain()), plain);
    }
};

QTEST_GUILESS_MAIN(ZarkValueTest)
#include "ZarkValueTest.moc"
