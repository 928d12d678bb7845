#include "HtmlText.h"

namespace {

// Null for a character that stands for itself.
const char* referenceOf(QChar c)
{
    switch (c.unicode()) {
    case '&':
        return "&amp;";
    case '<':
        return "&lt;";
    case '>':
        return "&gt;";
    case '"':
        return "&quot;";
    case '\'':
        return "&#39;";
    case '\t':
        return "&#9;";
    case '\n':
        return "&#10;";
    case '\r':
        return "&#13;";
    default:
        return nullptr;
    }
}

} // namespace

QByteArray escapeHtml(const QString& text)
{
    QString escaped;
    escaped.reserve(text.size() + text.size() / 8);
    for (const QChar c : text) {
        if (const char* reference = referenceOf(c))
            escaped += QLatin1String(reference);
        else
            escaped += c.category() == QChar::Other_Control ? QChar(QChar::ReplacementCharacter) : c;
    }
    return escaped.toUtf8();
}

bool isHarmlessUrl(const QString& start)
{
    QString scheme;
    for (const QChar c : start) {
        if (c == QLatin1Char('/') || c == QLatin1Char('?') || c == QLatin1Char('#'))
            return true;
        if (c == QLatin1Char(':'))
            return scheme == QLatin1String("http") || scheme == QLatin1String("https");
        // Browsers drop these, wherever they are.
        if (c.unicode() > ' ')
            scheme += c.toLower();
    }
    return true;
}
