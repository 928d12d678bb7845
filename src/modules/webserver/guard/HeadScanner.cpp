#include "HeadScanner.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <utility>

#include <glib.h>

namespace {

constexpr int MaximumLineLength = 72 * 1024; // Of what the library itself takes.
constexpr int MaximumLengthDigits = 15;

// RFC 9110, section 5.6.2; by character.
constexpr std::array<bool, 256> makeTokenCharacters()
{
    std::array<bool, 256> are{};
    for (const char* of = "!#$%&'*+-.^_`|~0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz"; *of; ++of)
        are.at(static_cast<unsigned char>(*of)) = true;
    return are;
}

constexpr std::array<bool, 256> TokenCharacters = makeTokenCharacters();

bool isTokenCharacter(char c)
{
    return TokenCharacters.at(static_cast<unsigned char>(c));
}

bool isBlank(char c)
{
    return c == ' ' || c == '\t';
}

bool contains(const char* begin, const char* end, char c)
{
    return memchr(begin, c, static_cast<size_t>(end - begin)) != nullptr;
}

template <size_t Size> bool isName(const char* begin, const char* end, const char (&name)[Size])
{
    return end - begin == Size - 1 && g_ascii_strncasecmp(begin, name, Size - 1) == 0;
}

} // namespace

void HeadScanner::feed(const char* data, qsizetype length)
{
    const char* const end = data + length;
    while (data < end && m_state != Over) {
        if (m_state == InBody) {
            const qint64 skipped = std::min<qint64>(m_bodyLeft, end - data);
            data += skipped;
            m_bodyLeft -= skipped;
            if (m_bodyLeft == 0)
                m_state = BeforeHead;
        } else {
            data = takeLine(data, end);
        }
    }
}

// What is left over waits for its end: most heads come in one piece, and nothing of them is copied.
const char* HeadScanner::takeLine(const char* begin, const char* end)
{
    const auto* lineEnd = static_cast<const char*>(memchr(begin, '\n', static_cast<size_t>(end - begin)));
    if (m_begun.isEmpty() && lineEnd) {
        readLine(begin, lineEnd);
        return lineEnd + 1;
    }
    m_begun.append(begin, static_cast<int>((lineEnd ? lineEnd : end) - begin));
    if (m_begun.size() > MaximumLineLength)
        m_state = Over;
    if (!lineEnd)
        return end;
    const QByteArray line = std::exchange(m_begun, {});
    readLine(line.constBegin(), line.constEnd());
    return lineEnd + 1;
}

void HeadScanner::readLine(const char* begin, const char* end)
{
    if (end > begin && end[-1] == '\r')
        --end;
    if (begin == end)
        return endHead();
    const bool isRequestLine = m_state == BeforeHead;
    if (isRequestLine) {
        m_isChunked = false;
        m_contentLength = -1;
    }
    const bool isGood = !contains(begin, end, '\r') && !contains(begin, end, '\0');
    m_state = isGood && (isRequestLine || readField(begin, end)) ? InFields : Over;
}

bool HeadScanner::readField(const char* begin, const char* end)
{
    const char* const colon = std::find_if_not(begin, end, isTokenCharacter);
    if (colon == begin || colon == end || *colon != ':')
        return false;
    if (isName(begin, colon, "Content-Length"))
        return readContentLength(colon + 1, end);
    m_isChunked = m_isChunked || isName(begin, colon, "Transfer-Encoding");
    return true;
}

bool HeadScanner::readContentLength(const char* begin, const char* end)
{
    begin = std::find_if_not(begin, end, isBlank);
    const char* const digitsEnd = std::find_if_not(begin, end, [](char c) { return g_ascii_isdigit(c); });
    const auto digits = static_cast<int>(digitsEnd - begin);
    if (m_contentLength >= 0 || digits == 0 || digits > MaximumLengthDigits || !std::all_of(digitsEnd, end, isBlank))
        return false;
    m_contentLength = QByteArray::fromRawData(begin, digits).toLongLong();
    return true;
}

void HeadScanner::endHead()
{
    if (m_state == BeforeHead)
        return;
    ++m_wellFormed;
    m_bodyLeft = std::max<qint64>(m_contentLength, 0);
    m_state = m_bodyLeft > 0 ? InBody : BeforeHead;
    if (m_isChunked)
        m_state = Over;
}
