#pragma once

#include <QString>

/// Who may read and write a node; decided by the web server, carried by every node.
struct ZarkPermission {
    enum Enum {
        Open = -1, ///< Everybody, always.
        Default = 0, ///< Reading for everybody, writing by the server's authentication mode.
        Protected = 1, ///< Only verified users.
        Internal = 9999, ///< Never shown outside this device.
    };

    /// "open", "default", "protected" or "internal".
    static QString toString(Enum permission);
    /// The inverse; Internal (nobody) for any other text, so that a misspelling never opens a node.
    static Enum fromString(const QString& text, bool* ok = nullptr);
};
