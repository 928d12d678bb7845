#include "ByteRange.h"

#include <QList>

#include <algorithm>

namespace {

constexpr int MaximumDigits = 18; ///< The longest numbers that always fit 63 bits.
constexpr int MaximumRanges = 32; ///< Merging them costs the library the square of their number.

bool isDigit(char c)
{
    return c >= '0' && c <= '9';
}

// The library also takes "5" for "5-" and "+5" for "5", which mean nothing (RFC 9110, section 14.1.1).
bool isWellFormed(const QByteArray& field)
{
    const QList<QByteArray> ranges = field.mid(field.indexOf('=') + 1).split(',');
    return !field.contains('+') && std::all_of(ranges.begin(), ranges.end(), [](const QByteArray& range) {
        return range.trimmed().isEmpty() || range.contains('-');
    });
}

QByteArray bounded(const QByteArray& digits)
{
    int zeros = 0;
    while (zeros < digits.size() - 1 && digits.at(zeros) == '0')
        ++zeros;
    return digits.size() - zeros > MaximumDigits ? QByteArray(MaximumDigits, '9') : digits.mid(zeros);
}

/// The library's ranges of one request, freed on every way out.
class ParsedRanges {
public:
    ParsedRanges(SoupMessageHeaders* headers, qint64 length) : m_headers(headers)
    {
        if (!soup_message_headers_get_ranges(headers, length, &m_ranges, &m_count))
            m_count = 0;
    }
    ~ParsedRanges()
    {
        if (m_ranges)
            soup_message_headers_free_ranges(m_headers, m_ranges);
    }
    ParsedRanges(const ParsedRanges&) = delete;
    ParsedRanges& operator=(const ParsedRanges&) = delete;

    int count() const { return m_count; }
    const SoupRange& first() const { return m_ranges[0]; }

private:
    SoupMessageHeaders* m_headers;
    SoupRange* m_ranges = nullptr;
    int m_count = 0;
};

} // namespace

QByteArray withBoundedNumbers(const QByteArray& field)
{
    QByteArray result;
    for (int i = 0; i < field.size();) {
        int end = i;
        while (end < field.size() && isDigit(field.at(end)))
            ++end;
        if (end == i)
            result += field.at(end++);
        else
            result += bounded(field.mid(i, end - i));
        i = end;
    }
    return result;
}

RangeRequest clamped(qint64 start, qint64 end, qint64 length)
{
    RangeRequest request;
    request.count = 1;
    request.range = { std::max<qint64>(start, 0), std::min(end, length - 1) };
    request.kind = start >= length || request.range.last < request.range.first ? RangeRequest::Unsatisfiable
                                                                               : RangeRequest::Single;
    return request;
}

RangeRequest readRange(SoupMessageHeaders* requestHeaders, qint64 length)
{
    const char* value = soup_message_headers_get_one(requestHeaders, "Range");
    if (!value)
        return {};
    const QByteArray field(value);
    RangeRequest request;
    request.kind = RangeRequest::Several;
    request.count = field.count(',') + 1;
    if (request.count > MaximumRanges)
        return request;
    if (!isWellFormed(field))
        return {};
    const QByteArray boundedField = withBoundedNumbers(field);
    if (boundedField != field)
        soup_message_headers_replace(requestHeaders, "Range", boundedField.constData());
    const ParsedRanges ranges(requestHeaders, length);
    request.count = ranges.count();
    if (request.count == 0)
        return {};
    return request.count > 1 ? request : clamped(ranges.first().start, ranges.first().end, length);
}
