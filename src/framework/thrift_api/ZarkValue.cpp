#include "ZarkValue.h"

#include "ZarkJsonParser.h"
#include "ZarkValueReader.h"
#include "ZarkWebserverUser.h"

ZarkValue::ZarkValue(const QVariant& variant)
{
    if (variant.userType() == qMetaTypeId<ZarkValue>()) {
        *this = variant.value<ZarkValue>();
        return;
    }
    const QVariant type = variant.toHash().value(QStringLiteral("type"));
    *this = fromJson(variant, ZarkValueType::fromString(type.toString()), nullptr);
}

ZarkValue ZarkValue::fromBool(bool value)
{
    return { ZarkValueType::Bool, value };
}

ZarkValue ZarkValue::fromI32(qint32 value)
{
    return { ZarkValueType::I32, qlonglong(value) };
}

ZarkValue ZarkValue::fromI64(qint64 value)
{
    return { ZarkValueType::I64, qlonglong(value) };
}

ZarkValue ZarkValue::fromDouble(double value)
{
    return { ZarkValueType::Double, value };
}

ZarkValue ZarkValue::fromString(const QString& value)
{
    return { ZarkValueType::String, value };
}

ZarkValue ZarkValue::fromBytes(const QByteArray& value)
{
    return { ZarkValueType::Bytes, QString::fromLatin1(value.toBase64()) };
}

ZarkValue ZarkValue::fromStringList(const QStringList& value)
{
    return { ZarkValueType::StringList, QVariant(value).toList() };
}

ZarkValue ZarkValue::fromAuthMode(ZarkWebserverAuthMode::Enum mode)
{
    const QVariantHash fields{ { QStringLiteral("mode"), ZarkWebserverAuthMode::toString(mode) } };
    return { ZarkValueType::WebserverAuthMode, fields };
}

ZarkValue ZarkValue::fromNetworkInfo(const QVariantHash& info)
{
    return { ZarkValueType::NetworkInfo, info };
}

ZarkValue ZarkValue::fromJson(const QVariant& json, ZarkValueType::Enum type, QString* error)
{
    ZarkValueReader reader(type);
    const bool isValue = json.userType() == qMetaTypeId<ZarkValue>();
    const QVariant plain = reader.read(isValue ? json.value<ZarkValue>().toVariant() : json);
    if (error)
        *error = reader.error();
    return plain.isValid() ? ZarkValue(type, plain) : ZarkValue();
}

ZarkValue ZarkValue::fromText(const QString& text, ZarkValueType::Enum type, QString* error)
{
    const bool isPlainText = type == ZarkValueType::String || type == ZarkValueType::Bytes
        || (type == ZarkValueType::WebserverAuthMode && !text.startsWith(QLatin1Char('{')));
    if (isPlainText)
        return fromJson(text, type, error);
    ZarkError jsonError;
    const QVariant json = ZarkJsonParser::parse(text.toUtf8(), false, ZarkJsonParser::AnyNumber, &jsonError);
    if (jsonError.isEmpty())
        return fromJson(json, type, error);
    if (error)
        *error = QStringLiteral("expected %1 as JSON, %2").arg(ZarkValueType::toString(type), jsonError.toString());
    return {};
}

bool ZarkValue::bool_() const
{
    return m_type == ZarkValueType::Bool && m_value.toBool();
}

qint32 ZarkValue::i32() const
{
    return m_type == ZarkValueType::I32 ? m_value.toInt() : 0;
}

qint64 ZarkValue::i64() const
{
    return m_type == ZarkValueType::I64 ? m_value.toLongLong() : 0;
}

double ZarkValue::double_() const
{
    return m_type == ZarkValueType::Double ? m_value.toDouble() : 0;
}

QString ZarkValue::string() const
{
    return m_type == ZarkValueType::String ? m_value.toString() : QString();
}

QByteArray ZarkValue::bytes() const
{
    return m_type == ZarkValueType::Bytes ? QByteArray::fromBase64(m_value.toString().toLatin1()) : QByteArray();
}

QStringList ZarkValue::stringList() const
{
    return m_type == ZarkValueType::StringList ? m_value.toStringList() : QStringList();
}

ZarkWebserverAuthMode::Enum ZarkValue::webserverAuthMode() const
{
    if (m_type != ZarkValueType::WebserverAuthMode)
        return ZarkWebserverAuthMode::Everything;
    return ZarkWebserverAuthMode::fromString(m_value.toHash().value(QStringLiteral("mode")).toString());
}

QVariantList ZarkValue::webserverUsers() const
{
    if (m_type != ZarkValueType::WebserverUsers)
        return {};
    return m_value.toHash().value(QStringLiteral("users")).toList();
}

void ZarkValue::setWebserverUsers(const QVariantList& users)
{
    QVariantList items;
    for (const QVariant& user : users)
        items.append(ZarkWebserverUser(user).toVariant());
    m_type = ZarkValueType::WebserverUsers;
    m_value = QVariantHash{ { QStringLiteral("users"), items } };
}

ZarkWebserverChangePassword ZarkValue::webserverChangePassword() const
{
    if (m_type != ZarkValueType::WebserverChangePassword)
        return {};
    return ZarkWebserverChangePassword::fromVariant(m_value);
}

ZarkNetworkInfo ZarkValue::networkInfo() const
{
    return m_type == ZarkValueType::NetworkInfo ? ZarkNetworkInfo(m_value) : ZarkNetworkInfo();
}

QVariant ZarkValue::toVariant() const
{
    if (!isValid())
        return {};
    const QVariantHash fields{
        { QStringLiteral("type"), ZarkValueType::toString(m_type) },
        { QStringLiteral("value"), m_value },
    };
    return fields;
}
