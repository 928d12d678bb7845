#include "ApiResponder.h"

#include <cstring>

#include "CMGlobal.h"
#include "CMRoot.h"
#include "LegacyPathHelper.h"
#include "MimeTypes.h"
#include "Request.h"
#include "WebserverLog.h"
#include "ZarkAnalyticsEvent.h"
#include "ZarkJson.h"
#include "ZarkPaths.h"

namespace {

// Names for programs; the messages are fixed texts of the API.
constexpr const char* BadRequestName = "badRequest";
constexpr const char* NotFoundName = "notFound";
constexpr const char* MethodName = "invalidMethod";
constexpr const char* ContentTypeName = "unsupportedContentType";
constexpr const char* AccessName = "accessDenied";

CMPath resolve(const QString& path)
{
    return LegacyPathHelper::fromLegacy(CMPath::fromEncoded(path));
}

// The permission travels with the values, as the last of them.
QStringList withPermission(const QStringList& roles)
{
    QStringList asked = roles.contains(QStringLiteral("@all")) ? CMAllRoles() : roles;
    asked.append(ZarkRoles::Permission());
    return asked;
}

} // namespace

ApiResponder::ApiResponder(Request& request, const QString& documentRoot,
    const QSharedPointer<UserDatabase>& userDatabase, const QSharedPointer<ResponderConfiguration>& configuration,
    QObject* parent)
    : Responder(request, documentRoot, parent), m_userDatabase(userDatabase), m_configuration(configuration)
{
}

void ApiResponder::respond()
{
    dbglog_debug(webserverLog(), "ApiResponder: request " << m_requestId << ' ' << request().fullUri());
    const QByteArray path = request().path();
    if (path == "/api/getData")
        getData();
    else if (path == "/api/getRows")
        getRows();
    else if (path == "/api/setData")
        setData();
    else
        respondWithError(CMError(NotFoundName, "Error: wrong method!"), SOUP_STATUS_NOT_FOUND, false);
}

void ApiResponder::getData()
{
    GetData parsed;
    if (!parseGetDataRequest(&parsed))
        return;
    const QStringList roles = withPermission(parsed.roles);
    CMReply<QList<QVariant>> reply;
    reply.onFinished(this, [this, parsed, roles](const QList<QVariant>& values, const CMError& error) {
        on_getData_finished(parsed, roles, values, error);
    });
    CMRoot()->getData(resolve(parsed.path), roles, reply);
}

void ApiResponder::getRows()
{
    GetRows parsed;
    if (!parseGetRowsRequest(&parsed))
        return;
    const QStringList roles = withPermission(parsed.roles);
    CMReply<ZarkRowsRoles> reply;
    reply.onFinished(this, [this, parsed, roles](const ZarkRowsRoles& rows, const CMError& error) {
        on_getRows_finished(parsed, roles, rows, error);
    });
    CMRoot()->getRows(resolve(parsed.path), parsed.from, parsed.to, parsed.version, roles, reply);
}

void ApiResponder::setData()
{
    SetData parsed;
    if (!parseSetDataRequest(&parsed))
        return;
    const CMPath path = resolve(parsed.path);
    CMReply<QList<QVariant>> reply;
    reply.onFinished(this, [this, parsed, path](const QList<QVariant>& values, const CMError& error) {
        on_permission_finished(parsed, path, values, error);
    });
    CMRoot()->getData(path, { ZarkRoles::Permission() }, reply);
}

bool ApiResponder::isMethod(const char* method) const
{
    return std::strcmp(request().data().message->method, method) == 0;
}

bool ApiResponder::accept(const char* fault)
{
    if (fault)
        respondWithError(CMError(BadRequestName, fault), SOUP_STATUS_BAD_REQUEST, false);
    return !fault;
}

bool ApiResponder::parseGetDataRequest(GetData* parsed)
{
    if (isMethod("POST"))
        return accept(parseGetData(request().postData().toHash(), parsed)) && authenticatePostRequest(parsed);
    if (isMethod("GET"))
        return accept(parseGetData(request().query(), parsed)) && authenticateGetRequest(parsed);
    respondWithError(CMError(MethodName, "Invalid method!"), SOUP_STATUS_METHOD_NOT_ALLOWED, false);
    return false;
}

bool ApiResponder::parseGetRowsRequest(GetRows* parsed)
{
    if (isMethod("POST"))
        return accept(parseGetRows(request().postData().toHash(), parsed)) && authenticatePostRequest(parsed);
    if (isMethod("GET"))
        return accept(parseGetRows(request().query(), parsed)) && authenticateGetRequest(parsed);
    respondWithError(CMError(MethodName, "Invalid method!"), SOUP_STATUS_METHOD_NOT_ALLOWED, false);
    return false;
}

bool ApiResponder::parseSetDataRequest(SetData* parsed)
{
    bool ok = false;
    if (isMethod("POST"))
        ok = parseSetDataRequestPost(parsed);
    else if (isMethod("GET"))
        ok = parseSetDataRequestGet(parsed);
    else
        respondWithError(CMError(MethodName, "Invalid method!"), SOUP_STATUS_METHOD_NOT_ALLOWED, false);
    if (ok && parsed->deprecatedRoles)
        dbglog_warn(webserverLog(), "Deprecated use detected: setData with \"roles\" parameter - use \"role\" instead");
    return ok;
}

bool ApiResponder::parseSetDataRequestGet(SetData* parsed)
{
    // Without the query: a value may be a password.
    dbglog_warn(webserverLog(), "Deprecated SetData request over GET: " << request().url().toString(QUrl::RemoveQuery));
    if (!accept(parseSetData(request().query(), parsed)))
        return false;
    ZarkError error;
    parsed->value = ZarkJson::parse(parsed->value.toString(), &error);
    if (!error.isEmpty()) {
        respondWithError(CMError(BadRequestName, QStringLiteral("Unable to parse value: ") + error.toString()),
            SOUP_STATUS_BAD_REQUEST, false);
        return false;
    }
    // Nothing signs a GET setData, so it counts as signed where nothing would have to be.
    const bool trusted = request().isFromLocalhost() || m_configuration->authMode() == ZarkWebserverAuthMode::Off;
    parsed->credentials = trusted;
    parsed->verified = trusted;
    return true;
}

bool ApiResponder::parseSetDataRequestPost(SetData* parsed)
{
    if (request().requestContentType() != "application/json") {
        respondWithError(
            CMError(ContentTypeName, "invalid request content type"), SOUP_STATUS_UNSUPPORTED_MEDIA_TYPE, false);
        return false;
    }
    QVariantHash body;
    if (!authenticateAndDecryptPostRequest(parsed, &body)) {
        respondWithError(CMError(BadRequestName, "unable to decrypt value!"), SOUP_STATUS_BAD_REQUEST, false);
        return false;
    }
    return accept(parseSetData(body, parsed));
}

ResponderCrypto::AuthorizationHeaderFields ApiResponder::authorization() const
{
    const char* field = soup_message_headers_get_one(request().data().message->request_headers, "Authorization");
    return field ? ResponderCrypto::splitAuthorizationHeader(field) : ResponderCrypto::AuthorizationHeaderFields();
}

bool ApiResponder::verify(const ResponderCrypto::AuthorizationHeaderFields& fields, const QByteArray& signedData) const
{
    return ResponderCrypto::create(fields, m_userDatabase->user(fields.user))->authenticate(signedData);
}

template <class T> bool ApiResponder::authenticateGetRequest(T* parsed)
{
    const auto fields = authorization();
    parsed->credentials = !fields.scheme.isEmpty();
    parsed->verified = parsed->credentials && verify(fields, request().fullUri().toUtf8());
    return true;
}

template <class T> bool ApiResponder::authenticatePostRequest(T* parsed)
{
    const auto fields = authorization();
    parsed->credentials = !fields.scheme.isEmpty();
    parsed->verified = parsed->credentials && verify(fields, signedPostData());
    return true;
}

QByteArray ApiResponder::signedPostData() const
{
    return request().fullUri().toUtf8() + '.' + request().requestBody();
}

// What an encrypting client sends encrypted is either the value alone, or the whole body as one JSON text. Only a
// verified request is decrypted: the others are refused later, and the key proves nothing for them.
bool ApiResponder::authenticateAndDecryptPostRequest(SetData* parsed, QVariantHash* body)
{
    const auto fields = authorization();
    const auto crypto = ResponderCrypto::create(fields, m_userDatabase->user(fields.user));
    parsed->credentials = !fields.scheme.isEmpty();
    parsed->verified = parsed->credentials && crypto->authenticate(signedPostData());
    const QVariant posted = request().postData();
    *body = posted.toHash();
    if (!parsed->verified)
        return true;
    bool ok = true;
    const QString value = QStringLiteral("value");
    if (posted.userType() == QMetaType::QString)
        *body = crypto->decrypt(posted, &ok).toHash();
    else if (body->contains(value))
        body->insert(value, crypto->decrypt(body->value(value), &ok));
    return ok;
}

bool ApiResponder::canRespond(const QString& path, RequestType type, ZarkPermission::Enum permission, bool credentials,
    bool verified, bool respondOnError)
{
    const ApiAccess access{ type, permission, m_configuration->authMode(), credentials, verified,
        request().isFromLocalhost() };
    dbglog_trace(webserverLog(),
        path << ": reqType=" << toString(type) << ", authMode=" << ZarkWebserverAuthMode::toString(access.authMode)
             << ", permission=" << ZarkPermission::toString(permission) << ", credentials=" << credentials
             << ", verified=" << verified);
    const ApiVerdict verdict = decideAccess(access);
    if (!verdict.allowed && respondOnError)
        respondWithError(CMError(AccessName, verdict.message), verdict.status, verdict.throttle);
    return verdict.allowed;
}

void ApiResponder::on_getData_finished(
    const GetData& parsed, const QStringList& roles, const QList<QVariant>& values, const CMError& error)
{
    if (!error.isEmpty())
        return respondWithError(error, SOUP_STATUS_INTERNAL_SERVER_ERROR, parsed.credentials);
    const ZarkPermission::Enum permission = ZarkPermission::fromString(values.value(values.size() - 1).toString());
    if (!canRespond(parsed.path, RequestType::GetData, permission, parsed.credentials, parsed.verified, true))
        return;
    const QList<QVariant> asked = values.mid(0, values.size() - 1);
    if (parsed.credentials && parsed.verified)
        m_configuration->authFailReset();
    if (parsed.structure)
        respondWithJson(CMGlobal::rolesValuesToHash(roles.mid(0, asked.size()), asked));
    else
        respondWithJson(asked);
}

void ApiResponder::on_getRows_finished(
    const GetRows& parsed, const QStringList& roles, const ZarkRowsRoles& answer, const CMError& error)
{
    if (!error.isEmpty())
        return respondWithError(error, SOUP_STATUS_INTERNAL_SERVER_ERROR, parsed.credentials);
    if (!canRespond(
            parsed.path, RequestType::GetRows, answer.roles().permission(), parsed.credentials, parsed.verified, true))
        return;
    QList<QVariantList> rows = answer.rows();
    for (int i = 0; i < rows.size(); ++i) {
        QVariantList& row = rows[i];
        const ZarkPermission::Enum permission = ZarkPermission::fromString(row.value(row.size() - 1).toString());
        const QString rowPath = parsed.path + QLatin1String(".row") + QString::number(answer.from() + i);
        if (!canRespond(rowPath, RequestType::GetData, permission, parsed.credentials, parsed.verified, false)) {
            dbglog_debug(webserverLog(), "Private row: " << rowPath << " will be excluded from the response");
            hideRow(&row, roles, permission);
        }
        row.removeLast();
    }
    ZarkRowsRoles reply = answer;
    reply.setRows(rows);
    if (parsed.credentials && parsed.verified)
        m_configuration->authFailReset();
    respondWithJson(reply.toVariant());
}

// The row keeps its place, so that indexes mean the same to everybody.
void ApiResponder::hideRow(QVariantList* row, const QStringList& roles, ZarkPermission::Enum permission) const
{
    for (int i = 0; i < row->size() - 1; ++i)
        (*row)[i] = QVariant();
    const int title = roles.indexOf(ZarkRoles::Title());
    if (title < 0 || title >= row->size() - 1)
        return;
    (*row)[title] = permission == ZarkPermission::Internal ? QStringLiteral("(Node is internal)")
                                                           : QStringLiteral("(Node requires authentication)");
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
        return respondWithError(
            CMError(CMError::Failed, "Invalid response size: "), SOUP_STATUS_INTERNAL_SERVER_ERROR, false);
    } else {
        permission = ZarkPermission::fromString(values.first().toString());
        dbglog_debug(webserverLog(),
            "Permission role loaded successfully (Permission: " << ZarkPermission::toString(permission) << ")");
    }
    if (!canRespond(parsed.path, RequestType::SetData, permission, parsed.credentials, parsed.verified, true))
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
        respondWithError(error, SOUP_STATUS_INTERNAL_SERVER_ERROR, false);
    else
        respondWithJson(value);
}

void ApiResponder::reportUse(const QString& platform)
{
    const CMValueItem* enabled = m_configuration->analyticsEnabled();
    if (!enabled || !enabled->value().bool_())
        return;
    const ZarkAnalyticsEvent event{ ZarkAnalyticsEventType::InteractionSurfaceUsed, platform };
    CMRoot()->invoke(ZarkAnalyticsReportEventPath(), event.toVariant(), QStringLiteral("activate"), {});
}

void ApiResponder::respondWithJson(const QVariant& value)
{
    request().setEncoding(Message::PlainContentLength);
    request().setStatus(SOUP_STATUS_OK, QString());
    request().setResponseBody(ZarkJson::serializeTranslate(value), MimeTypes::Application::json());
    Q_EMIT finished(m_requestId);
}

void ApiResponder::respondWithError(const CMError& error, int status, bool throttle)
{
    request().setEncoding(Message::PlainContentLength);
    request().setStatus(status, QString());
    if (status == SOUP_STATUS_UNAUTHORIZED)
        request().setHeader(QByteArrayLiteral("WWW-Authenticate"), QByteArray(ResponderCrypto::AdvertisedSchemes));
    if (status == SOUP_STATUS_METHOD_NOT_ALLOWED)
        request().setHeader(QByteArrayLiteral("Allow"), QByteArrayLiteral("GET, POST"));
    const QVariantHash body{ { QStringLiteral("error"), error.toVariant() } };
    request().setResponseBody(ZarkJson::serializeTranslate(body), MimeTypes::Application::json());
    if (throttle && (status == SOUP_STATUS_UNAUTHORIZED || status == SOUP_STATUS_FORBIDDEN))
        m_configuration->authFailBlock(this, m_requestId);
    else
        Q_EMIT finished(m_requestId);
}
