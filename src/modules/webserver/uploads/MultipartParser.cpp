#include "MultipartParser.h"

#include <algorithm>
#include <cstring>

#include "PartHeader.h"

namespace {

constexpr int MaximumBoundaryLength = 70; // RFC 2046, section 5.1.1
constexpr int MaximumPaddingLength = 256; // White space behind a boundary; more makes it data.
constexpr qsizetype NeedsMore = -1;

bool isBoundaryCharacter(char c)
{
    return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z')
        || (c != '\0' && strchr("'()+_,-./:=? ", c));
}

/// How many bytes at the end of `data` could be the beginning of `delimiter`. Only its first byte is a CR.
qsizetype heldBack(const char* data, qsizetype length, const QByteArray& delimiter)
{
    const qsizetype window = std::min<qsizetype>(length, delimiter.size() - 1);
    const char* const end = data + length;
    const auto* last = static_cast<const char*>(memrchr(end - window, '\r', static_cast<size_t>(window)));
    if (!last || memcmp(last, delimiter.constData(), static_cast<size_t>(end - last)) != 0)
        return 0;
    return end - last;
}

} // namespace

MultipartParser::MultipartParser(const QByteArray& boundary, const Limits& limits, MultipartSink* sink)
    : m_delimiter("\r\n--" + boundary), m_limits(limits), m_sink(sink)
{
    if (boundaryOf(boundary) != boundary || boundary.isEmpty())
        m_error = BadBoundary;
}

QByteArray MultipartParser::boundaryOf(const QByteArray& parameter)
{
    const bool quoted = parameter.startsWith('"');
    const int end = parameter.indexOf(quoted ? '"' : ';', 1);
    if (quoted && end < 0)
        return {};
    const QByteArray boundary = quoted ? parameter.mid(1, end - 1) : parameter.mid(0, end).trimmed();
    const bool valid = boundary.size() <= MaximumBoundaryLength && !boundary.endsWith(' ')
        && std::all_of(boundary.begin(), boundary.end(), isBoundaryCharacter);
    return valid ? boundary : QByteArray();
}

bool MultipartParser::feed(const char* data, qsizetype length)
{
    if (m_error != NoError)
        return false;
    if (m_state == Epilogue)
        return skip(length);
    // As a rule nothing is held, and then nothing is copied.
    QByteArray buffer = QByteArray::fromRawData(data, static_cast<int>(length));
    if (!m_held.isEmpty())
        buffer.prepend(m_held);
    qsizetype position = 0;
    while (position < buffer.size() && m_state != Epilogue) {
        const qsizetype taken = step(buffer.constData() + position, buffer.size() - position);
        if (m_error != NoError)
            return false;
        if (taken == NeedsMore)
            break;
        position += taken;
    }
    const qsizetype rest = buffer.size() - position;
    m_held = m_state == Epilogue ? QByteArray() : QByteArray(buffer.constData() + position, static_cast<int>(rest));
    return m_state != Epilogue || skip(rest);
}

bool MultipartParser::skip(qsizetype epilogueLength)
{
    m_epilogueBytes += epilogueLength;
    return m_epilogueBytes <= m_limits.epilogueBytes || fail(EpilogueTooLong);
}

bool MultipartParser::finish()
{
    // The last boundary ends its line or the body.
    if (m_state != Header && m_state != Epilogue)
        feed("\r\n", 2);
    if (m_error != NoError)
        return false;
    return m_state == Epilogue || fail(Unterminated);
}

// Gives how many bytes are done with: none when only the state has changed.
qsizetype MultipartParser::step(const char* data, qsizetype length)
{
    switch (m_state) {
    case Header:
        return readHeader(data, length);
    case DataBegin:
        return readBlankLine(data, length);
    default:
        return readUntilBoundary(data, length);
    }
}

qsizetype MultipartParser::readUntilBoundary(const char* data, qsizetype length)
{
    const auto* found = static_cast<const char*>(
        memmem(data, static_cast<size_t>(length), m_delimiter.constData(), static_cast<size_t>(m_delimiter.size())));
    const qsizetype before = found ? found - data : length - heldBack(data, length, m_delimiter);
    if (before > 0) {
        give(data, before);
        return before;
    }
    return found ? readBoundary(data, length) : NeedsMore;
}

// `data` begins with the delimiter.
qsizetype MultipartParser::readBoundary(const char* data, qsizetype length)
{
    qsizetype taken = 0;
    switch (endingOf(data + m_delimiter.size(), length - m_delimiter.size(), &taken)) {
    case Unknown:
        return NeedsMore;
    case None:
        give(data, m_delimiter.size()); // No other boundary can begin inside it.
        break;
    case NextPart:
        endPart(Header);
        break;
    case LastPart:
        endPart(Epilogue);
    }
    return m_delimiter.size() + taken;
}

// What stands behind the boundary: "--" if it is the last one, then white space and a line end (RFC 2046, section
// 5.1.1).
MultipartParser::Ending MultipartParser::endingOf(const char* rest, qsizetype length, qsizetype* taken)
{
    const bool isLast = length >= 2 && rest[0] == '-' && rest[1] == '-';
    if (length == 0 || (length == 1 && rest[0] == '-'))
        return Unknown;
    const char* const padding = isLast ? rest + 2 : rest;
    const char* const end = std::find_if_not(padding, rest + length, [](char c) { return c == ' ' || c == '\t'; });
    const qsizetype left = rest + length - end;
    if (end - padding > MaximumPaddingLength)
        return None;
    if (left < 2)
        return left == 0 || *end == '\r' ? Unknown : None;
    if (end[0] != '\r' || end[1] != '\n')
        return None;
    *taken = end + 2 - rest;
    return isLast ? LastPart : NextPart;
}

void MultipartParser::endPart(State next)
{
    if (m_state == Data)
        m_sink->partEnded();
    m_state = next;
}

void MultipartParser::give(const char* data, qsizetype length)
{
    if (m_state == Data)
        return m_sink->partData(data, length);
    m_preambleBytes += length;
    if (m_preambleBytes > m_limits.preambleBytes)
        fail(PreambleTooLong);
}

// Up to the blank line, which is left: a part without a body ends with the boundary that begins there.
qsizetype MultipartParser::readHeader(const char* data, qsizetype length)
{
    const bool empty = length >= 2 && memcmp(data, "\r\n", 2) == 0;
    const auto* last = static_cast<const char*>(memmem(data, static_cast<size_t>(length), "\r\n\r\n", 4));
    const qsizetype size = empty ? 0 : last ? last - data + 2 : length;
    if (size > m_limits.headerBytes) {
        fail(HeaderTooLong);
        return NeedsMore;
    }
    if (!empty && !last)
        return NeedsMore;
    beginPart(QByteArray::fromRawData(data, static_cast<int>(size)));
    return size;
}

// `data` begins with the line end of the blank line behind a part's header, which is not the part's own data.
qsizetype MultipartParser::readBlankLine(const char* data, qsizetype length)
{
    const auto common = static_cast<size_t>(std::min<qsizetype>(length, m_delimiter.size()));
    Ending ending = None;
    if (memcmp(data, m_delimiter.constData(), common) == 0) {
        qsizetype taken = 0;
        const qsizetype rest = length - m_delimiter.size();
        ending = rest < 0 ? Unknown : endingOf(data + m_delimiter.size(), rest, &taken);
    }
    if (ending == Unknown)
        return NeedsMore;
    m_state = Data;
    return ending == None ? 2 : readBoundary(data, length);
}

void MultipartParser::beginPart(const QByteArray& header)
{
    if (++m_partCount > m_limits.parts) {
        fail(TooManyParts);
        return;
    }
    MultipartPart part;
    if (!parsePartHeader(header, &part)) {
        fail(HeaderMalformed);
        return;
    }
    m_state = DataBegin;
    m_sink->partBegan(part);
}

bool MultipartParser::fail(Error error)
{
    m_error = error;
    return false;
}
