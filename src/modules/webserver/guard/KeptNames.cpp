#include "KeptNames.h"

#include <algorithm>
#include <array>

#include <QByteArray>
#include <QSet>

#include <glib.h>

namespace {

// Of clients in good faith a device sees some dozens.
constexpr int MostNames = 1000;

// Methods with the space behind them; names of fields in lower case. What this server, what it fetches from and proxies
// in front of it ask for: whoever has used up the bound takes none of these from the others.
QSet<QByteArray> commonNames()
{
    return { "GET ", "HEAD ", "POST ", "PUT ", "DELETE ", "OPTIONS ", "PATCH ", "TRACE ", "CONNECT ", "accept",
        "accept-charset", "accept-encoding", "accept-language", "access-control-request-headers",
        "access-control-request-method", "authorization", "cache-control", "connection", "content-disposition",
        "content-encoding", "content-language", "content-length", "content-range", "content-type", "cookie", "date",
        "dnt", "expect", "forwarded", "from", "host", "if-match", "if-modified-since", "if-none-match", "if-range",
        "if-unmodified-since", "keep-alive", "max-forwards", "origin", "pragma", "priority", "proxy-connection",
        "range", "referer", "sec-fetch-dest", "sec-fetch-mode", "sec-fetch-site", "sec-fetch-user", "te", "trailer",
        "transfer-encoding", "upgrade", "upgrade-insecure-requests", "user-agent", "via", "x-forwarded-for",
        "x-forwarded-host", "x-forwarded-proto", "x-requested-with" };
}

// Of those that the library has been shown by this thread, or else one more.
bool isAdmitted(const char* begin, const char* end)
{
    thread_local QSet<QByteArray> admitted = commonNames();
    const QByteArray name = QByteArray::fromRawData(begin, static_cast<int>(end - begin));
    if (admitted.contains(name))
        return true;
    if (admitted.size() >= MostNames)
        return name.size() == 1; // There are few of them.
    admitted.insert(QByteArray(name.constData(), name.size()));
    return true;
}

} // namespace

bool KeptNames::isMethod(const char* begin, const char* end)
{
    return end - begin <= LongestMethod && std::all_of(begin, end, isTokenCharacter);
}

bool KeptNames::mayShowMethod(const char* begin, const char* end)
{
    return isMethod(begin, end) && isAdmitted(begin, end + 1);
}

bool KeptNames::mayShowField(const char* begin, const char* end)
{
    std::array<char, LongestField> lower{};
    if (end - begin > LongestField)
        return false;
    std::transform(begin, end, lower.begin(), g_ascii_tolower);
    return isAdmitted(lower.data(), lower.data() + (end - begin));
}
