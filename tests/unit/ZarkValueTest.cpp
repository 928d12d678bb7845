#include <QTest>

#include <limits>

#include "ZarkJson.h"
#include "ZarkPermission.h"
#include "ZarkRowEvent.h"
#include "ZarkValue.h"
#include "ZarkWebserverUser.h"

using Type = ZarkValueType;

class ZarkValueTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void jsonIsReadStrictly_data();
    void jsonIsReadStrictly();
    void errorsAreSentences_data();
    void errorsAreSentences();
    void textsAreRead_data();
    void textsAreRead();
    void gettersAnswerTheirOwnTypeOnly();
    void structuredValuesReadBack();
    void namesReadBack();
    void rowEventsReadBack();
};

namespace {

/// A value from JSON: `type` and the text of the plain value inside, or "" for what is refused.
void jsonRow(const char* type, const char* json, const char* plain)
{
    QTest::addRow("%s from %s", type, json) << QString(type) << QByteArray(json) << QByteArray(plain);
}

void structuredRows()
{
    jsonRow("webserverAuthMode", R"("writes")", R"({"mode":"writes"})");
    jsonRow("webserverAuthMode", R"({"mode":"off","@line":3})", R"({"mode":"off"})");
    jsonRow("webserverAuthMode", "3", R"({"mode":"everything"})");
    jsonRow("webserverAuthMode", R"("2")", R"({"mode":"writesAndEvents"})");
    jsonRow("webserverAuthMode", "4", "");
    jsonRow("webserverAuthMode", "1.0", "");
    jsonRow("webserverAuthMode", R"("Writes")", "");
    jsonRow("webserverAuthMode", R"({"mode":"off","x":1})", "");
    jsonRow("webserverUsers", "[]", R"({"users":[]})");
    jsonRow("webserverUsers", R"([{"name":"a","password":""}])", R"({"users":[{"name":"a","password":""}]})");
    jsonRow("webserverUsers", R"({"users":[{"name":"a","password":"p"},{"name":"b","password":"p"}],"@line":1})",
        R"({"users":[{"name":"a","password":"p"},{"name":"b","password":"p"}]})");
    jsonRow("webserverUsers", R"([{"name":"a","password":"1"},{"name":"a","password":"2"}])", "");
    jsonRow("webserverUsers", R"([{"name":"","password":""}])", "");
    jsonRow("webserverUsers", R"([{"name":"a"}])", "");
    jsonRow("webserverUsers", R"([{"name":"a","password":1}])", "");
    jsonRow("webserverUsers", R"(["a"])", "");
    jsonRow("webserverUsers", R"({"users":{}})", "");
    jsonRow("webserverChangePassword", R"({"name":"a","oldPassword":"","newPassword":"n"})",
        R"({"name":"a","newPassword":"n","oldPassword":""})");
    jsonRow("webserverChangePassword", R"({"name":"a","oldPassword":""})", "");
    jsonRow("webserverChangePassword", R"({"name":"a","oldPassword":null,"newPassword":"n"})", "");
    jsonRow("networkInfo", "{}", "{}");
    jsonRow("networkInfo", R"({"wired":{"name":"e","addresses":[{"ip":"::1","prefixLength":128,"@line":1}]}})",
        R"({"wired":{"addresses":[{"ip":"::1","prefixLength":128}],"name":"e"}})");
    jsonRow("networkInfo", R"({"softAp":{"aps":[{"addresses":[]}]}})", R"({"softAp":{"aps":[{"addresses":[]}]}})");
    jsonRow("networkInfo", R"({"wired":[]})", "");
    jsonRow("networkInfo", R"({"wired":{"name":1}})", "");
    jsonRow("networkInfo", R"({"wireless":{"addresses":[{"prefixLength":1}]}})", "");
    jsonRow("networkInfo", R"({"wireless":{"addresses":[{"ip":"x","prefixLength":-1}]}})", "");
    jsonRow("networkInfo", R"({"softAp":{"aps":[{"addresses":{}}]}})", "");
    jsonRow("networkInfo", R"({"bluetooth":{}})", "");
}

} // namespace

void ZarkValueTest::jsonIsReadStrictly_data()
{
    QTest::addColumn<QString>("type");
    QTest::addColumn<QByteArray>("json");
    QTest::addColumn<QByteArray>("plain");
    jsonRow("bool", "true", "true");
    jsonRow("bool", "1", "");
    jsonRow("bool", R"("true")", "");
    jsonRow("bool", "null", "");
    jsonRow("i32", "42", "42");
    jsonRow("i32", R"({"type":"i32","value":-2147483648})", "-2147483648");
    jsonRow("i32", R"({"type":"i32","value":1,"@line":4})", "1");
    jsonRow("i32", R"({"type":"i64","value":1})", "");
    jsonRow("i32", R"({"type":"i32"})", "");
    jsonRow("i32", R"({"type":"i32","value":1,"more":2})", "");
    jsonRow("i32", R"({"type":"i32","value":{"type":"i32","value":1}})", "");
    jsonRow("i32", R"({"type":1,"value":1})", "");
    jsonRow("i32", R"({"value":1})", "");
    jsonRow("i32", "2147483647", "2147483647");
    jsonRow("i32", "2147483648", "");
    jsonRow("i32", "-2147483649", "");
    jsonRow("i32", "42.0", "");
    jsonRow("i32", "-0", "");
    jsonRow("i32", R"("42")", "");
    jsonRow("i32", "true", "");
    jsonRow("i64", "9223372036854775807", "9223372036854775807");
    jsonRow("i64", "-9223372036854775808", "-9223372036854775808");
    jsonRow("i64", "9223372036854775808", "");
    jsonRow("i64", "1e3", "");
    jsonRow("double", "42", "42");
    jsonRow("double", "4.5", "4.5");
    jsonRow("double", "-9007199254740992", "-9007199254740992");
    jsonRow("double", "9007199254740993", "");
    jsonRow("double", "9007199254740994", "9007199254740994");
    jsonRow("double", "-9223372036854775808", "-9223372036854775808");
    jsonRow("double", "9223372036854775807", "");
    jsonRow("double", "18446744073709549568", "18446744073709549568");
    jsonRow("double", "18446744073709551615", "");
    jsonRow("double", R"("4.5")", "");
    jsonRow("string", R"("")", R"("")");
    jsonRow("string", "1", "");
    jsonRow("bytes", R"("AP8=")", R"("AP8=")");
    jsonRow("bytes", R"("")", R"("")");
    jsonRow("bytes", R"("AP8")", "");
    jsonRow("bytes", R"("AP9=")", "");
    jsonRow("bytes", R"("A P8=")", "");
    jsonRow("bytes", R"("__8=")", "");
    jsonRow("bytes", "[0]", "");
    jsonRow("stringList", R"(["a",""])", R"(["a",""])");
    jsonRow("stringList", "[]", "[]");
    jsonRow("stringList", R"(["a",1])", "");
    jsonRow("stringList", R"("a")", "");
    jsonRow("", "1", "");
    structuredRows();
}

void ZarkValueTest::jsonIsReadStrictly()
{
    QFETCH(QString, type);
    QFETCH(QByteArray, json);
    QFETCH(QByteArray, plain);
    ZarkError jsonError;
    const QVariant parsed = ZarkJson::parse(json, &jsonError);
    QCOMPARE(jsonError.toString(), QString());

    QString error;
    const ZarkValue value = ZarkValue::fromJson(parsed, Type::fromString(type), &error);
    QVERIFY2(value.isValid() == !plain.isEmpty(), qPrintable(error));
    QCOMPARE(value.isValid(), error.isEmpty());
    if (!value.isValid())
        return;
    QCOMPARE(ZarkJson::serialize(value.plain()), plain);
    // Whichever way the value went out, it comes back as the same.
    const QByteArray sent = ZarkJson::serialize(QVariant::fromValue(value));
    QCOMPARE(ZarkValue(ZarkJson::parse(sent, nullptr)), value);
    QCOMPARE(ZarkValue(value.toVariant()), value);
    QCOMPARE(ZarkValue::fromJson(QVariant::fromValue(value), value.type(), nullptr), value);
}

void ZarkValueTest::errorsAreSentences_data()
{
    QTest::addColumn<int>("type");
    QTest::addColumn<QByteArray>("json");
    QTest::addColumn<QString>("error");
    const auto row = [](Type::Enum type, const char* json, const char* error) {
        QTest::newRow(error) << int(type) << QByteArray(json) << QString(error);
    };
    row(Type::I32, R"("42")", "expected an i32, got a string");
    row(Type::I32, "4.5", "expected an i32, got a double");
    row(Type::I32, "2147483648", "2147483648 is out of the range of an i32");
    row(Type::Bool, "null", "expected a bool, got null");
    row(Type::I32, R"({"type":"string","value":"x"})", "expected an i32, got a string");
    row(Type::StringList, "[1]", "expected a list of strings, got an integer in it");
    row(Type::WebserverUsers, R"([{"name":"a"}])", "a user: \"password\" is missing");
    row(Type::NetworkInfo, R"({"wired":{"addresses":1}})", "addresses: expected a list, got an integer");
}

void ZarkValueTest::errorsAreSentences()
{
    QFETCH(int, type);
    QFETCH(QByteArray, json);
    QString error;
    QVERIFY(!ZarkValue::fromJson(ZarkJson::parse(json, nullptr), Type::Enum(type), &error).isValid());
    QTEST(error, "error");
}

void ZarkValueTest::textsAreRead_data()
{
    QTest::addColumn<QString>("type");
    QTest::addColumn<QByteArray>("json");
    QTest::addColumn<QByteArray>("plain");
    jsonRow("bool", "true", "true");
    jsonRow("bool", "yes", "");
    jsonRow("i32", "-42", "-42");
    jsonRow("i32", "042", "");
    jsonRow("i32", "", "");
    jsonRow("i64", "9223372036854775807", "9223372036854775807");
    jsonRow("double", "1e3", "1000");
    jsonRow("double", "NaN", "");
    jsonRow("string", "42", R"("42")");
    jsonRow("string", R"({"type":"string","value":"x"})", R"("{\"type\":\"string\",\"value\":\"x\"}")");
    jsonRow("string", "", R"("")");
    jsonRow("bytes", "AP8=", R"("AP8=")");
    jsonRow("stringList", R"(["a"])", R"(["a"])");
    jsonRow("stringList", "a", "");
    jsonRow("webserverAuthMode", "writes", R"({"mode":"writes"})");
    jsonRow("webserverAuthMode", "1", R"({"mode":"writes"})");
    jsonRow("webserverAuthMode", R"({"mode":"off"})", R"({"mode":"off"})");
    jsonRow("webserverAuthMode", "sometimes", "");
}

void ZarkValueTest::textsAreRead()
{
    QFETCH(QString, type);
    QFETCH(QByteArray, json);
    QFETCH(QByteArray, plain);
    QString error;
    const ZarkValue value = ZarkValue::fromText(QString::fromUtf8(json), Type::fromString(type), &error);
    QVERIFY2(value.isValid() == !plain.isEmpty(), qPrintable(error));
    QCOMPARE(value.isValid(), error.isEmpty());
    if (value.isValid())
        QCOMPARE(ZarkJson::serialize(value.plain()), plain);
}

void ZarkValueTest::gettersAnswerTheirOwnTypeOnly()
{
    const ZarkValue i32 = ZarkValue::fromI32(-7);
    QCOMPARE(i32.i32(), -7);
    QCOMPARE(i32.i64(), 0);
    QCOMPARE(i32.double_(), 0.0);
    QCOMPARE(i32.string(), QString());
    QVERIFY(!i32.bool_());
    QCOMPARE(i32.webserverAuthMode(), ZarkWebserverAuthMode::Everything);
    QVERIFY(ZarkValue::fromBool(true).bool_());
    QCOMPARE(ZarkValue::fromI64(std::numeric_limits<qint64>::min()).i64(), std::numeric_limits<qint64>::min());
    QCOMPARE(ZarkValue::fromDouble(-2.5).double_(), -2.5);
    QCOMPARE(ZarkValue::fromBytes(QByteArray("\0\xff", 2)).bytes(), QByteArray("\0\xff", 2));
    QCOMPARE(ZarkValue::fromStringList({ "a", "b" }).stringList(), QStringList({ "a", "b" }));
    QVERIFY(ZarkValue::fromI32(1) != ZarkValue::fromI64(1));
    QVERIFY(!ZarkValue(QVariant(42)).isValid());
    QVERIFY(!ZarkValue().toVariant().isValid());
}

void ZarkValueTest::structuredValuesReadBack()
{
    QCOMPARE(ZarkValue::fromAuthMode(ZarkWebserverAuthMode::Off).webserverAuthMode(), ZarkWebserverAuthMode::Off);

    ZarkValue users;
    const ZarkWebserverUser admin(QStringLiteral("admin"), QStringLiteral("pä\"ss"));
    users.setWebserverUsers({ admin.toVariant() });
    const ZarkValue read = ZarkValue(ZarkJson::parse(ZarkJson::serialize(users.toVariant()), nullptr));
    QCOMPARE(read.webserverUsers().size(), 1);
    QCOMPARE(ZarkWebserverUser(read.webserverUsers().first()), admin);

    const QByteArray json = R"({"wired":{"name":"e0","addresses":[{"ip":"192.0.2.7","prefixLength":24}]},
        "softAp":{"aps":[{"name":"w1","addresses":[{"ip":"192.0.2.9"}]}]}})";
    const ZarkNetworkInfo info =
        ZarkValue::fromJson(ZarkJson::parse(json, nullptr), Type::NetworkInfo, nullptr).networkInfo();
    QCOMPARE(info.wired().name(), QStringLiteral("e0"));
    QCOMPARE(ZarkNetworkAddress(info.wired().addresses().value(0)).prefixLength(), 24);
    QVERIFY(info.wireless().addresses().isEmpty());
    const ZarkNetworkInterface ap(info.softAp().aps().value(0));
    QCOMPARE(ZarkNetworkAddress(ap.addresses().value(0)).ip(), QStringLiteral("192.0.2.9"));
}

void ZarkValueTest::namesReadBack()
{
    for (int type = Type::Bool; type <= Type::NetworkInfo; ++type)
        QCOMPARE(int(Type::fromString(Type::toString(Type::Enum(type)))), type);
    bool ok = false;
    for (auto permission : { ZarkPermission::Open, ZarkPermission::Default, ZarkPermission::Protected }) {
        QCOMPARE(ZarkPermission::fromString(ZarkPermission::toString(permission), &ok), permission);
        QVERIFY(ok);
    }
    // What nobody understands must not open anything.
    for (const char* text : { "", "Open", "0", "internal " }) {
        QCOMPARE(ZarkPermission::fromString(text, &ok), ZarkPermission::Internal);
        QVERIFY(!ok);
        if (qstrcmp(text, "0") != 0)
            QCOMPARE(ZarkWebserverAuthMode::fromString(text), ZarkWebserverAuthMode::Everything);
    }
}

void ZarkValueTest::rowEventsReadBack()
{
    const ZarkRowEvent moved(ZarkRowEventType::Moved, 4, 2);
    QCOMPARE(ZarkJson::serialize(moved.toVariant()), QByteArray(R"({"index":4,"toIndex":2,"type":4})"));
    QVERIFY(ZarkRowEvent(moved.toVariant()) == moved);
    const ZarkRowEvent inserted(ZarkRowEventType::Inserted, 4);
    QCOMPARE(ZarkJson::serialize(inserted.toVariant()), QByteArray(R"({"index":4,"type":1})"));
    QVERIFY(ZarkRowEvent(inserted.toVariant()) == inserted);
    QCOMPARE(ZarkRowEvent(QVariantHash{ { "type", 9 } }).type(), ZarkRowEventType::Reset);
}

QTEST_GUILESS_MAIN(ZarkValueTest)
#include "ZarkValueTest.moc"
