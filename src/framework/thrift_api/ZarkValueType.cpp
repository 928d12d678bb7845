#include "ZarkValueType.h"

namespace {

const struct {
    ZarkValueType::Enum type;
    const char* name;
} types[] = {
    { ZarkValueType::Bool, "bool" },
    { ZarkValueType::I32, "i32" },
    { ZarkValueType::I64, "i64" },
    { ZarkValueType::Double, "double" },
    { ZarkValueType::String, "string" },
    { ZarkValueType::Bytes, "bytes" },
    { ZarkValueType::StringList, "stringList" },
    { ZarkValueType::WebserverAuthMode, "webserverAuthMode" },
    { ZarkValueType::WebserverUsers, "webserverUsers" },
    { ZarkValueType::WebserverChangePassword, "webserverChangePassword" },
    { ZarkValueType::NetworkInfo, "networkInfo" },
};

} // namespace

QLatin1String ZarkValueType::name(Enum type)
{
    for (const auto& entry : types) {
        if (entry.type == type)
            return QLatin1String(entry.name);
    }
    return QLatin1String("");
}

ZarkValueType::Enum ZarkValueType::fromString(const QString& name)
{
    for (const auto& entry : types) {
        if (name == QLatin1String(entry.name))
            return entry.type;
    }
    return Invalid;
}
