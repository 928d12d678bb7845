#include "HttpResponseParser.h"

#include <algorithm>
#include <limits>

namespace {

constexpr int MaxLine = 16 * 1024;
constexpr int MaxFieldBytes = 64 * 1024;
constexpr int MaxChunkSizeDigits = 15; // What a qint64 holds, with room.

bool isDigits(const QByteArray& text)
{
    return !text.isEmpty() && std::all_of(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; });
}

bool isHexDigit(char c)
{
    return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F');
}

} // namespace

HttpResponseParser::State HttpResponseParser::feed(const char* data, int size)
{
    if (m_state != Incomplete)
        return m_state;
    m_pending.append(data, size);
    while (step()) { }
    m_pending.remove(0, m_offset);
    m_offset = 0;
    return m_state;
}

HttpResponseParser::State HttpResponseParser::end()
{
    if (m_state == Incomplete)
        m_state = m_stage == OpenBody ? Complete : Malformed;
    return m_state;
}

/// One line or one stretch of the body; false when nothing more can be done with the bytes at hand.
bool HttpResponseParser::step()
{
    if (m_state != Incomplete)
        return false;
    if (m_stage == OpenBody)
        return takeBody(m_pending.size() - m_offset);
    if (m_stage == LengthBody || m_stage == ChunkData) {
        if (!takeBody(m_remaining))
            return false;
        if (m_remaining == 0 && m_stage == LengthBody)
            m_state = Complete;
        else if (m_remaining == 0)
            m_stage = ChunkEnd;
        return true;
    }
    QByteArray line;
    if (!takeLine(&line))
        return false;
    switch (m_stage) {
    case StatusLine:
        return readStatusLine(line);
    case HeaderFields:
        return line.isEmpty() ? startBody() : readField(line);
    case ChunkSize:
        return readChunkSize(line);
    case ChunkEnd:
        m_stage = ChunkSize;
        return line.isEmpty() || fail(Malformed);
    default: // Trailers are of no use to anybody here.
        if (line.isEmpty())
            m_state = Complete;
        return true;
    }
}

bool HttpResponseParser::takeLine(QByteArray* line)
{
    const int end = m_pending.indexOf('\n', m_offset);
    const int size = (end < 0 ? m_pending.size() : end) - m_offset;
    if (size > MaxLine)
        return fail(Malformed);
    if (end < 0)
        return false;
    // The lines between chunks are as many as the chunks; the size of these is bounded by the body.
    if (m_stage != ChunkSize && m_stage != ChunkEnd)
        m_fieldBytes += size + 1;
    if (m_fieldBytes > MaxFieldBytes)
        return fail(Malformed);
    *line = m_pending.mid(m_offset, size);
    if (line->endsWith('\r'))
        line->chop(1);
    m_offset = end + 1;
    return true;
}

bool HttpResponseParser::takeBody(qint64 most)
{
    const int size = int(qMin<qint64>(most, m_pending.size() - m_offset));
    if (size == 0)
        return false;
    if (m_result.body.size() + qint64(size) > m_bodyLimit)
        return fail(TooLarge);
    m_result.body.append(m_pending.constData() + m_offset, size);
    m_offset += size;
    m_remaining -= size;
    return true;
}

bool HttpResponseParser::readStatusLine(const QByteArray& line)
{
    const QByteArray code = line.mid(9, 3);
    const bool shaped = line.startsWith("HTTP/1.") && line.size() >= 12 && line.at(8) == ' '
        && (line.size() == 12 || line.at(12) == ' ');
    if (!shaped || !isDigits(code) || code.at(0) == '0')
        return fail(Malformed);
    m_result.status = code.toInt();
    m_stage = HeaderFields;
    return true;
}

bool HttpResponseParser::readField(const QByteArray& line)
{
    const int colon = line.indexOf(':');
    // White space before the colon and folded lines are how fields are smuggled past a reader.
    if (colon <= 0 || line.at(0) == ' ' || line.at(0) == '\t' || line.at(colon - 1) == ' '
        || line.at(colon - 1) == '\t')
        return fail(Malformed);
    const QByteArray name = line.left(colon);
    const QByteArray value = line.mid(colon + 1).trimmed();
    m_result.headers.append(name, value);
    if (qstricmp(name.constData(), "transfer-encoding") == 0) {
        // None but chunked was asked for, and a length cannot be told under any other.
        if (m_chunked || qstricmp(value.constData(), "chunked") != 0)
            return fail(Malformed);
        m_chunked = true;
    }
    return qstricmp(name.constData(), "content-length") != 0 || readContentLength(value);
}

bool HttpResponseParser::readContentLength(const QByteArray& value)
{
    bool fits = false;
    const qint64 length = value.toLongLong(&fits);
    if (!isDigits(value) || (m_contentLength >= 0 && (!fits || length != m_contentLength)))
        return fail(Malformed);
    m_contentLength = fits ? length : std::numeric_limits<qint64>::max();
    return true;
}

bool HttpResponseParser::startBody()
{
    const int status = m_result.status;
    if (status == 101)
        return fail(Malformed); // Nobody asked for another protocol.
    if (status < 200) { // Interim: the response proper follows.
        m_result = HttpClientResult();
        m_chunked = false;
        m_contentLength = -1;
        m_stage = StatusLine;
        return true;
    }
    m_stage = m_chunked ? ChunkSize : m_contentLength >= 0 ? LengthBody : OpenBody;
    m_remaining = qMax<qint64>(m_contentLength, 0);
    const bool bodiless = status == 204 || status == 304;
    if (bodiless || (m_stage == LengthBody && m_remaining == 0))
        m_state = Complete;
    else if (m_stage == LengthBody && m_remaining > m_bodyLimit)
        return fail(TooLarge);
    return true;
}

bool HttpResponseParser::readChunkSize(const QByteArray& line)
{
    int digits = 0;
    while (digits < line.size() && isHexDigit(line.at(digits)))
        ++digits;
    const QByteArray rest = line.mid(digits).trimmed();
    if (digits == 0 || (!rest.isEmpty() && rest.at(0) != ';'))
        return fail(Malformed);
    m_remaining = digits > MaxChunkSizeDigits ? m_bodyLimit + 1 : line.left(digits).toLongLong(nullptr, 16);
    if (m_remaining > m_bodyLimit - m_result.body.size())
        return fail(TooLarge);
    m_stage = m_remaining == 0 ? Trailers : ChunkData;
    return true;
}

bool HttpResponseParser::fail(State state)
{
    m_state = state;
    m_pending.clear();
    m_offset = 0;
    return false;
}
