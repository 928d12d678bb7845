#include "ApiRequests.h"

#include <limits>

namespace {

constexpr const char* MissingPathOrRoles = "missing path or roles!";
constexpr const char* MissingRowsParameters = "missing path, roles, from or to!";
constexpr const char* TooManyRoles = "too many roles!";
constexpr const char* InvalidRowsParameters = "invalid from or to or version!";
constexpr const char* MissingSetParameters = "missing path or role or value!";

// Several times what a node has: without a bound, a small request for a thousand roles of every row takes the memory.
constexpr int MaximumRoles = 64;

// One look at both kinds of request: a key is there or not, and has a value.
class QueryParameters {
public:
    explicit QueryParameters(const QUrlQuery& query) : m_query(query) { }

    bool has(const QString& key) const { return m_query.hasQueryItem(key); }
    QVariant value(const QString& key) const { return m_query.queryItemValue(key, QUrl::FullyDecoded); }
    QStringList list(const QString& key) const { return value(key).toString().split(QLatin1Char(',')); }

private:
    const QUrlQuery& m_query;
};

class BodyParameters {
public:
    explicit BodyParameters(const QVariantHash& body) : m_body(body) { }

    bool has(const QString& key) const { return m_body.contains(key); }
    QVariant value(const QString& key) const { return m_body.value(key); }
    QStringList list(const QString& key) const { return m_body.value(key).toStringList(); }

private:
    const QVariantHash& m_body;
};

// QVariant itself would round 4.7 and wrap what does not fit.
bool toInteger(const QVariant& value, qint64 minimum, qint64 maximum, qint64* integer)
{
    bool ok = false;
    switch (value.userType()) {
    case QMetaType::QString:
        *integer = value.toString().toLongLong(&ok);
        break;
    case QMetaType::LongLong:
        *integer = value.toLongLong(&ok);
        break;
    default:
        break;
    }
    return ok && *integer >= minimum && *integer <= maximum;
}

bool toInt(const QVariant& value, int* integer)
{
    qint64 wide = 0;
    if (!toInteger(value, std::numeric_limits<int>::min(), std::numeric_limits<int>::max(), &wide))
        return false;
    *integer = static_cast<int>(wide);
    return true;
}

template <class Parameters> void readCommon(const Parameters& parameters, ApiGetData* request)
{
    request->path = parameters.value(QStringLiteral("path")).toString();
    request->roles = parameters.list(QStringLiteral("roles"));
    request->structure = parameters.value(QStringLiteral("type")).toString() == QLatin1String("structure");
}

template <class Parameters> const char* readGetData(const Parameters& parameters, ApiGetData* request)
{
    if (!parameters.has(QStringLiteral("path")) || !parameters.has(QStringLiteral("roles")))
        return MissingPathOrRoles;
    readCommon(parameters, request);
    return request->roles.size() > MaximumRoles ? TooManyRoles : nullptr;
}

template <class Parameters> const char* readGetRows(const Parameters& parameters, ApiGetRows* request)
{
    const QString from = QStringLiteral("from");
    const QString to = QStringLiteral("to");
    const QString version = QStringLiteral("version");
    if (!parameters.has(QStringLiteral("path")) || !parameters.has(QStringLiteral("roles")) || !parameters.has(from)
        || !parameters.has(to))
        return MissingRowsParameters;
    readCommon(parameters, request);
    if (request->roles.size() > MaximumRoles)
        return TooManyRoles;
    const bool rangeValid = toInt(parameters.value(from), &request->from) && toInt(parameters.value(to), &request->to);
    const bool versionValid = !parameters.has(version)
        || toInteger(parameters.value(version), std::numeric_limits<qint64>::min(), std::numeric_limits<qint64>::max(),
            &request->version);
    return rangeValid && versionValid ? nullptr : InvalidRowsParameters;
}

template <class Parameters> const char* readSetData(const Parameters& parameters, ApiSetData* request)
{
    const QString role = QStringLiteral("role");
    const QString roles = QStringLiteral("roles");
    const bool hasRole = parameters.has(role);
    if (!parameters.has(QStringLiteral("path")) || !parameters.has(QStringLiteral("value"))
        || (!hasRole && !parameters.has(roles)))
        return MissingSetParameters;
    request->path = parameters.value(QStringLiteral("path")).toString();
    request->value = parameters.value(QStringLiteral("value"));
    request->deprecatedRoles = !hasRole;
    request->role = parameters.value(hasRole ? role : roles).toString();
    request->platform = parameters.value(QStringLiteral("platform")).toString();
    return nullptr;
}

} // namespace

const char* parseGetData(const QUrlQuery& query, ApiGetData* request)
{
    return readGetData(QueryParameters(query), request);
}
const char* parseGetData(const QVariantHash& body, ApiGetData* request)
{
    return readGetData(BodyParameters(body), request);
}
const char* parseGetRows(const QUrlQuery& query, ApiGetRows* request)
{
    return readGetRows(QueryParameters(query), request);
}
const char* parseGetRows(const QVariantHash& body, ApiGetRows* request)
{
    return readGetRows(BodyParameters(body), request);
}
const char* parseSetData(const QUrlQuery& query, ApiSetData* request)
{
    return readSetData(QueryParameters(query), request);
}
const char* parseSetData(const QVariantHash& body, ApiSetData* request)
{
    return readSetData(BodyParameters(body), request);
}
