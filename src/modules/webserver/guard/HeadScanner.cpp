#include "HeadScanner.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <utility>

#include <QSet>

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

// Of clients in good faith a device sees some dozens.
constexpr int MostNames = 1000;
constexpr int LongestName = 64;

// In lower case. What this server, what it fetches from and proxies in front of it ask for: whoever has used up the
// bound takes none of these from the others.
QSet<QByteArray> commonNames()
{
    return { "accept", "accept-charset", "accept-encoding", "accept-language", "access-control-request-headers",
        "access-control-request-method", "authorization", "cache-control", "connection", "content-disposition",
        "content-encoding", "content-language", "content-length", "content-range", "content-type", "cookie", "date",
        "dnt", "expect", "forwarded", "from", "host", "if-match", "if-modified-since", "if-none-match", "if-range",
        "if-unmodified-since", "keep-alive", "max-forwards", "origin", "pragma", "priority", "proxy-connection",
        "range", "referer", "sec-fetch-dest", "sec-fetch-mode", "sec-fetch-site", "sec-fetch-user", "te", "trailer",
        "transfer-encoding", "upgrade", "upgrade-insecure-requests", "user-agent", "via", "x-forwarded-for",
        "x-forwarded-host", "x-forwarded-proto", "x-requested-with" };
}

// Those that the library has been shown by this thread.
bool isAdmittedName(const char* begin, const char* end)
{
    thread_local QSet<QByteArray> admitted = commonNames();
    std::array<char, LongestName> lower{};
    if (end - begin > LongestName)
        return false;
    std::transform(begin, end, lower.begin(), g_ascii_tolower);
    const QByteArray name = QByteArray::fromRawData(lower.data(), static_cast<int>(end - begin));
    if (admitted.contains(name))
        return true;
    if (admitted.size() >= MostNames)
        return name.size() == 1; // There are few of them.
    admitted.insert(QByteArray(name.constData(), name.size()));
    return true;
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
// have the beginning of such a line already.
char* HeadScanner::takeLine(char* begin, char* end)
{
    auto* lineEnd = static_cast<char*>(memchr(begin, '\n', static_cast<size_t>(end - begin)));
    if (m_begun.isEmpty() && lineEnd) {
        if (!readLine(begin, lineEnd) && lineEnd - begin >= 2) {
            begin[0] = 'X';
            begin[1] = ':';
        }
        return lineEnd + 1;
    }
    m_begun.append(begin, static_cast<int>((lineEnd ? lineEnd : end) - begin));
    m_isHidden = m_begun.size() > MaximumLineLength;
    if (m_isHidden || !lineEnd)
        return end;
    const QByteArray line = std::exchange(m_begun, {});
    m_isHidden = !readLine(line.constBegin(), line.constEnd());
    return lineEnd + 1;
}

// False for a field whose name the library is not to keep.
bool HeadScanner::readLine(const char* begin, const char* end)
{
    if (end > begin && end[-1] == '\r')
        --end;
    if (begin == end) {
        endHead();
        return true;
    }
    bool isAdmitted = true;
    bool isGood = !contains(begin, end, '\r') && !contains(begin, end, '\0');
    if (m_state == BeforeHead) {
        m_isChunked = false;
        m_contentLength = -1;
    } else {
        isGood = readField(begin, end, &isAdmitted) && isGood;
    }
    m_isMalformed = m_isMalformed || !isGood;
    m_state = InFields;
    return isAdmitted;
}

bool HeadScanner::readField(const char* begin, const char* end, bool* isAdmitted)
{
    const char* const colon = std::find_if_not(begin, end, isTokenCharacter);
    const bool isField = colon != begin && colon != end && *colon == ':';
    *isAdmitted = isField && isAdmittedName(begin, colon);
    if (!isField)
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
