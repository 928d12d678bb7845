#pragma once

#include <QString>

#include "Caller.h"
#include "ZarkPermission.h"
#include "ZarkWebserverAuthMode.h"

enum class ApiRequestType {
    GetData = 0,
    GetRows = 1,
    SetData = 2,
};

QString toString(ApiRequestType type); ///< "getData", "getRows" or "setData"

/// Everything that the decision about one request depends on.
struct ApiAccess {
    ApiRequestType type = ApiRequestType::GetData;
    ZarkPermission::Enum permission = ZarkPermission::Default; ///< Of the node.
    ZarkWebserverAuthMode::Enum authMode = ZarkWebserverAuthMode::Everything; ///< Of the server.
    Caller caller;
};

struct ApiVerdict {
    bool allowed = false;
    int status = 0; ///< What a refusal answers.
    const char* message = nullptr;
    bool throttle = false; ///< A refusal is held back.
};

/// Whether the mode lets this signature do that to a node of that permission, wherever the client is. A wrong
/// signature is never better than none, except that nodes of the permission "open" stay open.
bool isAuthorized(const ApiAccess& access);

/// The whole decision, in this order: wrong signatures are refused; local clients are trusted; internal nodes do not
/// exist for others; then isAuthorized().
ApiVerdict decideAccess(const ApiAccess& access);
