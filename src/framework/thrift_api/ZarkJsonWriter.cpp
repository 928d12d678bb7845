#include "ZarkJsonWriter.h"

#include <QDateTime>
#include <QVarLengthArray>

#include <algorithm>
#include <charconv>
#include <cmath>

#include "TrString.h"
#include "ZarkRowsRoles.h"
#include "ZarkValue.h"

namespace {

template <class T> const T& inside(const QVariant& value)
{
    return *static_cast<const T*>(value.constData());
}

bool isEscaped(char c)
{
    return uchar(c) < 0x20 || c == '"' || c == '\\';
}

void appendEscape(char c, QByteArray& out)
{
    static const char shortForms[] = "btn\0fr"; // From U+0008 to U+000D; U+000B has none.
    out.append('\\');
    if (c == '"' || c == '\\')
        out.append(c);
    else if (c >= 0x08 && c <= 0x0D && c != 0x0B)
        out.append(shortForms[c - 0x08]);
    else
        out.append("u00").append(c < 0x10 ? '0' : '1').append("0123456789abcdef"[c & 0xF]);
}

} // namespace

ZarkJsonWriter::ZarkJsonWriter(bool translate) : m_translate(translate)
{
    m_json.reserve(256);
}

void ZarkJsonWriter::write(const QVariant& value)
{
    switch (value.userType()) {
    case QMetaType::UnknownType:
    case QMetaType::Nullptr:
        m_json.append("null", 4);
        break;
    case QMetaType::Bool:
        m_json.append(inside<bool>(value) ? "true" : "false");
        break;
    case QMetaType::Int:
        writeInteger(inside<int>(value));
        break;
    case QMetaType::UInt:
        writeInteger(inside<uint>(value));
        break;
    case QMetaType::LongLong:
        writeInteger(inside<qlonglong>(value));
        break;
    case QMetaType::ULongLong:
        writeInteger(inside<qulonglong>(value));
        break;
    case QMetaType::Double:
        writeDouble(inside<double>(value));
        break;
    case QMetaType::QString:
        writeString(inside<QString>(value));
        break;
    case QMetaType::QVariantHash:
        writeHash(inside<QVariantHash>(value));
        break;
    case QMetaType::QVariantMap:
        writeMap(inside<QVariantMap>(value));
        break;
    case QMetaType::QVariantList:
        writeList(inside<QVariantList>(value));
        break;
    default:
        writeOther(value);
    }
}

void ZarkJsonWriter::writeOther(const QVariant& value)
{
    const int type = value.userType();
    if (type == qMetaTypeId<ZarkValue>()) {
        writeValue(inside<ZarkValue>(value));
    } else if (type == qMetaTypeId<TrString>()) {
        const TrString& text = inside<TrString>(value);
        writeString(m_translate ? text.toString() : text.source());
    } else if (type == qMetaTypeId<ZarkRowsRoles>()) {
        writeRows(inside<ZarkRowsRoles>(value));
    } else if (type == QMetaType::QByteArray) {
        writeString(QString::fromLatin1(value.toByteArray().toBase64()));
    } else if (type == QMetaType::QDateTime) {
        const QDateTime time = value.toDateTime();
        write(time.isValid() ? QVariant(time.toMSecsSinceEpoch()) : QVariant());
    } else if (type == QMetaType::Float) {
        writeDouble(double(inside<float>(value)));
    } else if (type == QMetaType::QStringList || (type >= QMetaType::User && value.canConvert<QVariantList>())) {
        writeList(value.toList());
    } else if (type == QMetaType::Long || type == QMetaType::Short || type == QMetaType::SChar) {
        writeInteger(value.toLongLong());
    } else if (type == QMetaType::ULong || type == QMetaType::UShort || type == QMetaType::UChar) {
        writeInteger(value.toULongLong());
    } else if (value.canConvert<QString>()) {
        writeString(value.toString());
    } else {
        write(QVariant());
    }
}

/// What can be a thousand rows, without a list a row.
void ZarkJsonWriter::writeRows(const ZarkRowsRoles& rows)
{
    m_json.append("{\"from\":");
    writeInteger(rows.from());
    m_json.append(",\"roles\":");
    writeHash(rows.roles().values());
    m_json.append(",\"rows\":[");
    for (int row = 0; row < rows.size(); ++row) {
        m_json.append(row > 0 ? ",[" : "[");
        for (int column = 0; column < rows.columns(); ++column) {
            if (column > 0)
                m_json.append(',');
            write(rows.value(row, column));
        }
        m_json.append(']');
    }
    m_json.append("],\"rowsCount\":");
    writeInteger(rows.rowsCount());
    m_json.append(",\"rowsVersion\":");
    writeInteger(rows.rowsVersion());
    m_json.append('}');
}

/// As write(value.toVariant()), without making the hash: nearly every reply of the server carries one.
void ZarkJsonWriter::writeValue(const ZarkValue& value)
{
    if (!value.isValid()) {
        m_json.append("null", 4);
        return;
    }
    m_json.append("{\"type\":\"");
    const QLatin1String type = ZarkValueType::name(value.type());
    m_json.append(type.data(), type.size());
    m_json.append("\",\"value\":");
    write(value.plain());
    m_json.append('}');
}

void ZarkJsonWriter::writeList(const QVariantList& list)
{
    m_json.append('[');
    for (int i = 0; i < list.size(); ++i) {
        if (i > 0)
            m_json.append(',');
        write(list.at(i));
    }
    m_json.append(']');
}

void ZarkJsonWriter::writeHash(const QVariantHash& hash)
{
    QVarLengthArray<QVariantHash::const_iterator, 16> members;
    members.reserve(hash.size());
    for (auto it = hash.cbegin(); it != hash.cend(); ++it)
        members.append(it);
    std::sort(members.begin(), members.end(), [](const auto& a, const auto& b) { return a.key() < b.key(); });
    m_json.append('{');
    for (int i = 0; i < members.size(); ++i) {
        if (i > 0)
            m_json.append(',');
        writeKey(members[i].key());
        write(members[i].value());
    }
    m_json.append('}');
}

void ZarkJsonWriter::writeMap(const QVariantMap& map)
{
    m_json.append('{');
    for (auto it = map.cbegin(); it != map.cend(); ++it) {
        if (it != map.cbegin())
            m_json.append(',');
        writeKey(it.key());
        write(it.value());
    }
    m_json.append('}');
}

void ZarkJsonWriter::writeKey(const QString& key)
{
    writeString(key);
    m_json.append(':');
}

void ZarkJsonWriter::writeString(const QString& text)
{
    const QByteArray utf8 = text.toUtf8();
    m_json.append('"');
    const char* plain = utf8.cbegin();
    for (const char* p = plain; p != utf8.cend(); ++p) {
        if (!isEscaped(*p))
            continue;
        m_json.append(plain, int(p - plain));
        appendEscape(*p, m_json);
        plain = p + 1;
    }
    m_json.append(plain, int(utf8.cend() - plain));
    m_json.append('"');
}

void ZarkJsonWriter::writeDouble(double number)
{
    if (!std::isfinite(number)) {
        m_json.append("null", 4);
        return;
    }
    char digits[32];
    const char* const end = std::to_chars(digits, digits + sizeof digits, number).ptr;
    m_json.append(digits, int(end - digits));
}

template <class T> void ZarkJsonWriter::writeInteger(T number)
{
    char digits[24];
    const char* const end = std::to_chars(digits, digits + sizeof digits, number).ptr;
    m_json.append(digits, int(end - digits));
}
