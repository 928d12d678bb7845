#include "ApiAuthorization.h"

namespace {

constexpr int Unauthorized = 401;
constexpr int Forbidden = 403;
constexpr int NotFound = 404;

constexpr const char* ForbiddenText = "Forbidden";
constexpr const char* InternalText = "Node is internal";

bool isReadAllowed(const ApiAccess& access)
{
    if (access.authMode == ZarkWebserverAuthMode::Off || access.caller.isVerified())
        return true;
    return !access.caller.hasCredentials() && access.authMode != ZarkWebserverAuthMode::Everything;
}

bool isDefaultAllowed(const ApiAccess& access)
{
    switch (access.type) {
    case ApiRequestType::GetData:
    case ApiRequestType::GetRows:
        return isReadAllowed(access);
    case ApiRequestType::SetData:
        return access.caller.isVerified() || access.authMode == ZarkWebserverAuthMode::Off;
    }
    return false;
}

} // namespace

QString toString(ApiRequestType type)
{
    switch (type) {
    case ApiRequestType::GetData:
        return QStringLiteral("getData");
    case ApiRequestType::GetRows:
        return QStringLiteral("getRows");
    case ApiRequestType::SetData:
        return QStringLiteral("setData");
    }
    return {};
}

bool isAuthorized(const ApiAccess& access)
{
    if (access.caller.isWrong())
        return false;
    switch (access.permission) {
    case ZarkPermission::Open:
        return true;
    case ZarkPermission::Default:
        return isDefaultAllowed(access);
    case ZarkPermission::Protected:
        return access.caller.isVerified() || access.authMode == ZarkWebserverAuthMode::Off;
    case ZarkPermission::Internal:
        return false;
    }
    qFatal("isAuthorized bug: unhandled case");
}

ApiVerdict decideAccess(const ApiAccess& access)
{
    if (access.caller.isWrong())
        return { false, Unauthorized, ForbiddenText, true };
    if (access.caller.local)
        return { true, 0, nullptr, false };
    if (access.permission == ZarkPermission::Internal)
        return { false, NotFound, InternalText, access.caller.hasCredentials() };
    if (isAuthorized(access))
        return { true, 0, nullptr, false };
    return { false, access.caller.isVerified() ? Forbidden : Unauthorized, ForbiddenText,
        access.caller.hasCredentials() };
}
