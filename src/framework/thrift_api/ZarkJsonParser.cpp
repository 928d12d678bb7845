#include "ZarkJsonParser.h"

#include <QSet>
#include <QString>

#include <algorithm>
#include <cstring>
#include <iterator>
#include <string>
#include <utility>
#include <vector>

#include <nlohmann/json.hpp>

#include "JsonLongString.h"

namespace {

using Json = nlohmann::json;

constexpr char ByteOrderMark[] = "\xEF\xBB\xBF";
constexpr int ByteOrderMarkSize = 3;

bool hasByteOrderMark(const char* utf8, size_t size)
{
    return size >= ByteOrderMarkSize && std::memcmp(utf8, ByteOrderMark, ByteOrderMarkSize) == 0;
}

/// QString::fromUtf8() would swallow a U+FEFF at the beginning.
QString textOf(const std::string& utf8)
{
    const int size = int(utf8.size());
    if (!hasByteOrderMark(utf8.data(), utf8.size()))
        return QString::fromUtf8(utf8.data(), size);
    return QChar(QChar::ByteOrderMark) + QString::fromUtf8(utf8.data() + ByteOrderMarkSize, size - ByteOrderMarkSize);
}

/// The text, and how much of it the library has read: its events do not say where they happened. A long string it gets
/// to see as an empty one, whose text is here.
class Reading {
public:
    Reading(const char* begin, const char* end)
        : m_end(end), m_place(begin), m_stringEnd(end - begin < LongString ? end : begin)
    {
    }

    const char* const& place() const { return m_place; }
    bool isAtEnd() const { return m_place == m_end; }
    void advance()
    {
        if (*m_place++ == '"' && m_place > m_stringEnd)
            beginString();
    }
    /// Of the string that the library has just read.
    QString take(const std::string& utf8) { return m_long.isNull() ? textOf(utf8) : std::exchange(m_long, QString()); }
    std::ptrdiff_t passedBy() const { return m_passedBy; } ///< Bytes that the library has not seen.

private:
    static constexpr std::ptrdiff_t LongString = 4096;

    const char* endOfString() const; ///< Null without one.
    void beginString();

    const char* const m_end;
    const char* m_place; // Behind what the library has read.
    const char* m_stringEnd; // Behind the string that it reads, or read last.
    QString m_long;
    std::ptrdiff_t m_passedBy = 0;
};

const char* Reading::endOfString() const
{
    const auto isSpecial = [](char c) {
        return c == '"' || c == '\\';
    };
    const char* p = std::find_if(m_place, m_end, isSpecial);
    while (m_end - p > 2 && *p == '\\')
        p = std::find_if(p + 2, m_end, isSpecial);
    return p != m_end && *p == '"' ? p : nullptr;
}

void Reading::beginString()
{
    const char* const quote = endOfString();
    m_stringEnd = quote ? quote + 1 : m_end;
    if (!quote || quote - m_place < LongString)
        return;
    m_long = readLongJsonString(m_place, quote);
    if (m_long.isNull())
        return;
    m_passedBy += quote - m_place;
    m_place = quote;
}

/// Goes through the text for the library.
class Cursor {
public:
    using iterator_category = std::input_iterator_tag;
    using value_type = char;
    using difference_type = std::ptrdiff_t;
    using pointer = const char*;
    using reference = const char&;

    Cursor() = default; ///< Stands at the end.
    explicit Cursor(Reading* reading) : m_reading(reading) { }

    reference operator*() const { return *m_reading->place(); }
    Cursor& operator++()
    {
        m_reading->advance();
        return *this;
    }
    bool operator==(const Cursor&) const { return m_reading->isAtEnd(); }
    bool operator!=(const Cursor&) const { return !m_reading->isAtEnd(); }

private:
    Reading* m_reading = nullptr;
};

/// Makes a value of the library's events; an event that returns false ends the reading.
class Builder {
public:
    Builder(const QByteArray& utf8, bool recordLines, int maximumValues)
        : m_begin(utf8.constData()), m_end(m_begin + utf8.size()), m_reading(m_begin, m_end), m_counted(m_begin),
          m_recordLines(recordLines), m_valuesLeft(maximumValues)
    {
        m_levels.reserve(8);
    }

    QVariant build();
    ZarkError error() const;

    // The events, under the library's names.
    bool null() { return add(QVariant::fromValue(nullptr)); }
    bool boolean(bool value) { return add(value); }
    bool number_integer(qint64 number);
    bool number_unsigned(quint64 number);
    bool number_float(double number, const std::string&) { return add(number); }
    bool string(const std::string& utf8) { return add(m_reading.take(utf8)); }
    bool binary(const Json::binary_t&) { return false; } // JSON has none.
    bool start_object(size_t) { return enter(true); }
    bool start_array(size_t) { return enter(false); }
    bool key(const std::string& utf8);
    bool end_object();
    bool end_array();
    bool parse_error(size_t position, const std::string& token, const Json::exception& fault);

private:
    /// An object or an array that has not ended yet.
    struct Level {
        bool isObject;
        int line;
        QVariantHash members = {};
        QString key = {};
        QVariantList items = {};
    };

    const char* place() const { return m_reading.place(); }
    bool enter(bool isObject);
    bool count();
    bool add(QVariant&& value) { return count() && put(std::move(value)); }
    bool put(QVariant&& value);
    Level leave();
    int line();
    bool failAt(const char* place, const QString& message);

    const char* const m_begin;
    const char* const m_end;
    Reading m_reading;
    const char* m_counted; // The line ends before it are in m_line.
    int m_line = 1;
    const bool m_recordLines;
    int m_valuesLeft;
    QSet<QString> m_keys; // Of a file, where few keys come in thousands of objects: one text for all of them.
    std::vector<Level> m_levels;
    QVariant m_value;
    const char* m_errorPlace = nullptr;
    QString m_message;
};

QVariant Builder::build()
{
    // The library would skip it.
    if (hasByteOrderMark(m_begin, size_t(m_end - m_begin))) {
        failAt(m_begin, QStringLiteral("byte order mark"));
        return {};
    }
    if (!Json::sax_parse(Cursor(&m_reading), Cursor(), this))
        return {};
    // The library takes a NUL for the end of the text.
    if (!m_reading.isAtEnd() || m_end[-1] == '\0') {
        failAt(place() - 1, QStringLiteral("text after the value"));
        return {};
    }
    return m_value;
}

bool Builder::number_integer(qint64 number)
{
    // Only numbers with a sign come here, and no integer is a negative zero.
    return number == 0 ? add(-0.0) : add(qlonglong(number));
}

bool Builder::number_unsigned(quint64 number)
{
    const bool isSigned = number <= quint64(std::numeric_limits<qlonglong>::max());
    return isSigned ? add(qlonglong(number)) : add(qulonglong(number));
}

bool Builder::key(const std::string& utf8)
{
    Level& object = m_levels.back();
    object.key = m_reading.take(utf8);
    if (m_recordLines)
        object.key = *m_keys.insert(object.key);
    return !m_recordLines || !object.members.contains(object.key)
        || failAt(place() - 1, QStringLiteral("the key comes twice in this object"));
}

bool Builder::end_object()
{
    Level object = leave();
    if (m_recordLines)
        object.members.insert(QStringLiteral("@line"), qlonglong(object.line));
    return put(QVariant(object.members));
}

bool Builder::end_array()
{
    return put(QVariant(leave().items));
}

bool Builder::parse_error(size_t position, const std::string&, const Json::exception& fault)
{
    // Only the reason: what follows is the token, which may be a piece of a secret.
    const QString reason = QString::fromUtf8(fault.what())
                               .section(QStringLiteral(" - "), 1)
                               .section(QStringLiteral("; last read: "), 0, 0);
    // The position counts what was read, the end of the text included.
    return failAt(m_begin + m_reading.passedBy() + position - 1,
        reason.isEmpty() ? QStringLiteral("number out of range") : reason);
}

bool Builder::enter(bool isObject)
{
    if (!count())
        return false;
    if (m_levels.size() == ZarkJsonParser::MaximumDepth)
        return failAt(place() - 1, QStringLiteral("nested too deeply"));
    m_levels.push_back({ isObject, m_recordLines ? line() : 0 });
    return true;
}

bool Builder::count()
{
    return --m_valuesLeft >= 0 || failAt(place() - 1, QStringLiteral("too many values"));
}

bool Builder::put(QVariant&& value)
{
    if (m_levels.empty())
        m_value = std::move(value);
    else if (m_levels.back().isObject)
        m_levels.back().members[m_levels.back().key] = std::move(value);
    else
        m_levels.back().items.append(value);
    return true;
}

Builder::Level Builder::leave()
{
    Level level = std::move(m_levels.back());
    m_levels.pop_back();
    return level;
}

int Builder::line()
{
    m_line += int(std::count(m_counted, place(), '\n'));
    m_counted = place();
    return m_line;
}

bool Builder::failAt(const char* place, const QString& message)
{
    m_errorPlace = place;
    m_message = message;
    return false;
}

ZarkError Builder::error() const
{
    ZarkError error;
    if (!m_errorPlace)
        return error;
    error.message = m_message;
    error.line = error.column = 1;
    for (const char* p = m_begin; p != m_errorPlace; ++p) {
        const bool continues = (uchar(*p) & 0xC0) == 0x80;
        if (*p == '\n') {
            ++error.line;
            error.column = 1;
        } else if (!continues) {
            ++error.column;
        }
    }
    return error;
}

} // namespace

QVariant ZarkJsonParser::parse(const QByteArray& utf8, bool recordLines, int maximumValues, ZarkError* error)
{
    Builder builder(utf8, recordLines, maximumValues);
    const QVariant value = builder.build();
    if (error)
        *error = builder.error();
    return value;
}
