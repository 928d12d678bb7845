#include "JsonText.h"

namespace {

/// The index behind the string whose opening quote is at `start`.
int endOfString(const QByteArray& text, int start)
{
    int at = start + 1;
    while (at < text.size() && text.at(at) != '"')
        at += text.at(at) == '\\' ? 2 : 1;
    return at + 1;
}

/// What stands between the outermost brackets, cut at the commas that are in no bracket and no string.
QList<QByteArray> cutAtCommas(const QByteArray& bracketed)
{
    QList<QByteArray> pieces;
    const QByteArray text = bracketed.trimmed();
    const int end = text.size() - 1;
    int start = 1;
    int depth = 0;
    for (int at = 1; at < end; ++at) {
        const char c = text.at(at);
        if (c == '"') {
            at = endOfString(text, at) - 1;
        } else if (c == '[' || c == '{') {
            ++depth;
        } else if (c == ']' || c == '}') {
            --depth;
        } else if (c == ',' && depth == 0) {
            pieces.append(text.mid(start, at - start).trimmed());
            start = at + 1;
        }
    }
    const QByteArray last = text.mid(start, end - start).trimmed();
    if (!last.isEmpty())
        pieces.append(last);
    return pieces;
}

} // namespace

QList<QByteArray> JsonText::elements(const QByteArray& array)
{
    return array.trimmed().startsWith('[') ? cutAtCommas(array) : QList<QByteArray>();
}

QByteArray JsonText::member(const QByteArray& object, const QByteArray& key)
{
    if (!object.trimmed().startsWith('{'))
        return {};
    const QByteArray quoted = '"' + key + '"';
    for (const QByteArray& piece : cutAtCommas(object)) {
        const int keyEnd = endOfString(piece, 0);
        if (piece.left(keyEnd) == quoted)
            return piece.mid(piece.indexOf(':', keyEnd) + 1).trimmed();
    }
    return {};
}
