#include "MimeTypes.h"

#include <QHash>

namespace {

const QHash<QString, QString>& typesByExtension()
{
    static const QHash<QString, QString> types = [] {
        const struct {
            const char* type;
            const char* extensions;
        } table[] = {
            { "text/html", "html htm" },
            { "text/css", "css" },
            { "text/javascript", "js mjs" }, // RFC 9239
            { "text/plain", "txt log" },
            { "text/markdown", "md" },
            { "text/csv", "csv" },
            { "application/json", "json map" },
            { "application/manifest+json", "webmanifest" },
            { "application/xml", "xml" },
            { "application/pdf", "pdf" },
            { "application/wasm", "wasm" },
            { "application/zip", "zip" },
            { "application/gzip", "gz" },
            { "image/svg+xml", "svg" },
            { "image/png", "png" },
            { "image/jpeg", "jpg jpeg" },
            { "image/gif", "gif" },
            { "image/webp", "webp" },
            { "image/avif", "avif" },
            { "image/vnd.microsoft.icon", "ico" },
            { "font/woff", "woff" },
            { "font/woff2", "woff2" },
            { "font/ttf", "ttf" },
            { "font/otf", "otf" },
            { "audio/mpeg", "mp3" },
            { "audio/flac", "flac" },
            { "audio/wav", "wav" },
            { "audio/ogg", "ogg" },
            { "audio/mp4", "m4a" },
            { "video/mp4", "mp4" },
            { "video/webm", "webm" },
        };
        QHash<QString, QString> result;
        for (const auto& entry : table) {
            const QStringList extensions = QString::fromLatin1(entry.extensions).split(QLatin1Char(' '));
            for (const QString& extension : extensions)
                result.insert(extension, QString::fromLatin1(entry.type));
        }
        return result;
    }();
    return types;
}

} // namespace

QString MimeTypes::Application::json()
{
    return QStringLiteral("application/json");
}

QString MimeTypes::Application::octetStream()
{
    return QStringLiteral("application/octet-stream");
}

QString MimeTypes::Text::plain()
{
    return QStringLiteral("text/plain");
}

QString MimeTypes::Text::html()
{
    return QStringLiteral("text/html");
}

QString MimeTypes::URIToMimeType(const QString& uri, const QString& fallback)
{
    int end = 0;
    while (end < uri.size() && uri.at(end) != QLatin1Char('?') && uri.at(end) != QLatin1Char('#'))
        ++end;
    const int dot = end > 0 ? uri.lastIndexOf(QLatin1Char('.'), end - 1) : -1;
    if (dot < 0)
        return fallback;
    // An extension with a "/" in it is in no table.
    return typesByExtension().value(uri.mid(dot + 1, end - dot - 1).toLower(), fallback);
}
