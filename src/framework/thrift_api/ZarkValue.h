#pragma once

#include <QMetaType>
#include <QStringList>
#include <QVariant>

#include "ZarkNetworkInfo.h"
#include "ZarkValueType.h"
#include "ZarkWebserverAuthMode.h"
#include "ZarkWebserverChangePassword.h"

/// A typed value of a node. JSON: {"type": "i32", "value": 42}.
///
/// The value inside is plain JSON: a boolean, a number, a text, Base64 text for bytes, a list of texts, and an object
/// for the structured types: webserverAuthMode {"mode": "writes"}, webserverUsers {"users": [...]},
/// webserverChangePassword {"name", "oldPassword", "newPassword"}, networkInfo {"wired", "wireless", "softAp"}.
/// A getter of another type than the value's returns that type's empty value. Copying is cheap (shared).
class ZarkValue {
public:
    ZarkValue() = default;
    /// From a hash {"type", "value"} (or a QVariant that holds a ZarkValue); invalid when it is not one.
    explicit ZarkValue(const QVariant& variant);

    static ZarkValue fromBool(bool value);
    static ZarkValue fromI32(qint32 value);
    static ZarkValue fromI64(qint64 value);
    static ZarkValue fromDouble(double value);
    static ZarkValue fromString(const QString& value);
    static ZarkValue fromBytes(const QByteArray& value);
    static ZarkValue fromStringList(const QStringList& value);
    static ZarkValue fromAuthMode(ZarkWebserverAuthMode::Enum mode);
    static ZarkValue fromNetworkInfo(const QVariantHash& info);

    /// Reads JSON as a value of `type`: either {"type": ..., "value": ...} of exactly that type, or the plain value
    /// inside (42 for an i32). Nothing is converted that would lose or invent something: "42" is no i32, 4.5 and
    /// 2147483648 are none either; 42 is a double. The structured types also take "writes" or 1 (authentication mode)
    /// and a bare list (users); keys that they do not have are refused, except "@line", which is dropped.
    /// On failure invalid, with a sentence for the client in `error` (may be null).
    static ZarkValue fromJson(const QVariant& json, ZarkValueType::Enum type, QString* error);
    /// Reads a command line's or a setting's text as a value of `type` ("true", "42", "writes", JSON for the rest).
    static ZarkValue fromText(const QString& text, ZarkValueType::Enum type, QString* error);

    bool isValid() const { return m_type != ZarkValueType::Invalid; }
    ZarkValueType::Enum type() const { return m_type; }

    // bool_ and double_: the plain names are keywords.
    bool bool_() const;
    qint32 i32() const;
    qint64 i64() const;
    double double_() const;
    QString string() const;
    QByteArray bytes() const;
    QStringList stringList() const;
    ZarkWebserverAuthMode::Enum webserverAuthMode() const; ///< Everything when the value is of another type.
    QVariantList webserverUsers() const; ///< Values that convert to a ZarkWebserverUser.
    void setWebserverUsers(const QVariantList& users); ///< Makes this a webserverUsers value.
    ZarkWebserverChangePassword webserverChangePassword() const;
    ZarkNetworkInfo networkInfo() const;

    const QVariant& plain() const { return m_value; } ///< The value inside, as JSON takes it.
    QVariant toVariant() const; ///< QVariantHash {"type", "value"}; an invalid QVariant for an invalid value.

    bool operator==(const ZarkValue& other) const { return m_type == other.m_type && m_value == other.m_value; }
    bool operator!=(const ZarkValue& other) const { return !(*this == other); }

private:
    ZarkValue(ZarkValueType::Enum type, const QVariant& value) : m_type(type), m_value(value) { }

    ZarkValueType::Enum m_type = ZarkValueType::Invalid;
    QVariant m_value;
};

Q_DECLARE_METATYPE(ZarkValue)
