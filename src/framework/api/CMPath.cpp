#include "CMPath.h"

#include <QTextCodec>

namespace {

bool isUnreserved(uint c)
{
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' || c == '.'
        || c == '_' || c == '~';
}

/// The value of an upper-case hexadecimal digit, -1 for anything else.
int hexDigit(uint c)
{
    if (c >= '0' && c <= '9')
        return int(c - '0');
    return c >= 'A' && c <= 'F' ? int(c - 'A') + 10 : -1;
}

/// The byte of the escape at `index`; -1 when it is none or one that must not be.
int escapedByte(const QString& text, int index)
{
    if (index + 2 >= text.size())
        return -1;
    const int high = hexDigit(text.at(index + 1).unicode());
    const int low = hexDigit(text.at(index + 2).unicode());
    if (high < 0 || low < 0)
        return -1;
    const int byte = high * 16 + low;
    return isUnreserved(uint(byte)) ? -1 : byte;
}

/// The bytes that a well-formed text stands for.
QByteArray unescaped(const QString& text)
{
    return QByteArray::fromPercentEncoding(text.toLatin1());
}

/// UTF-8 with NUL and U+FEFF kept, where fromUtf8() ends or sees a byte order mark.
QString fromUtf8Exactly(const QByteArray& utf8)
{
    static const QTextCodec* const codec = QTextCodec::codecForName("UTF-8");
    QTextCodec::ConverterState state(QTextCodec::IgnoreHeader);
    return codec->toUnicode(utf8.constData(), utf8.size(), &state);
}

QString decoded(const QString& text)
{
    return text.contains(QLatin1Char('%')) ? fromUtf8Exactly(unescaped(text)) : text;
}

QString encodedSegment(const QString& plain)
{
    // Leaves the unreserved characters and writes upper-case digits.
    return QString::fromLatin1(plain.toUtf8().toPercentEncoding());
}

int segmentsStart(const QString& encoded)
{
    return encoded.startsWith(QLatin1Char('/')) ? 1 : encoded.indexOf(QLatin1Char(':')) + 1;
}

/// From `begin` to `end`: not empty, of unreserved characters and escapes. No separator ends an escape early, as none
/// is a digit.
bool isWellFormed(const QString& text, int begin, int end)
{
    for (int i = begin; i < end; ++i) {
        const uint c = text.at(i).unicode();
        if (c == '%') {
            if (escapedByte(text, i) < 0)
                return false;
            i += 2;
        } else if (!isUnreserved(c)) {
            return false;
        }
    }
    return begin < end;
}

bool areSegments(const QString& text, int begin)
{
    for (;;) {
        const int slash = text.indexOf(QLatin1Char('/'), begin);
        if (slash < 0)
            return isWellFormed(text, begin, text.size());
        if (!isWellFormed(text, begin, slash))
            return false;
        begin = slash + 1;
    }
}

/// Whether the escapes make UTF-8 that has no shorter form.
bool isUtf8(const QString& text)
{
    if (!text.contains(QLatin1Char('%')))
        return true;
    const QByteArray utf8 = unescaped(text);
    return fromUtf8Exactly(utf8).toUtf8() == utf8;
}

bool isValidPath(const QString& text)
{
    const int segments = segmentsStart(text);
    const bool isOldForm = text.startsWith(QLatin1Char('/'));
    return (isOldForm || isWellFormed(text, 0, segments - 1)) && areSegments(text, segments) && isUtf8(text);
}

} // namespace

CMPath CMPath::fromEncoded(const QString& encoded)
{
    CMPath path;
    path.m_encoded = encoded;
    path.m_valid = isValidPath(encoded);
    return path;
}

CMPath CMPath::fromSegments(const QString& worker, const QStringList& segments)
{
    QString encoded = encodedSegment(worker) + QLatin1Char(':');
    for (int i = 0; i < segments.size(); ++i) {
        if (i > 0)
            encoded += QLatin1Char('/');
        encoded += encodedSegment(segments.at(i));
    }
    return fromEncoded(encoded);
}

QString CMPath::worker() const
{
    return decoded(m_encoded.left(m_valid ? segmentsStart(m_encoded) - 1 : 0));
}

QStringList CMPath::segments() const
{
    if (!m_valid)
        return {};
    QStringList result = m_encoded.mid(segmentsStart(m_encoded)).split(QLatin1Char('/'));
    for (QString& segment : result)
        segment = decoded(segment);
    return result;
}

QString CMPath::name() const
{
    if (!m_valid)
        return {};
    const int slash = m_encoded.lastIndexOf(QLatin1Char('/'));
    return decoded(m_encoded.mid(qMax(slash + 1, segmentsStart(m_encoded))));
}

CMPath CMPath::parent() const
{
    const int slash = m_encoded.lastIndexOf(QLatin1Char('/'));
    if (!m_valid || slash < segmentsStart(m_encoded))
        return {};
    CMPath path;
    path.m_encoded = m_encoded.left(slash);
    path.m_valid = true;
    return path;
}

CMPath CMPath::child(const QString& segment) const
{
    if (!m_valid)
        return {};
    return fromEncoded(m_encoded + QLatin1Char('/') + encodedSegment(segment));
}
