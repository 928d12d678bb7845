#include "HeadScanner.h"

#include <algorithm>
#include <cstring>
#include <utility>

#include <glib.h>

#include "KeptNames.h"

namespace {

constexpr int MaximumLineLength = 72 * 1024; // Of what the library itself takes.
constexpr int MaximumLengthDigits = 15;

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

// RFC 9112, section 3. The library keeps the schemes of URIs for good as well.
bool isRequestLine(const char* begin, const char* methodEnd, const char* end)
{
    if (methodEnd == begin || methodEnd >= end || !KeptNames::isMethod(begin, methodEnd))
        return false;
    const char* const target = std::find_if_not(methodEnd, end, isBlank);
    if (target != end && (*target == '/' || *target == '*'))
        return true;
    const char* const schemeEnd = std::find(target, end, ':');
    return isName(target, schemeEnd, "http") || isName(target, schemeEnd, "https");
}

void blank(char* begin, char* end, const char* except)
{
    std::fill(begin, end, ' ');
    std::copy_n(except, std::min<qsizetype>(qstrlen(except), end - begin), begin);
}

} // namespace

bool HeadScanner::feed(char* data, qsizetype length)
{
    char* const end = data + length;
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
    return !m_isHidden;
}

// What is left over waits for its end: most heads come in one piece, and nothing of them is copied. The library may
// have the beginning of such a line already, but no more of a name than it could find out.
char* HeadScanner::takeLine(char* begin, char* end)
{
    auto* lineEnd = static_cast<char*>(memchr(begin, '\n', static_cast<size_t>(end - begin)));
    const char* const except = !m_begun.isEmpty() ? "" : replacement();
    if (m_begun.isEmpty() && lineEnd) {
        const char* const nameEnd = findNameEnd(begin, lineEnd);
        const bool isShown = mayBeShown(begin, nameEnd, lineEnd);
        readLine(begin, nameEnd, lineEnd);
        if (!isShown)
            blank(begin, lineEnd, except);
        return lineEnd + 1;
    }
    char* const pieceEnd = lineEnd ? lineEnd : end;
    m_begun.append(begin, static_cast<int>(pieceEnd - begin));
    m_isHidden = m_begun.size() > MaximumLineLength;
    const char* const nameEnd = findNameEnd(m_begun.constBegin(), m_begun.constEnd());
    m_isBlanked = m_isBlanked || !mayBeShown(m_begun.constBegin(), nameEnd, m_begun.constEnd());
    if (m_isBlanked)
        blank(begin, pieceEnd, except);
    if (m_isHidden || !lineEnd)
        return end;
    m_isBlanked = false;
    readLine(m_begun.constBegin(), nameEnd, m_begun.constEnd());
    m_begun.clear();
    return lineEnd + 1;
}

// A field, or what is no request: the library's parser refuses that.
const char* HeadScanner::replacement() const
{
    return m_state == BeforeHead ? "X" : "X:";
}

// As the library splits lines.
const char* HeadScanner::findNameEnd(const char* begin, const char* end) const
{
    return m_state == BeforeHead ? std::find_if(begin, end, isBlank)
                                 : std::find_if_not(begin, end, KeptNames::isTokenCharacter);
}

// False once the line has what the library is not to keep. Of a name that has not ended yet, it keeps nothing.
bool HeadScanner::mayBeShown(const char* begin, const char* nameEnd, const char* end) const
{
    const auto length = nameEnd - begin;
    if (m_state == BeforeHead)
        return nameEnd == end ? length <= KeptNames::LongestMethod : KeptNames::mayShowMethod(begin, nameEnd);
    if (nameEnd == end || *nameEnd == '\r') // An empty line, too.
        return length <= KeptNames::LongestField;
    return *nameEnd == ':' && KeptNames::mayShowField(begin, nameEnd);
}

void HeadScanner::readLine(const char* begin, const char* nameEnd, const char* end)
{
    if (end > begin && end[-1] == '\r')
        --end;
    if (begin == end)
        return endHead();
    bool isGood = !contains(begin, end, '\r') && !contains(begin, end, '\0');
    if (m_state == BeforeHead) {
        m_isChunked = false;
        m_contentLength = -1;
        isGood = isRequestLine(begin, nameEnd, end) && isGood;
    } else {
        isGood = readField(begin, nameEnd, end) && isGood;
    }
    m_isMalformed = m_isMalformed || !isGood;
    m_state = InFields;
}

bool HeadScanner::readField(const char* begin, const char* nameEnd, const char* end)
{
    if (nameEnd == begin || nameEnd >= end || *nameEnd != ':')
        return false;
    if (isName(begin, nameEnd, "Content-Length"))
        return readContentLength(nameEnd + 1, end);
    m_isChunked = m_isChunked || isName(begin, nameEnd, "Transfer-Encoding");
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
    if (m_isMalformed) {
        m_state = Over;
        return;
    }
    ++m_wellFormed;
    m_bodyLeft = std::max<qint64>(m_contentLength, 0);
    m_state = m_bodyLeft > 0 ? InBody : BeforeHead;
    if (m_isChunked)
        m_state = Over;
}
