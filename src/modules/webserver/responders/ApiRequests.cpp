#include "ApiRequests.h"

#include "RequestParameters.h"

namespace {

constexpr const char* MissingPathOrRoles = "missing path or roles!";
constexpr const char* MissingRowsParameters = "missing path, roles, from or to!";
constexpr const char* TooManyRoles = "too many roles!";
constexpr const char* InvalidRowsParameters = "invalid from or to or version!";
constexpr const char* MissingSetParameters = "missing path or role or value!";

// Several times what a node has: without a bound, a small request for a thousand roles of every row takes the memory.
constexpr int MaximumRoles = 64;

const char* parseCommon(const RequestParameters& parameters, ApiGetData* request, const char* missing)
{
    if (!parameters.readText(QStringLiteral("path"), &request->path)
        || !parameters.readTexts(QStringLiteral("roles"), &request->roles))
        return missing;
    request->structure = parameters.text(QStringLiteral("type")) == QLatin1String("structure");
    return request->roles.size() > MaximumRoles ? TooManyRoles : nullptr;
}

// One role: a text, or the only text of a list.
bool readRole(const QVariant& sent, QString* role)
{
    const QVariant one =
        sent.userType() == QMetaType::QVariantList && sent.toList().size() == 1 ? sent.toList().constFirst() : sent;
    *role = one.toString();
    return one.userType() == QMetaType::QString;
}

} // namespace

const char* parseGetData(const RequestParameters& parameters, ApiGetData* request)
{
    return parseCommon(parameters, request, MissingPathOrRoles);
}

const char* parseGetRows(const RequestParameters& parameters, ApiGetRows* request)
{
    const QString from = QStringLiteral("from");
    const QString to = QStringLiteral("to");
    if (!parameters.has(from) || !parameters.has(to))
        return MissingRowsParameters;
    const char* fault = parseCommon(parameters, request, MissingRowsParameters);
    if (fault)
        return fault;
    const bool valid = parameters.readInteger(from, &request->from) && parameters.readInteger(to, &request->to)
        && parameters.readInteger(QStringLiteral("version"), &request->version);
    return valid ? nullptr : InvalidRowsParameters;
}

const char* parseSetData(const RequestParameters& parameters, ApiSetData* request)
{
    const QString role = QStringLiteral("role");
    request->value = parameters.value(QStringLiteral("value")); // Null is a value like any other.
    request->deprecatedRoles = !parameters.has(role);
    const QVariant sentRole = parameters.value(request->deprecatedRoles ? QStringLiteral("roles") : role);
    if (!parameters.readText(QStringLiteral("path"), &request->path) || !request->value.isValid()
        || !readRole(sentRole, &request->role))
        return MissingSetParameters;
    request->platform = parameters.text(QStringLiteral("platform"));
    return nullptr;
}
