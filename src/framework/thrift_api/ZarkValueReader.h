#pragma once

#include <QString>
#include <QVariant>

#include "ZarkValueType.h"

/// Checks JSON against a type of ZarkValue and normalises it to the plain value inside; the inside of
/// ZarkValue::fromJson(). Keys that a structured type does not have are refused, except "@line".
class ZarkValueReader {
public:
    explicit ZarkValueReader(ZarkValueType::Enum type) : m_type(type) { }

    /// The plain value of `json`, which is the plain value itself or {"type", "value"}; an invalid QVariant when it
    /// is none of the type, and then error() is a sentence for the client.
    QVariant read(const QVariant& json);
    const QString& error() const { return m_error; }

private:
    QVariant readPlain(const QVariant& json);
    QVariant readInteger(const QVariant& json, qlonglong minimum, qlonglong maximum);
    QVariant readDouble(const QVariant& json);
    QVariant readBytes(const QVariant& json);
    QVariant readStringList(const QVariant& json);
    QVariant readAuthMode(const QVariant& json);
    QVariant readUsers(const QVariant& json);
    QVariant readUserList(const QVariantList& items);
    QVariant readChangePassword(const QVariant& json);
    QVariant readNetworkInfo(const QVariant& json);
    QVariant readSoftAp(const QVariant& json);
    QVariant readInterface(const QVariant& json);
    QVariant readAddress(const QVariant& json);
    QVariant readObject(const QVariant& json, const char* what, const QStringList& keys, const QStringList& required);
    QVariant readTexts(const QVariant& json, const char* what, const QStringList& keys);
    template <class Reader> bool replaceEach(QVariantHash& fields, const char* key, Reader readItem);
    template <class Reader> bool replaceField(QVariantHash& fields, const char* key, Reader readField);

    QVariant fail(const QString& sentence);
    QVariant failExpected(const QVariant& got);

    const ZarkValueType::Enum m_type;
    QString m_error;
};
