#include "PageValue.h"

#include "TrString.h"
#include "ZarkJson.h"
#include "ZarkValue.h"

namespace {

constexpr int MaximumJsonText = 64 * 1024; ///< Parsed, it takes up to fifty times as much.

// What is typed comes as a ZarkValue from a node, and as a hash from a row.
QVariant inside(const QVariant& value)
{
    const bool mayBeTyped = value.userType() == qMetaTypeId<ZarkValue>() || value.userType() == QMetaType::QVariantHash;
    const ZarkValue typed = mayBeTyped ? ZarkValue(value) : ZarkValue();
    return typed.isValid() ? typed.plain() : value;
}

bool isNull(const QVariant& value)
{
    return !value.isValid() || value.userType() == QMetaType::Nullptr;
}

QString plainText(const QVariant& value)
{
    if (isNull(value))
        return {};
    if (value.userType() == QMetaType::QString)
        return value.toString();
    if (value.userType() == qMetaTypeId<TrString>())
        return value.value<TrString>().toString();
    return QString::fromUtf8(ZarkJson::serializeTranslate(value));
}

QVariant readBool(const QString& text)
{
    if (text == QLatin1String("true") || text == QLatin1String("on") || text == QLatin1String("1"))
        return true;
    if (text == QLatin1String("false") || text == QLatin1String("off") || text == QLatin1String("0"))
        return false;
    return {};
}

QVariant readTyped(const QString& text, ZarkValueType::Enum type)
{
    if (type == ZarkValueType::Bool)
        return readBool(text);
    if (type != ZarkValueType::String && type != ZarkValueType::Bytes && text.size() > MaximumJsonText)
        return {};
    return ZarkValue::fromText(text, type, nullptr).toVariant();
}

} // namespace

QString textOfRole(const QVariant& value)
{
    const QVariant plain = inside(value);
    if (plain.userType() != QMetaType::QVariantList && plain.userType() != QMetaType::QStringList)
        return plainText(plain);
    QStringList texts;
    for (const QVariant& item : plain.toList())
        texts.append(plainText(item));
    return texts.join(QStringLiteral(", "));
}

QVariant valueOfText(const QString& text, const QVariant& held, QString* problem)
{
    if (isNull(held))
        return text.isEmpty() ? QVariant::fromValue(nullptr) : QVariant(text);
    const ZarkValueType::Enum type = ZarkValue(held).type();
    const QVariant value = readTyped(text, type);
    if (!value.isValid())
        *problem = QStringLiteral("\"%1\" is no value of type %2.").arg(text.left(100), ZarkValueType::toString(type));
    return value;
}
