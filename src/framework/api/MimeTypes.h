#pragma once

#include <QString>

/// Media types by name, and by file-name extension (for devices without a shared MIME database).
class MimeTypes {
public:
    struct Application {
        static QString json(); ///< "application/json"
        static QString octetStream(); ///< "application/octet-stream"
    };
    struct Text {
        static QString plain(); ///< "text/plain"
        static QString html(); ///< "text/html"
    };

    /// The type for the extension of a path or URI (without regard to case); `fallback` when it is unknown.
    static QString URIToMimeType(const QString& uri, const QString& fallback);
};
