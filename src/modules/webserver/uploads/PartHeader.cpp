#include "PartHeader.h"

#include <QHash>
#include <QList>

#include <algorithm>

namespace {

bool isControl(char c)
{
    return (static_cast<unsigned char>(c) < 0x20 && c != '\t') || c == 0x7f;
}

/// A quoted string's text, from behind its opening quote; `position` comes to stand behind the closing one.
QByteArray quotedText(const QByteArray& text, int* position, bool* ok)
{
    QByteArray result;
    for (; *position < text.size(); ++*position) {
        const char c = text.at(*position);
        if (c == '"') {
            ++*position;
            return result;
        }
        // Browsers write a quote in a file name as %22 and leave backslashes as they are, so only \" and \\ are
        // escapes.
        const char next = *position + 1 < text.size() ? text.at(*position + 1) : '\0';
        if (c == '\\' && (next == '"' || next == '\\'))
            ++*position;
        result.append(text.at(*position));
    }
    *ok = false;
    return result;
}

/// The parameters behind a value's first ";", names in lower case. False when they are malformed or one comes twice.
bool readParameters(const QByteArray& text, QHash<QByteArray, QByteArray>* parameters)
{
    int position = text.indexOf(';');
    while (position >= 0 && position < text.size()) {
        if (text.at(position) != ';')
            return false;
        const int equals = text.indexOf('=', position);
        if (equals < 0)
            return text.mid(position + 1).trimmed().isEmpty();
        const QByteArray name = text.mid(position + 1, equals - position - 1).trimmed().toLower();
        position = equals + 1;
        QByteArray value;
        bool ok = !name.isEmpty() && !parameters->contains(name);
        if (position < text.size() && text.at(position) == '"') {
            value = quotedText(text, &++position, &ok);
            while (position < text.size() && (text.at(position) == ' ' || text.at(position) == '\t'))
                ++position;
        } else {
            const int end = text.indexOf(';', position);
            value = text.mid(position, end < 0 ? -1 : end - position).trimmed();
            position = end < 0 ? text.size() : end;
        }
        if (!ok)
            return false;
        parameters->insert(name, value);
    }
    return true;
}

bool readDisposition(const QByteArray& value, MultipartPart* part)
{
    QHash<QByteArray, QByteArray> parameters;
    if (value.mid(0, value.indexOf(';')).trimmed().toLower() != "form-data" || !readParameters(value, &parameters))
        return false;
    part->name = parameters.value("name");
    part->fileName = parameters.value("filename");
    return !part->name.isEmpty();
}

QList<QByteArray> unfoldedLines(QByteArray header)
{
    header.replace("\r\n ", " ").replace("\r\n\t", " ");
    QList<QByteArray> lines;
    int begin = 0;
    for (int end = header.indexOf("\r\n"); end >= 0; end = header.indexOf("\r\n", begin)) {
        lines.append(header.mid(begin, end - begin));
        begin = end + 2;
    }
    return lines;
}

} // namespace

bool parsePartHeader(const QByteArray& header, MultipartPart* part)
{
    part->contentType = QByteArrayLiteral("text/plain");
    bool disposed = false;
    for (const QByteArray& line : unfoldedLines(header)) {
        const int colon = line.indexOf(':');
        const QByteArray name = line.left(colon).toLower();
        if (colon <= 0 || name.trimmed() != name || std::any_of(line.begin(), line.end(), isControl))
            return false;
        const QByteArray value = line.mid(colon + 1).trimmed();
        if (name == "content-type")
            part->contentType = value;
        if (name != "content-disposition")
            continue;
        if (disposed || !readDisposition(value, part))
            return false;
        disposed = true;
    }
    return disposed;
}
