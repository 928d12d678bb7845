#include "ZarkJsonParser.h"

#include <charconv>
#include <cmath>
#include <cstring>

#include "ZarkJson.h"

namespace {

bool isDigit(char c)
{
    return c >= '0' && c <= '9';
}

bool isContinuation(char c)
{
    return (uchar(c) & 0xC0) == 0x80;
}

int hexDigit(char c)
{
    if (isDigit(c))
        return c - '0';
    const char lower = char(c | 0x20);
    return lower >= 'a' && lower <= 'f' ? lower - 'a' + 10 : -1;
}

/// The value of a "-"? digit+ text, in the narrowest of the two 64-bit types; invalid when it fits neither.
QVariant integerValue(const char* begin, const char* end)
{
    qlonglong number = 0;
    if (std::from_chars(begin, end, number).ec == std::errc())
        return number;
    qulonglong positive = 0;
    if (*begin != '-' && std::from_chars(begin, end, positive).ec == std::errc())
        return positive;
    return {};
}

/// Appends UTF-8 that is known to be valid. QString::fromUtf8() would swallow a U+FEFF at the beginning.
void appendUtf8(const char* p, const char* end, QString& out)
{
    const int oldSize = out.size();
    out.resize(oldSize + int(end - p)); // UTF-16 never has more units than UTF-8 has bytes.
    QChar* unit = out.data() + oldSize;
    while (p != end) {
        const uint lead = uchar(*p++);
        const int more = lead < 0x80 ? 0 : lead < 0xE0 ? 1 : lead < 0xF0 ? 2 : 3;
        uint c = more == 0 ? lead : lead & (0x3Fu >> more);
        for (int i = 0; i < more; ++i)
            c = c << 6 | (uchar(*p++) & 0x3F);
        if (QChar::requiresSurrogates(c)) {
            *unit++ = QChar(QChar::highSurrogate(c));
            *unit++ = QChar(QChar::lowSurrogate(c));
        } else {
            *unit++ = QChar(c);
        }
    }
    out.truncate(int(unit - out.constData()));
}

} // namespace

ZarkJsonParser::ZarkJsonParser(const QByteArray& utf8, bool recordLines, int maximumValues)
    : m_begin(utf8.constData()), m_end(m_begin + utf8.size()), m_pos(m_begin), m_recordLines(recordLines),
      m_valuesLeft(maximumValues)
{
}

QVariant ZarkJsonParser::parse()
{
    if (m_end - m_begin >= 3 && std::memcmp(m_begin, "\xEF\xBB\xBF", 3) == 0) {
        failAt(m_begin, "byte order mark");
        return {};
    }
    QVariant value;
    skipSpace();
    if (!parseValue(value))
        return {};
    skipSpace();
    if (m_pos != m_end) {
        failAt(m_pos, "text after the value");
        return {};
    }
    return value;
}

ZarkError ZarkJsonParser::error() const
{
    ZarkError error;
    if (!m_message)
        return error;
    error.message = QLatin1String(m_message);
    error.line = error.column = 1;
    for (const char* p = m_begin; p != m_errorPos; ++p) {
        if (*p == '\n') {
            ++error.line;
            error.column = 1;
        } else if (!isContinuation(*p)) {
            ++error.column;
        }
    }
    return error;
}

bool ZarkJsonParser::parseValue(QVariant& out)
{
    if (m_pos == m_end)
        return failUnexpected("expected a value");
    if (--m_valuesLeft < 0)
        return failAt(m_pos, "too many values");
    switch (*m_pos) {
    case '{':
        return parseObject(out);
    case '[':
        return parseArray(out);
    case '"': {
        QString text;
        if (!parseString(text))
            return false;
        out = text;
        return true;
    }
    case 't':
        return parseLiteral("true", 4, true, out);
    case 'f':
        return parseLiteral("false", 5, false, out);
    case 'n':
        return parseLiteral("null", 4, QVariant::fromValue(nullptr), out);
    default:
        if (*m_pos == '-' || isDigit(*m_pos))
            return parseNumber(out);
        return failUnexpected("expected a value");
    }
}

bool ZarkJsonParser::parseObject(QVariant& out)
{
    const int line = m_line;
    if (!enter())
        return false;
    QVariantHash hash;
    skipSpace();
    if (m_pos != m_end && *m_pos == '}') {
        ++m_pos;
    } else {
        for (bool more = true; more; ++m_pos) {
            if (!parseMember(hash))
                return false;
            skipSpace();
            if (m_pos == m_end || (*m_pos != ',' && *m_pos != '}'))
                return failUnexpected("expected ',' or '}'");
            more = *m_pos == ',';
        }
    }
    if (m_recordLines)
        hash.insert(QStringLiteral("@line"), qlonglong(line));
    --m_depth;
    out = hash;
    return true;
}

bool ZarkJsonParser::parseMember(QVariantHash& hash)
{
    skipSpace();
    if (m_pos == m_end || *m_pos != '"')
        return failUnexpected("expected a key");
    const char* const begin = m_pos;
    QString key;
    if (!parseString(key))
        return false;
    if (m_recordLines && hash.contains(key))
        return failAt(begin, "the key comes twice in this object");
    skipSpace();
    if (m_pos == m_end || *m_pos != ':')
        return failUnexpected("expected ':'");
    ++m_pos;
    skipSpace();
    return parseValue(hash[key]);
}

bool ZarkJsonParser::parseArray(QVariant& out)
{
    if (!enter())
        return false;
    QVariantList list;
    skipSpace();
    if (m_pos != m_end && *m_pos == ']') {
        ++m_pos;
    } else {
        for (bool more = true; more; ++m_pos) {
            skipSpace();
            list.append(QVariant());
            if (!parseValue(list.last()))
                return false;
            skipSpace();
            if (m_pos == m_end || (*m_pos != ',' && *m_pos != ']'))
                return failUnexpected("expected ',' or ']'");
            more = *m_pos == ',';
        }
    }
    --m_depth;
    out = list;
    return true;
}

bool ZarkJsonParser::parseLiteral(const char* word, int size, const QVariant& value, QVariant& out)
{
    for (int i = 0; i < size; ++i, ++m_pos) {
        if (m_pos == m_end || *m_pos != word[i])
            return failUnexpected("expected a value");
    }
    out = value;
    return true;
}

bool ZarkJsonParser::parseNumber(QVariant& out)
{
    const char* const begin = m_pos;
    bool isInteger = true;
    if (*m_pos == '-')
        ++m_pos;
    if (m_pos != m_end && *m_pos == '0') {
        ++m_pos;
        if (m_pos != m_end && isDigit(*m_pos))
            return failAt(m_pos, "digit after a leading zero");
    } else if (!skipDigits()) {
        return false;
    }
    if (!skipFraction(isInteger) || !skipExponent(isInteger))
        return false;
    const bool isMinusZero = m_pos - begin == 2 && begin[0] == '-' && begin[1] == '0';
    if (isInteger && !isMinusZero) {
        out = integerValue(begin, m_pos);
        if (out.isValid())
            return true;
    }
    return setDouble(begin, out);
}

bool ZarkJsonParser::skipDigits()
{
    const char* const begin = m_pos;
    while (m_pos != m_end && isDigit(*m_pos))
        ++m_pos;
    return m_pos != begin || failUnexpected("expected a digit");
}

bool ZarkJsonParser::skipFraction(bool& isInteger)
{
    if (m_pos == m_end || *m_pos != '.')
        return true;
    isInteger = false;
    ++m_pos;
    return skipDigits();
}

bool ZarkJsonParser::skipExponent(bool& isInteger)
{
    if (m_pos == m_end || (*m_pos != 'e' && *m_pos != 'E'))
        return true;
    isInteger = false;
    ++m_pos;
    if (m_pos != m_end && (*m_pos == '+' || *m_pos == '-'))
        ++m_pos;
    return skipDigits();
}

bool ZarkJsonParser::setDouble(const char* begin, QVariant& out)
{
    double number = 0;
    if (std::from_chars(begin, m_pos, number).ec == std::errc::result_out_of_range) {
        // from_chars does not tell "too large" from "too small"; a number too small for a double is 0.
        number = QByteArray::fromRawData(begin, int(m_pos - begin)).toDouble();
        if (std::isinf(number))
            return failAt(begin, "number out of range");
        number = std::copysign(number, *begin == '-' ? -1.0 : 1.0);
    }
    out = number;
    return true;
}

void ZarkJsonParser::skipSpace()
{
    for (; m_pos != m_end; ++m_pos) {
        if (*m_pos == '\n')
            ++m_line;
        else if (*m_pos != ' ' && *m_pos != '\t' && *m_pos != '\r')
            return;
    }
}

bool ZarkJsonParser::enter()
{
    if (m_depth == ZarkJson::MaximumDepth)
        return failAt(m_pos, "nested too deeply");
    ++m_depth;
    ++m_pos;
    return true;
}

bool ZarkJsonParser::failUnexpected(const char* message)
{
    return failAt(m_pos, m_pos == m_end ? "unexpected end of the text" : message);
}

bool ZarkJsonParser::failAt(const char* position, const char* message)
{
    m_errorPos = position;
    m_message = message;
    return false;
}

bool ZarkJsonParser::parseString(QString& out)
{
    const char* const begin = ++m_pos;
    bool isAscii = true;
    if (!skipPlainText(isAscii))
        return false;
    if (*m_pos == '\\')
        return parseEscapes(begin, out);
    if (isAscii)
        out = QString::fromLatin1(begin, int(m_pos - begin));
    else
        appendUtf8(begin, m_pos, out);
    ++m_pos;
    return true;
}

bool ZarkJsonParser::parseEscapes(const char* begin, QString& out)
{
    bool isAscii = true;
    for (;;) {
        appendUtf8(begin, m_pos, out);
        if (*m_pos++ == '"')
            return true;
        if (!parseEscape(out))
            return false;
        begin = m_pos;
        if (!skipPlainText(isAscii))
            return false;
    }
}

bool ZarkJsonParser::parseEscape(QString& out)
{
    static const char names[] = "\"\\/bfnrt";
    static const char meanings[] = "\"\\/\b\f\n\r\t";
    if (m_pos == m_end)
        return failUnexpected("");
    if (*m_pos == 'u')
        return parseUnicodeEscape(out);
    const void* const name = std::memchr(names, *m_pos, sizeof names - 1);
    if (!name)
        return failAt(m_pos, "unknown escape");
    out += QLatin1Char(meanings[static_cast<const char*>(name) - names]);
    ++m_pos;
    return true;
}

bool ZarkJsonParser::parseUnicodeEscape(QString& out)
{
    const char* const begin = m_pos - 1;
    ushort unit = 0;
    if (!readHex4(unit))
        return false;
    out += QChar(unit);
    if (!QChar::isSurrogate(unit))
        return true;
    const bool hasPair = QChar::isHighSurrogate(unit) && m_end - m_pos >= 2 && m_pos[0] == '\\' && m_pos[1] == 'u';
    if (!hasPair)
        return failAt(begin, "lone surrogate");
    ++m_pos;
    if (!readHex4(unit))
        return false;
    if (!QChar::isLowSurrogate(unit))
        return failAt(begin, "lone surrogate");
    out += QChar(unit);
    return true;
}

bool ZarkJsonParser::readHex4(ushort& unit)
{
    ++m_pos;
    unit = 0;
    for (int i = 0; i < 4; ++i, ++m_pos) {
        const int digit = m_pos == m_end ? -1 : hexDigit(*m_pos);
        if (digit < 0)
            return failUnexpected("expected a hexadecimal digit");
        unit = ushort(unit << 4 | digit);
    }
    return true;
}

bool ZarkJsonParser::skipPlainText(bool& isAscii)
{
    while (m_pos != m_end) {
        const uchar c = uchar(*m_pos);
        if (c == '"' || c == '\\')
            return true;
        if (c < 0x20)
            return failAt(m_pos, "control character in a string");
        if (c < 0x80) {
            ++m_pos;
            continue;
        }
        isAscii = false;
        if (!skipMultiByte())
            return false;
    }
    return failUnexpected("");
}

bool ZarkJsonParser::skipMultiByte()
{
    const uchar lead = uchar(*m_pos);
    const int size = lead < 0xC2 || lead > 0xF4 ? 0 : lead < 0xE0 ? 2 : lead < 0xF0 ? 3 : 4;
    if (size == 0 || m_end - m_pos < size)
        return failAt(m_pos, "invalid UTF-8");
    // The second byte's range shuts out overlong forms, surrogates and everything above U+10FFFF.
    const uchar low = lead == 0xE0 ? 0xA0 : lead == 0xF0 ? 0x90 : 0x80;
    const uchar high = lead == 0xED ? 0x9F : lead == 0xF4 ? 0x8F : 0xBF;
    const uchar second = uchar(m_pos[1]);
    bool isValid = second >= low && second <= high;
    for (int i = 2; i < size; ++i)
        isValid = isValid && isContinuation(m_pos[i]);
    if (!isValid)
        return failAt(m_pos, "invalid UTF-8");
    m_pos += size;
    return true;
}
