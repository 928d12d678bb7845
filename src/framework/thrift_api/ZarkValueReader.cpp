#include "ZarkValueReader.h"

#include <QSet>

#include <cmath>
#include <limits>

#include "ZarkWebserverAuthMode.h"
#include "ZarkWebserverUser.h"

namespace {

bool isNegativeCapable(int type)
{
    return type == QMetaType::Int || type == QMetaType::LongLong || type == QMetaType::Long || type == QMetaType::Short
        || type == QMetaType::SChar;
}

bool isUnsigned(int type)
{
    return type == QMetaType::UInt || type == QMetaType::ULongLong || type == QMetaType::ULong
        || type == QMetaType::UShort || type == QMetaType::UChar;
}

bool isInteger(const QVariant& json)
{
    return isNegativeCapable(json.userType()) || isUnsigned(json.userType());
}

bool isDouble(const QVariant& json)
{
    return json.userType() == QMetaType::Double || json.userType() == QMetaType::Float;
}

bool isText(const QVariant& json)
{
    return json.userType() == QMetaType::QString;
}

bool isList(const QVariant& json)
{
    return json.userType() == QMetaType::QVariantList || json.userType() == QMetaType::QStringList;
}

bool isObject(const QVariant& json)
{
    return json.userType() == QMetaType::QVariantHash || json.userType() == QMetaType::QVariantMap;
}

QString withArticle(const QString& noun)
{
    const bool vowel = !noun.isEmpty() && QStringLiteral("aeio").contains(noun.at(0));
    return (vowel ? QStringLiteral("an ") : QStringLiteral("a ")) + noun;
}

/// What a value is, in a sentence: "a string".
QString kindOf(const QVariant& json)
{
    if (!json.isValid())
        return QStringLiteral("nothing");
    if (json.userType() == QMetaType::Nullptr)
        return QStringLiteral("null");
    if (json.userType() == QMetaType::Bool)
        return QStringLiteral("a bool");
    if (isInteger(json))
        return QStringLiteral("an integer");
    if (isDouble(json))
        return QStringLiteral("a double");
    if (isText(json))
        return QStringLiteral("a string");
    if (isList(json))
        return QStringLiteral("a list");
    if (isObject(json))
        return QStringLiteral("an object");
    return withArticle(QLatin1String(json.typeName()));
}

bool isExactDouble(const QVariant& integer)
{
    qulonglong magnitude = integer.toULongLong();
    if (isNegativeCapable(integer.userType()) && integer.toLongLong() < 0)
        magnitude = 0 - magnitude;
    while (magnitude > (1ULL << 53) && (magnitude & 1) == 0)
        magnitude >>= 1;
    return magnitude <= (1ULL << 53);
}

} // namespace

QVariant ZarkValueReader::read(const QVariant& json)
{
    if (!isObject(json) || !json.toHash().contains(QStringLiteral("type")))
        return readPlain(json);

    const QStringList keys{ QStringLiteral("type"), QStringLiteral("value") };
    const QVariant typed = readObject(json, "a typed value", keys, keys);
    if (!typed.isValid())
        return {};
    const QVariantHash fields = typed.toHash();
    const QVariant type = fields.value(QStringLiteral("type"));
    const ZarkValueType::Enum actual =
        isText(type) ? ZarkValueType::fromString(type.toString()) : ZarkValueType::Invalid;
    if (actual == ZarkValueType::Invalid)
        return fail(QStringLiteral("unknown value type"));
    if (actual != m_type) {
        return fail(
            QStringLiteral("expected %1, got %2")
                .arg(withArticle(ZarkValueType::toString(m_type)), withArticle(ZarkValueType::toString(actual))));
    }
    return readPlain(fields.value(QStringLiteral("value")));
}

QVariant ZarkValueReader::readPlain(const QVariant& json)
{
    switch (m_type) {
    case ZarkValueType::Bool:
        return json.userType() == QMetaType::Bool ? json : failExpected(json);
    case ZarkValueType::I32:
        return readInteger(json, std::numeric_limits<qint32>::min(), std::numeric_limits<qint32>::max());
    case ZarkValueType::I64:
        return readInteger(json, std::numeric_limits<qlonglong>::min(), std::numeric_limits<qlonglong>::max());
    case ZarkValueType::Double:
        return readDouble(json);
    case ZarkValueType::String:
        return isText(json) ? json : failExpected(json);
    case ZarkValueType::Bytes:
        return readBytes(json);
    case ZarkValueType::StringList:
        return readStringList(json);
    case ZarkValueType::WebserverAuthMode:
        return readAuthMode(json);
    case ZarkValueType::WebserverUsers:
        return readUsers(json);
    case ZarkValueType::WebserverChangePassword:
        return readChangePassword(json);
    case ZarkValueType::NetworkInfo:
        return readNetworkInfo(json);
    case ZarkValueType::Invalid:
        break;
    }
    return fail(QStringLiteral("unknown value type"));
}

QVariant ZarkValueReader::readInteger(const QVariant& json, qlonglong minimum, qlonglong maximum)
{
    if (!isInteger(json))
        return failExpected(json);
    const bool isTooLarge = isUnsigned(json.userType()) && json.toULongLong() > qulonglong(maximum);
    const qlonglong number = json.toLongLong();
    if (isTooLarge || number < minimum || number > maximum) {
        return fail(QStringLiteral("%1 is out of the range of %2")
                        .arg(json.toString(), withArticle(ZarkValueType::toString(m_type))));
    }
    return number;
}

QVariant ZarkValueReader::readDouble(const QVariant& json)
{
    if (isInteger(json)) {
        if (!isExactDouble(json))
            return fail(QStringLiteral("%1 is not exact as a double").arg(json.toString()));
        return isUnsigned(json.userType()) ? double(json.toULongLong()) : double(json.toLongLong());
    }
    if (!isDouble(json))
        return failExpected(json);
    if (!std::isfinite(json.toDouble()))
        return fail(QStringLiteral("expected a finite number"));
    return json.toDouble();
}

QVariant ZarkValueReader::readBytes(const QVariant& json)
{
    if (!isText(json))
        return failExpected(json);
    const QByteArray base64 = json.toString().toUtf8();
    // Encoding it again shuts out what decoders overlook: missing padding and stray bits.
    const auto decoded = QByteArray::fromBase64Encoding(base64, QByteArray::AbortOnBase64DecodingErrors);
    if (!decoded || decoded.decoded.toBase64() != base64)
        return fail(QStringLiteral("expected Base64"));
    return json;
}

QVariant ZarkValueReader::readStringList(const QVariant& json)
{
    if (!isList(json))
        return failExpected(json);
    const QVariantList items = json.toList();
    for (const QVariant& item : items) {
        if (!isText(item))
            return fail(QStringLiteral("expected a list of strings, got %1 in it").arg(kindOf(item)));
    }
    return items;
}

QVariant ZarkValueReader::readAuthMode(const QVariant& json)
{
    const QString key = QStringLiteral("mode");
    QVariant mode = json;
    if (isObject(json)) {
        const QVariant object = readObject(json, "an authentication mode", { key }, { key });
        if (!object.isValid())
            return {};
        mode = object.toHash().value(key);
    }
    if (!isText(mode) && !isInteger(mode))
        return failExpected(mode);
    bool ok = false;
    const ZarkWebserverAuthMode::Enum value = ZarkWebserverAuthMode::fromString(mode.toString(), &ok);
    if (!ok)
        return fail(QStringLiteral("expected off, writes, writesAndEvents or everything"));
    return QVariantHash{ { key, ZarkWebserverAuthMode::toString(value) } };
}

QVariant ZarkValueReader::readUsers(const QVariant& json)
{
    if (isList(json))
        return readUserList(json.toList());
    const QString key = QStringLiteral("users");
    const QVariant object = readObject(json, "webserverUsers", { key }, { key });
    if (!object.isValid())
        return {};
    const QVariant users = object.toHash().value(key);
    return isList(users) ? readUserList(users.toList()) : fail(QStringLiteral("users: expected a list"));
}

QVariant ZarkValueReader::readUserList(const QVariantList& items)
{
    QVariantList users;
    QSet<QString> names;
    for (const QVariant& item : items) {
        const QVariant object = readTexts(item, "a user", { QStringLiteral("name"), QStringLiteral("password") });
        if (!object.isValid())
            return {};
        const QString name = ZarkWebserverUser(object).name();
        if (name.isEmpty())
            return fail(QStringLiteral("a user has an empty name"));
        if (names.contains(name))
            return fail(QStringLiteral("two users are named \"%1\"").arg(name));
        names.insert(name);
        users.append(object);
    }
    return QVariantHash{ { QStringLiteral("users"), users } };
}

QVariant ZarkValueReader::readChangePassword(const QVariant& json)
{
    return readTexts(json, "webserverChangePassword",
        { QStringLiteral("name"), QStringLiteral("oldPassword"), QStringLiteral("newPassword") });
}

QVariant ZarkValueReader::readNetworkInfo(const QVariant& json)
{
    const QStringList keys{ QStringLiteral("wired"), QStringLiteral("wireless"), QStringLiteral("softAp") };
    const QVariant object = readObject(json, "networkInfo", keys, {});
    if (!object.isValid())
        return {};
    QVariantHash info = object.toHash();
    const auto readLink = [this](const QVariant& item) {
        return readInterface(item);
    };
    const bool ok = replaceField(info, "wired", readLink) && replaceField(info, "wireless", readLink)
        && replaceField(info, "softAp", [this](const QVariant& item) { return readSoftAp(item); });
    return ok ? QVariant(info) : QVariant();
}

QVariant ZarkValueReader::readSoftAp(const QVariant& json)
{
    const QVariant object = readObject(json, "softAp", { QStringLiteral("aps") }, {});
    if (!object.isValid())
        return {};
    QVariantHash softAp = object.toHash();
    const bool ok = replaceEach(softAp, "aps", [this](const QVariant& item) { return readInterface(item); });
    return ok ? QVariant(softAp) : QVariant();
}

QVariant ZarkValueReader::readInterface(const QVariant& json)
{
    const QString name = QStringLiteral("name");
    const QVariant object = readObject(json, "an interface", { name, QStringLiteral("addresses") }, {});
    if (!object.isValid())
        return {};
    QVariantHash link = object.toHash();
    if (link.contains(name) && !isText(link.value(name)))
        return fail(QStringLiteral("an interface: name: expected a string, got %1").arg(kindOf(link.value(name))));
    const bool ok = replaceEach(link, "addresses", [this](const QVariant& item) { return readAddress(item); });
    return ok ? QVariant(link) : QVariant();
}

QVariant ZarkValueReader::readAddress(const QVariant& json)
{
    const QString ip = QStringLiteral("ip");
    const QString prefixLength = QStringLiteral("prefixLength");
    const QVariant object = readObject(json, "an address", { ip, prefixLength }, { ip });
    if (!object.isValid())
        return {};
    const QVariantHash address = object.toHash();
    if (!isText(address.value(ip)) || address.value(ip).toString().isEmpty())
        return fail(QStringLiteral("an address: ip: expected a string that is not empty"));
    const QVariant length = address.value(prefixLength, 0);
    if (!isInteger(length) || length.toLongLong() < 0 || length.toULongLong() > 128)
        return fail(QStringLiteral("an address: prefixLength: expected an integer from 0 to 128"));
    return address;
}

/// The object without "@line"; refuses other keys than `keys`, and the lack of one of `required`.
QVariant ZarkValueReader::readObject(
    const QVariant& json, const char* what, const QStringList& keys, const QStringList& required)
{
    if (!isObject(json))
        return fail(QStringLiteral("expected %1, got %2").arg(QLatin1String(what), kindOf(json)));
    QVariantHash fields = json.toHash();
    fields.remove(QStringLiteral("@line"));
    for (auto it = fields.cbegin(); it != fields.cend(); ++it) {
        if (!keys.contains(it.key()))
            return fail(QStringLiteral("%1: unknown key \"%2\"").arg(QLatin1String(what), it.key()));
    }
    for (const QString& key : required) {
        if (!fields.contains(key))
            return fail(QStringLiteral("%1: \"%2\" is missing").arg(QLatin1String(what), key));
    }
    return fields;
}

/// An object of texts, all of which are required.
QVariant ZarkValueReader::readTexts(const QVariant& json, const char* what, const QStringList& keys)
{
    const QVariant object = readObject(json, what, keys, keys);
    const QVariantHash fields = object.toHash();
    for (auto it = fields.cbegin(); it != fields.cend(); ++it) {
        if (!isText(*it)) {
            return fail(
                QStringLiteral("%1: %2: expected a string, got %3").arg(QLatin1String(what), it.key(), kindOf(*it)));
        }
    }
    return object;
}

template <class Reader> bool ZarkValueReader::replaceEach(QVariantHash& fields, const char* key, Reader readItem)
{
    return replaceField(fields, key, [this, key, readItem](const QVariant& json) -> QVariant {
        if (!isList(json))
            return fail(QStringLiteral("%1: expected a list, got %2").arg(QLatin1String(key), kindOf(json)));
        QVariantList items = json.toList();
        for (QVariant& item : items) {
            item = readItem(item);
            if (!item.isValid())
                return {};
        }
        return items;
    });
}

template <class Reader> bool ZarkValueReader::replaceField(QVariantHash& fields, const char* key, Reader readField)
{
    const auto field = fields.find(QLatin1String(key));
    if (field == fields.end())
        return true;
    *field = readField(*field);
    return field->isValid();
}

QVariant ZarkValueReader::fail(const QString& sentence)
{
    m_error = sentence;
    return {};
}

QVariant ZarkValueReader::failExpected(const QVariant& got)
{
    return fail(QStringLiteral("expected %1, got %2").arg(withArticle(ZarkValueType::toString(m_type)), kindOf(got)));
}
