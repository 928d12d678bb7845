#include "ApiResponder.h"

#include <algorithm>

#include "CMGlobal.h"
#include "CMRoot.h"
#include "LegacyPathHelper.h"
#include "Request.h"
#include "WebserverLog.h"
#include "ZarkAnalyticsEvent.h"
#include "ZarkPaths.h"

namespace {

// Names for programs; the messages are fixed texts of the API.
constexpr const char* BadRequestName = "badRequest";
constexpr const char* NotFoundName = "notFound";
constexpr const char* Methods = "GET, POST";
constexpr const char* ContentTypeName = "unsupportedContentType";

// The permission travels with the values, as the last of them.
QStringList withPermission(const QStringList& roles)
{
    QStringList asked = roles.contains(QStringLiteral("@all")) ? CMAllRoles() : roles;
    asked.append(ZarkRoles::Permission());
    return asked;
}

} // namespace

void ApiResponder::respond()
{
    dbglog_scopedFunction(webserverLog());
    dbglog_debug(webserverLog(), "ApiResponder: request " << requestId() << ' ' << request().fullUri());
    const QByteArray path = request().path();
    if (path == "/api/getData")
        getData();
    else if (path == "/api/getRows")
        getRows();
    else if (path == "/api/setData")
        setData();
    else
        respondWithError(CMError(NotFoundName, "Error: wrong method!"), SOUP_STATUS_NOT_FOUND);
}

void ApiResponder::getData()
{
    GetData parsed;
    if (!parseRequest(parseGetData, &parsed))
        return;
    const QStringList roles = withPermission(parsed.roles);
    CMReply<QList<QVariant>> reply;
    reply.onFinished(this, [this, parsed, roles](const QList<QVariant>& values, const CMError& error) {
        on_getData_finished(parsed, roles, values, error);
    });
    CMRoot()->getData(LegacyPathHelper::resolve(parsed.path), roles, reply);
}

void ApiResponder::getRows()
{
    GetRows parsed;
    if (!parseRequest(parseGetRows, &parsed))
        return;
    const QStringList roles = withPermission(parsed.roles);
    CMReply<ZarkRowsRoles> reply;
    reply.onFinished(this, [this, parsed, roles](const ZarkRowsRoles& rows, const CMError& error) {
        on_getRows_finished(parsed, roles, rows, error);
    });
    // The rest of a long list is asked for in turn: rowsCount tells how long it is.
    const qint64 last = std::min<qint64>(parsed.to, qint64(parsed.from) + configuration().maximumRows() - 1);
    CMRoot()->getRows(
        LegacyPathHelper::resolve(parsed.path), parsed.from, static_cast<int>(last), parsed.version, roles, reply);
}

void ApiResponder::setData()
{
    SetData parsed;
    if (!parseSetDataRequest(&parsed))
        return;
    const CMPath path = LegacyPathHelper::resolve(parsed.path);
    CMReply<QList<QVariant>> reply;
    reply.onFinished(this, [this, parsed, path](const QList<QVariant>& values, const CMError& error) {
        on_permission_finished(parsed, path, values, error);
    });
    CMRoot()->getData(path, { ZarkRoles::Permission() }, reply);
}

bool ApiResponder::accept(const char* fault)
{
    if (fault)
        respondWithError(CMError(BadRequestName, fault), SOUP_STATUS_BAD_REQUEST);
    return !fault;
}

template <class T> bool ApiResponder::parseRequest(const char* (*parse)(const RequestParameters&, T*), T* parsed)
{
    if (!isGet() && !isPost()) {
        respondInvalidMethod(Methods);
        return false;
    }
    identify();
    RequestParameters parameters;
    takeParameters(&parameters);
    return accept(parse(parameters, parsed));
}

bool ApiResponder::parseSetDataRequest(SetData* parsed)
{
    bool ok = false;
    if (isPost())
        ok = parseSetDataRequestPost(parsed);
    else if (isGet())
        ok = parseSetDataRequestGet(parsed);
    else
        respondInvalidMethod(Methods);
    if (ok && parsed->deprecatedRoles)
        dbglog_warn(webserverLog(), "Deprecated use detected: setData with \"roles\" parameter - use \"role\" instead");
    return ok;
}

bool ApiResponder::parseSetDataRequestGet(SetData* parsed)
{
    // Without the query: a value may be a password.
    dbglog_warn(webserverLog(), "Deprecated SetData request over GET: " << request().url().toString(QUrl::RemoveQuery));
    // Nothing signs a GET setData, so it counts as signed where nothing would have to be.
    const bool trusted = caller().local || configuration().authMode() == ZarkWebserverAuthMode::Off;
    setSignature(trusted ? Caller::Verified : Caller::None);
    RequestParameters parameters;
    takeParameters(&parameters);
    if (!accept(parseSetData(parameters, parsed)))
        return false;
    ZarkError error;
    parsed->value = parameters.json(QStringLiteral("value"), &error);
    if (!error.isEmpty())
        respondWithError(CMError(BadRequestName, QStringLiteral("Unable to parse value: ") + error.toString()),
            SOUP_STATUS_BAD_REQUEST);
    return error.isEmpty();
}

bool ApiResponder::parseSetDataRequestPost(SetData* parsed)
{
    if (request().requestContentType() != "application/json") {
        respondWithError(CMError(ContentTypeName, "invalid request content type"), SOUP_STATUS_UNSUPPORTED_MEDIA_TYPE);
        return false;
    }
    identify();
    // Before anything in the body is judged: any other answer would tell a right password from a wrong one, undelayed.
    if (caller().isWrong())
        return canRespond(parsed->path, RequestType::SetData, ZarkPermission::Default);
    QVariantHash body;
    return accept(decryptPostData(&body) ? parseSetData(RequestParameters(body), parsed) : "unable to decrypt value!");
}

// What an encrypting client sends encrypted is either the value alone, or the whole body as one JSON text. Only a
// verified request is decrypted.
bool ApiResponder::decryptPostData(QVariantHash* body)
{
    const QVariant posted = takePostData();
    *body = posted.toHash();
    if (!caller().isVerified())
        return true;
    bool ok = true;
    const QString value = QStringLiteral("value");
    if (posted.userType() == QMetaType::QString)
        *body = decrypt(posted, &ok).toHash();
    else if (body->contains(value))
        body->insert(value, decrypt(body->value(value), &ok));
    return ok;
}

void ApiResponder::on_getData_finished(
    const GetData& parsed, const QStringList& roles, const QList<QVariant>& values, const CMError& error)
{
    if (!error.isEmpty())
        return respondWithError(error, SOUP_STATUS_INTERNAL_SERVER_ERROR);
    const ZarkPermission::Enum permission = ZarkPermission::fromString(values.value(values.size() - 1).toString());
    if (!canRespond(parsed.path, RequestType::GetData, permission))
        return;
    const QList<QVariant> asked = values.mid(0, values.size() - 1);
    releaseBrake();
    if (parsed.structure)
        respondWithJson(CMGlobal::rolesValuesToHash(roles.mid(0, asked.size()), asked));
    else
        respondWithJson(asked);
}

void ApiResponder::on_getRows_finished(
    const GetRows& parsed, const QStringList& roles, const ZarkRowsRoles& answer, const CMError& error)
{
    if (!error.isEmpty())
        return respondWithError(error, SOUP_STATUS_INTERNAL_SERVER_ERROR);
    if (!canRespond(parsed.path, RequestType::GetRows, answer.roles().permission()))
        return;
    ZarkRowsRoles shown = answer;
    withholdRows(parsed.path, roles, &shown);
    releaseBrake();
    respondWithJson(QVariant::fromValue(shown));
}

void ApiResponder::on_permission_finished(
    const SetData& parsed, const CMPath& path, const QList<QVariant>& values, const CMError& error)
{
    ZarkPermission::Enum permission = ZarkPermission::Default;
    if (!error.isEmpty()) {
        dbglog_warn(webserverLog(),
            "setData: unable to retrieve permission role on path " << parsed.path << "; treating it as default_");
    } else if (values.size() != 1) {
        dbglog_error(webserverLog(), "setData: permission role request: invalid response size: " << values.size());
        return respondWithError(CMError(CMError::Failed, "Invalid response size: "), SOUP_STATUS_INTERNAL_SERVER_ERROR);
    } else {
        permission = ZarkPermission::fromString(values.first().toString());
        dbglog_debug(webserverLog(),
            "Permission role loaded successfully (Permission: " << ZarkPermission::toString(permission) << ")");
    }
    if (!canRespond(parsed.path, RequestType::SetData, permission))
        return;
    reportUse(parsed.platform);
    CMReply<QVariant> reply;
    reply.onFinished(
        this, [this](const QVariant& value, const CMError& failure) { on_setData_finished(value, failure); });
    CMRoot()->invoke(path, parsed.value, parsed.role, reply);
}

void ApiResponder::on_setData_finished(const QVariant& value, const CMError& error)
{
    if (!error.isEmpty())
        respondWithError(error, SOUP_STATUS_INTERNAL_SERVER_ERROR);
    else
        respondWithJson(value);
}

void ApiResponder::reportUse(const QString& platform)
{
    const CMValueItem* enabled = configuration().analyticsEnabled();
    if (!enabled || !enabled->value().bool_())
        return;
    const ZarkAnalyticsEvent event{ ZarkAnalyticsEventType::InteractionSurfaceUsed, platform };
    CMRoot()->invoke(ZarkAnalyticsReportEventPath(), event.toVariant(), QStringLiteral("activate"), {});
}
