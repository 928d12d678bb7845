#pragma once

#include <QString>

struct ZarkValueType {
    enum Enum {
        Invalid,
        Bool,
        I32,
        I64,
        Double,
        String,
        Bytes,
        StringList,
        WebserverAuthMode,
        WebserverUsers,
        WebserverChangePassword,
        NetworkInfo,
    };

    /// "bool", "i32", "i64", "double", "string", "bytes", "stringList", "webserverAuthMode", ...; "" for Invalid.
    static QString toString(Enum type) { return name(type); }
    static QLatin1String name(Enum type); ///< As toString().
    static Enum fromString(const QString& name); ///< Invalid for any other text.
};
