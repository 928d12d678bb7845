#include "SignedResponder.h"

#include "MimeTypes.h"
#include "Request.h"
#include "ResponderCrypto.h"
#include "UserDatabase.h"
#include "WebserverLog.h"

namespace {

constexpr const char* AccessName = "accessDenied";
constexpr const char* MethodName = "invalidMethod";

// The row keeps its place, so that indexes mean the same to everybody.
void hideRow(ZarkRowsRoles* rows, int row, const QStringList& roles, ZarkPermission::Enum permission)
{
    for (int column = 0; column < rows->columns(); ++column)
        rows->setValue(row, column, QVariant());
    const int title = roles.indexOf(ZarkRoles::Title());
    if (title < 0 || title >= rows->columns())
        return;
    rows->setValue(row, title,
        permission == ZarkPermission::Internal ? QStringLiteral("(Node is internal)")
                                               : QStringLiteral("(Node requires authentication)"));
}

/// A row as the log names it; the text is made only if it is written.
struct RowName {
    const QString& list;
    int row;
};

template <class Stream> Stream& operator<<(Stream& stream, const RowName& name)
{
    stream << name.list << ".row" << name.row;
    return stream;
}

} // namespace

SignedResponder::SignedResponder(Request& request, const QString& documentRoot,
    const QSharedPointer<UserDatabase>& userDatabase, const QSharedPointer<ResponderConfiguration>& configuration,
    QObject* parent)
    : Responder(request, documentRoot, parent), m_userDatabase(userDatabase), m_configuration(configuration)
{
    m_caller.local = request.isFromLocalhost();
    request.setMaximumValues(configuration->maximumValues());
}

bool SignedResponder::isPost() const
{
    return request().isMethod("POST");
}

bool SignedResponder::isGet() const
{
    return request().isMethod("GET");
}

void SignedResponder::identify(SignedBytes signedBytes)
{
    const QByteArray field = request().header("Authorization");
    if (field.isEmpty())
        return;
    const auto fields = ResponderCrypto::splitAuthorizationHeader(field);
    if (fields.scheme.isEmpty())
        return;
    m_caller.signature = Caller::Wrong;
    // Whichever of several were chosen, somebody between client and device may have chosen another.
    if (request().isRepeated("Authorization"))
        return;
    QByteArray data = request().fullUri().toUtf8();
    if (signedBytes == UriAndBody)
        data += '.' + request().requestBody();
    const auto crypto = ResponderCrypto::create(fields, m_userDatabase->user(fields.user),
        m_configuration->maximumValues(), [this] { return m_configuration->warnsOfClock(request().sender()); });
    if (!crypto->authenticate(data))
        return;
    m_caller.signature = Caller::Verified;
    m_crypto = crypto;
}

QVariant SignedResponder::decrypt(const QVariant& value, bool* ok) const
{
    *ok = false;
    return m_crypto ? m_crypto->decrypt(value, ok) : QVariant();
}

bool SignedResponder::takeParameters(RequestParameters* parameters)
{
    const int bound = m_configuration->maximumValues();
    m_crypto.reset(); // It holds a password, and there is nothing more to open.
    if (!isPost()) {
        *parameters = RequestParameters(request().query(), bound);
        request().releaseInput();
        return true;
    }
    const QByteArray type = request().requestContentType();
    const bool claims = type == "application/json" || type == "application/x-www-form-urlencoded";
    const bool empty = request().requestBody().isEmpty();
    const QVariant posted = takePostData();
    *parameters = RequestParameters(posted.toHash(), bound);
    return empty || !claims || posted.userType() == QMetaType::QVariantHash;
}

QVariant SignedResponder::takePostData()
{
    const QVariant posted = request().postData();
    request().releaseInput();
    return posted;
}

template <class Name>
ApiVerdict SignedResponder::judge(const Name& name, ApiRequestType type, ZarkPermission::Enum permission) const
{
    const ApiAccess access{ type, permission, m_configuration->authMode(), m_caller };
    dbglog_trace(webserverLog(),
        name << ": reqType=" << toString(type) << ", authMode=" << ZarkWebserverAuthMode::toString(access.authMode)
             << ", permission=" << ZarkPermission::toString(permission) << ", credentials=" << m_caller.hasCredentials()
             << ", verified=" << m_caller.isVerified());
    return decideAccess(access);
}

bool SignedResponder::canRespond(
    const QString& path, ApiRequestType type, ZarkPermission::Enum permission, bool respondOnError)
{
    const ApiVerdict verdict = judge(path, type, permission);
    if (!verdict.allowed && respondOnError)
        respondWithError(CMError(AccessName, verdict.message), verdict.status, verdict.throttle);
    return verdict.allowed;
}

bool SignedResponder::withholdRows(const QString& path, const QStringList& roles, ZarkRowsRoles* answer)
{
    bool anyRefused = false;
    answer->hideLastColumn();
    QString text; // Most rows of a list have the same.
    ZarkPermission::Enum permission = ZarkPermission::fromString(text);
    for (int row = 0; row < answer->size(); ++row) {
        const QString own = answer->value(row, answer->columns()).toString();
        if (own != text) {
            text = own;
            permission = ZarkPermission::fromString(text);
        }
        const RowName rowName{ path, answer->from() + row };
        if (judge(rowName, ApiRequestType::GetData, permission).allowed)
            continue;
        dbglog_debug(webserverLog(), "Private row: " << rowName << " will be excluded from the response");
        hideRow(answer, row, roles, permission);
        anyRefused = true;
    }
    return anyRefused;
}

void SignedResponder::releaseBrake()
{
    if (m_caller.isVerified())
        m_configuration->authFailReset();
}

void SignedResponder::respondWithJson(const QVariant& value)
{
    answer(SOUP_STATUS_OK, ZarkJson::serializeTranslate(value), MimeTypes::Application::json());
}

void SignedResponder::respondInvalidMethod(const QByteArray& allowed)
{
    request().setHeader(QByteArrayLiteral("Allow"), allowed);
    respondWithError(CMError(MethodName, "Invalid method!"), SOUP_STATUS_METHOD_NOT_ALLOWED);
}

void SignedResponder::respondWithError(const CMError& error, int status, bool throttle)
{
    const QVariantHash body{ { QStringLiteral("error"), error.toVariant() } };
    answer(status, ZarkJson::serializeTranslate(body), MimeTypes::Application::json(), throttle);
}

void SignedResponder::answer(int status, const QByteArray& body, const QString& contentType, bool throttle)
{
    request().setEncoding(Message::PlainContentLength);
    request().setStatus(status, QString());
    if (status == SOUP_STATUS_UNAUTHORIZED)
        request().setHeader(QByteArrayLiteral("WWW-Authenticate"), QByteArray(ResponderCrypto::AdvertisedSchemes));
    request().setResponseBody(body, contentType);
    if (!throttle || (status != SOUP_STATUS_UNAUTHORIZED && status != SOUP_STATUS_FORBIDDEN)) {
        Q_EMIT finished(m_requestId);
        return;
    }
    request().releaseInput();
    m_configuration->authFailBlock(this, m_requestId);
}
