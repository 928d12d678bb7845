#pragma once

#include <QString>

/// What the web server asks a signature for.
struct ZarkWebserverAuthMode {
    enum Enum {
        Off = 0, ///< Nothing but internal nodes is protected.
        Writes = 1,
        WritesAndEvents = 2,
        Everything = 3, ///< Reading nodes of the default permission too.
    };

    /// "off", "writes", "writesAndEvents" or "everything".
    static QString toString(Enum mode);
    /// The inverse, also of the decimal numbers; Everything for any other text.
    static Enum fromString(const QString& text, bool* ok = nullptr);
};
