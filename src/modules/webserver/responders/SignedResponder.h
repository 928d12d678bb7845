#pragma once

#include <QSharedPointer>

#include "ApiAuthorization.h"
#include "CMError.h"
#include "Caller.h"
#include "RequestParameters.h"
#include "Responder.h"
#include "ResponderConfiguration.h"
#include "ZarkRowsRoles.h"

class ResponderCrypto;
class UserDatabase;

/// A responder that knows who asks, and answers accordingly: the signed exchange, once for all that need it.
///
///     identify() → takeParameters() → canRespond(), with the node's permission → respondWith…()
///
/// Every answer leaves through answer(), which emits finished() or, for a refusal that is to be held back, leaves that
/// to the brake on failed authentications (ResponderConfiguration).
class SignedResponder : public Responder {
    Q_OBJECT
public:
    SignedResponder(Request& request, const QString& documentRoot, const QSharedPointer<UserDatabase>& userDatabase,
        const QSharedPointer<ResponderConfiguration>& configuration, QObject* parent);

    bool respondWillBlock() override { return false; }
    void setRequestId(int id) override { m_requestId = id; }

protected:
    /// What a signature covers.
    enum SignedBytes {
        UriAlone,
        UriAndBody, ///< The body's bytes as they came; it has to be there.
    };

    int requestId() const { return m_requestId; }
    ResponderConfiguration& configuration() const { return *m_configuration; }

    /// Finds out who asks, before anything else of the request is read; caller() has a signature only afterwards.
    void identify(SignedBytes signedBytes);
    /// The same for GET and POST, of which the second signs its body.
    void identify() { identify(isPost() ? UriAndBody : UriAlone); }
    /// In place of identify(), for requests that are judged by something else than their signature.
    void setSignature(Caller::Signature signature) { m_caller.signature = signature; }
    const Caller& caller() const { return m_caller; }
    /// The plain value of what a verified caller may have encrypted, until takeParameters(); see
    /// ResponderCrypto::decrypt().
    QVariant decrypt(const QVariant& value, bool* ok) const;

    bool isPost() const;
    bool isGet() const;
    /// The parameters, of a POST from its body and otherwise from the query. False, and there are none, for a body that
    /// claims to be a JSON object or a form and is not; a body of any other type has none. After identify(): the body
    /// and its parsed form are given back, since an answer that waits has no use for them.
    bool takeParameters(RequestParameters* parameters);
    /// The decoded body in the same way, for who can do with more than an object; see Request::postData().
    QVariant takePostData();

    /// The gate for what is asked of a node: when the answer is no and `respondOnError` is set, the client has been
    /// told. `path` is for the log.
    bool canRespond(
        const QString& path, ApiRequestType type, ZarkPermission::Enum permission, bool respondOnError = true);
    /// The same for each row of an answer whose last role is the permission, which is taken away: a row that is refused
    /// keeps its place and loses what it holds. `roles` are all that were asked for, `path` that of the list. Whether
    /// any was refused.
    bool withholdRows(const QString& path, const QStringList& roles, ZarkRowsRoles* answer);
    /// Ends the holding back of refusals if the caller is verified.
    void releaseBrake();

    void respondWithJson(const QVariant& value);
    /// 405 with the methods that there are.
    void respondInvalidMethod(const QByteArray& allowed);
    /// {"error": {"name", "message"}}; `throttle` holds a 401 or 403 back.
    void respondWithError(const CMError& error, int status, bool throttle = false);
    /// The one way out: the whole answer, 401 with WWW-Authenticate. `throttle` as above; a held
    /// answer keeps nothing of what the request brought.
    void answer(int status, const QByteArray& body, const QString& contentType, bool throttle = false);

private:
    template <class Name>
    ApiVerdict judge(const Name& name, ApiRequestType type, ZarkPermission::Enum permission) const;

    int m_requestId = 0;
    Caller m_caller;
    QSharedPointer<UserDatabase> m_userDatabase;
    QSharedPointer<ResponderConfiguration> m_configuration;
    QSharedPointer<ResponderCrypto> m_crypto; ///< Of a verified caller.
};
