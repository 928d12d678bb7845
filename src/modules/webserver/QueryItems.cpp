#include "QueryItems.h"

#include <QVarLengthArray>

#include <algorithm>

#include "WebserverLog.h"

namespace {

int hexDigit(char c)
{
    if (c >= '0' && c <= '9')
        return c - '0';
    const char lower = static_cast<char>(c | 0x20);
    return lower >= 'a' && lower <= 'f' ? lower - 'a' + 10 : -1;
}

QString decoded(const char* from, const char* end)
{
    QVarLengthArray<char, 256> bytes(static_cast<int>(end - from));
    char* to = bytes.data();
    for (; from != end; ++from) {
        const bool isEscape = *from == '%' && end - from > 2 && hexDigit(from[1]) >= 0 && hexDigit(from[2]) >= 0;
        if (isEscape) {
            *to++ = static_cast<char>(hexDigit(from[1]) << 4 | hexDigit(from[2]));
            from += 2;
        } else {
            *to++ = *from == '+' ? ' ' : *from;
        }
    }
    return QString::fromUtf8(bytes.constData(), static_cast<int>(to - bytes.constData()));
}

} // namespace

QueryItems::QueryItems(QLatin1String encoded)
{
    dbglog_scopedFunction(webserverLog());
    const char* const end = encoded.data() + encoded.size();
    for (const char* from = encoded.data(); from < end;) {
        const char* const to = std::find(from, end, '&');
        const char* const equals = std::find(from, to, '=');
        if (from != to)
            m_items.append({ decoded(from, equals), equals == to ? QString() : decoded(equals + 1, to) });
        from = to + 1;
    }
}

const QString* QueryItems::find(const QString& name) const
{
    dbglog_scopedFunction(webserverLog());
    const auto found =
        std::find_if(m_items.cbegin(), m_items.cend(), [&name](const auto& item) { return item.first == name; });
    return found == m_items.cend() ? nullptr : &found->second;
}
