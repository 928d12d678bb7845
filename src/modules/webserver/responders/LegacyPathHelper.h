#pragma once

#include "CMPath.h"

/// Maps the paths of old clients, which name no worker ("/player/volume"), to current ones and back. A prefix is
/// matched as text, not by whole segments, as it always was.
class LegacyPathHelper {
public:
    static bool isLegacy(const CMPath& path); ///< Starts with a legacy prefix.
    static bool wasLegacy(const CMPath& path); ///< Starts with a current prefix: it has a legacy twin.
    /// The path itself when no prefix matches. A path that starts with "/" is logged as deprecated in any case.
    static CMPath fromLegacy(const CMPath& path);
    /// The current path that a client's text means.
    static CMPath resolve(const QString& encoded) { return fromLegacy(CMPath::fromEncoded(encoded)); }
    static CMPath toLegacy(const CMPath& path); ///< The path itself when no prefix matches.
};
