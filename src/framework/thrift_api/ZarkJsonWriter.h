#pragma once

#include <QByteArray>
#include <QVariant>

class ZarkRowsRoles;
class ZarkValue;

/// Appends values to one JSON text; the inside of ZarkJson::serialize(). Use once.
class ZarkJsonWriter {
public:
    /// With `translate` a TrString is written in the UI language, its source text otherwise.
    explicit ZarkJsonWriter(bool translate);

    void write(const QVariant& value);
    const QByteArray& json() const { return m_json; }

private:
    void writeOther(const QVariant& value);
    void writeValue(const ZarkValue& value);
    void writeRows(const ZarkRowsRoles& rows);
    void writeList(const QVariantList& list);
    void writeHash(const QVariantHash& hash);
    void writeMap(const QVariantMap& map);
    void writeKey(const QString& key);
    void writeString(const QString& text);
    void writeDouble(double number);
    template <class T> void writeInteger(T number);

    QByteArray m_json;
    const bool m_translate;
};
