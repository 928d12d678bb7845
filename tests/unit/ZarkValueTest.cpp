#include <QTest>

#include "ZarkJson.h"
#include "ZarkPermission.h"
#include "ZarkRowEvent.h"
#include "ZarkValue.h"

using Type = ZarkValueType;

class ZarkValueTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void jsonIsReadStrictly_data()
    {
        columns();
        taken("i32", R"({"type":"i32","value":-2147483648,"@line":4})", "-2147483648");
        for (const char* json : { "-2147483649", "42.0", "-0", R"({"type":"i32","value":1,"more":2})",
                 R"({"type":"i32","value":{"type":"i32","value":1}})", R"({"type":1,"value":1})", R"({"value":1})" })
            refused("i32", json);
        refused("i64", "1e3");
        // A double takes those integers only that it holds exactly.
        for (const char* json : { "42", "-9007199254740992", "9007199254740994", "18446744073709549568" })
            taken("double", json, json);
        for (const char* json : { "9007199254740993", "9223372036854775807", "18446744073709551615", R"("4.5")" })
            refused("double", json);
        refused("string", "1");
        taken("bytes", R"("")", R"("")");
        for (const char* json : { R"("AP8")", R"("AP9=")", R"("A P8=")", R"("__8=")", "[0]" })
            refused("bytes", json);
        taken("stringList", "[]", "[]");
        refused("", "1");

        taken("webserverAuthMode", R"({"mode":"off","@line":3})", R"({"mode":"off"})");
        taken("webserverAuthMode", "3", R"({"mode":"everything"})");
        taken("webserverAuthMode", R"("2")", R"({"mode":"writesAndEvents"})");
        for (const char* json : { "4", "1.0", R"("Writes")", R"({"mode":"off","x":1})" })
            refused("webserverAuthMode", json);
        taken("webserverUsers", "[]", R"({"users":[]})");
        taken("webserverUsers", R"({"users":[{"name":"a","password":"p"},{"name":"b","password":"p"}],"@line":1})",
            R"({"users":[{"name":"a","password":"p"},{"name":"b","password":"p"}]})");
        for (const char* json : { R"([{"name":"a","password":"1"},{"name":"a","password":"2"}])", R"(["a"])",
                 R"([{"name":"","password":""}])", R"([{"name":"a","password":1}])", R"({"users":{}})" })
            refused("webserverUsers", json);
        taken("webserverChangePassword", R"({"name":"a","oldPassword":"","newPassword":"n"})",
            R"({"name":"a","newPassword":"n","oldPassword":""})");
        refused("webserverChangePassword", R"({"name":"a","oldPassword":""})");
        refused("webserverChangePassword", R"({"name":"a","oldPassword":null,"newPassword":"n"})");
        taken("networkInfo", R"({"wired":{"name":"e","addresses":[{"ip":"::1","prefixLength":128,"@line":1}]}})",
            R"({"wired":{"addresses":[{"ip":"::1","prefixLength":128}],"name":"e"}})");
        for (const char* json : { R"({"wired":[]})", R"({"wired":{"name":1}})", R"({"bluetooth":{}})",
                 R"({"wireless":{"addresses":[{"prefixLength":1}]}})", R"({"softAp":{"aps":[{"addresses":{}}]}})",
                 R"({"wireless":{"addresses":[{"ip":"x","prefixLength":-1}]}})" })
            refused("networkInfo", json);
    }

    void jsonIsReadStrictly()
    {
        QFETCH(QString, type);
        QFETCH(QByteArray, text);
        const QVariant parsed = ZarkJson::parse(text, nullptr);
        QVERIFY(parsed.isValid());
        QString error;
        const ZarkValue value = ZarkValue::fromJson(parsed, Type::fromString(type), &error);
        check(value, error);
        if (!value.isValid())
            return;
        // Whichever way the value went out, it comes back as the same.
        const QByteArray sent = ZarkJson::serialize(QVariant::fromValue(value));
        QCOMPARE(ZarkValue(ZarkJson::parse(sent, nullptr)), value);
        QCOMPARE(ZarkValue(value.toVariant()), value);
        QCOMPARE(ZarkValue::fromJson(QVariant::fromValue(value), value.type(), nullptr), value);
    }

    void errorsAreSentences_data()
    {
        QTest::addColumn<QString>("type");
        QTest::addColumn<QByteArray>("json");
        const auto row = [](const char* type, const char* json, const char* error) {
            QTest::newRow(error) << QString(type) << QByteArray(json);
        };
        row("i32", "4.5", "expected an i32, got a double");
        row("i32", "2147483648", "2147483648 is out of the range of an i32");
        row("bool", "null", "expected a bool, got null");
        row("i32", R"({"type":"string","value":"x"})", "expected an i32, got a string");
        row("stringList", "[1]", "expected a list of strings, got an integer in it");
        row("webserverUsers", R"([{"name":"a"}])", "a user: \"password\" is missing");
        row("networkInfo", R"({"wired":{"addresses":1}})", "addresses: expected a list, got an integer");
    }

    void errorsAreSentences()
    {
        QFETCH(QString, type);
        QFETCH(QByteArray, json);
        QString error;
        QVERIFY(!ZarkValue::fromJson(ZarkJson::parse(json, nullptr), Type::fromString(type), &error).isValid());
        QCOMPARE(error, QString(QTest::currentDataTag()));
    }

    void textsAreRead_data()
    {
        columns();
        refused("bool", "yes");
        taken("i32", "-42", "-42");
        refused("i32", "042");
        refused("i32", "");
        taken("double", "1e3", "1000");
        taken("string", "42", R"("42")");
        taken("string", "", R"("")");
        taken("bytes", "AP8=", R"("AP8=")");
        taken("stringList", R"(["a"])", R"(["a"])");
        refused("stringList", "a");
        taken("webserverAuthMode", "writes", R"({"mode":"writes"})");
        taken("webserverAuthMode", R"({"mode":"off"})", R"({"mode":"off"})");
        refused("webserverAuthMode", "sometimes");
    }

    void textsAreRead()
    {
        QFETCH(QString, type);
        QFETCH(QByteArray, text);
        QString error;
        const ZarkValue value = ZarkValue::fromText(QString::fromUtf8(text), Type::fromString(type), &error);
        check(value, error);
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
    static void columns()
    {
        QTest::addColumn<QString>("type");
        QTest::addColumn<QByteArray>("text");
        QTest::addColumn<QByteArray>("plain"); // Of the value; "" for what is refused.
    }
    static void taken(const char* type, const char* text, const char* plain)
    {
        QTest::addRow("%s from %s", type, text) << QString(type) << QByteArray(text) << QByteArray(plain);
    }
    static void refused(const char* type, const char* text) { taken(type, text, ""); }
    static void check(const ZarkValue& value, const QString& error)
    {
        QFETCH(QByteArray, plain);
        QVERIFY2(value.isValid() == !plain.isEmpty(), qPrintable(error));
        QCOMPARE(value.isValid(), error.isEmpty());
        if (value.isValid())
            QCOMPARE(ZarkJson::serialize(value.plain()), plain);
    }
};

QTEST_GUILESS_MAIN(ZarkValueTest)
#include "ZarkValueTest.moc"
