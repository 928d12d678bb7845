#include "EventResponder.h"

#include <cstring>

#include "CMEventQueueHttpRequest.h"
#include "CMNodeTree.h"
#include "CMRoot.h"
#include "CMUINode.h"
#include "EventResponderShared.h"
#include "EventRewriting.h"
#include "MimeTypes.h"
#include "Request.h"
#include "WebserverLog.h"
#include "ZarkJson.h"

namespace {

constexpr int PrefixLength = 11; // Of "/api/event/".
constexpr int DefaultTimeout = 5; // Seconds.
constexpr int TooManyRequests = 429; // RFC 6585, section 4.

QByteArray toText(const ZarkList<ZarkEventSubscribe>& subscriptions)
{
    return ZarkJson::serialize(subscriptions.toVariant());
}

} // namespace

EventResponder::EventResponder(Request& request, const QString& path,
    const QSharedPointer<EventResponderShared>& shared, const QSharedPointer<UserDatabase>& userDatabase,
    const QSharedPointer<ResponderConfiguration>& configuration, QObject* parent)
    : Responder(request, path, parent), m_shared(shared), m_userDatabase(userDatabase), m_configuration(configuration)
{
}

EventResponder::~EventResponder()
{
    if (m_polled)
        m_polled->giveUp(m_pollToken);
}

void EventResponder::respond()
{
    dbglog_scopedFunction(webserverLog());
    dbglog_debug(webserverLog(), "EventResponder: request " << m_requestId << ' ' << request().fullUri());
    const QString operation = request().url().path().mid(PrefixLength);
    if (operation == QLatin1String("modifyQueue"))
        modifyQueue();
    else if (operation == QLatin1String("pollQueue"))
        pollQueue();
    else
        finishRespond(SOUP_STATUS_NOT_IMPLEMENTED, QStringLiteral("Not implemented!"), false);
}

void EventResponder::modifyQueue()
{
    SubscribeData data;
    bool parsed = false;
    if (isMethod("GET") && !m_configuration->strictRequests())
        parsed = parseDataGet(&data, &m_hasCredentials, &m_verified);
    else if (isMethod("POST"))
        parsed = parseDataPost(&data, &m_hasCredentials, &m_verified);
    else
        return finishRespond(SOUP_STATUS_NOT_IMPLEMENTED, QStringLiteral("Invalid method"), false);
    if (!parsed)
        return finishRespond(SOUP_STATUS_BAD_REQUEST, QStringLiteral("Unable to parse data!"), false);

    // Giving up a legacy path makes nobody a legacy client.
    const bool legacy = addCurrentPaths(&data.subscribe);
    addCurrentPaths(&data.unsubscribe);
    if (!admit(true, data.subscribe))
        return;
    const QString client = request().isFromLocalhost() ? QString() : request().sender();
    if (data.queueId.isEmpty() && !m_shared->hasRoomFor(client))
        return finishRespond(TooManyRequests, QStringLiteral("Too many queues!"), false);
    const CMEventQueue* queue = m_shared->eventQueues()->modifyQueue(data.queueId, data.subscribe, data.unsubscribe);
    if (!queue)
        return finishRespond(
            SOUP_STATUS_BAD_REQUEST, QStringLiteral("Unable to subscribe or unsubscribe paths!"), false);
    if (data.queueId.isEmpty())
        m_shared->addQueue(queue->textId(), client);
    if (legacy)
        m_shared->addLegacyQueue(queue->textId());
    respondWithJson(queue->textId());
}

void EventResponder::pollQueue()
{
    SubscribeData data;
    bool parsed = false;
    if (isMethod("GET"))
        parsed = parseDataGet(&data, &m_hasCredentials, &m_verified);
    else if (isMethod("POST"))
        parsed = parseDataPost(&data, &m_hasCredentials, &m_verified);
    else
        return finishRespond(SOUP_STATUS_NOT_IMPLEMENTED, QStringLiteral("Not implemented!"), false);
    if (!parsed)
        return finishRespond(
            SOUP_STATUS_BAD_REQUEST, QStringLiteral("Unable to parse subscribe/unsubscribe list!"), false);

    CMEventQueue* queue = m_shared->eventQueues()->getQueue(data.queueId);
    if (!queue)
        return finishRespond(SOUP_STATUS_BAD_REQUEST, QStringLiteral("Unknown queue id!"), false);
    if (!admit(false, queue->subscribtions()))
        return;
    request().releaseUrl();
    m_shared->delivery()->settle(queue);
    const int timeout = data.timeout < 0 ? DefaultTimeout : data.timeout;
    m_polled = queue;
    m_pollToken = queue->poll(new CMEventQueueHttpRequest(this, queue), timeout, data.received);
}

bool EventResponder::parseDataGet(SubscribeData* data, bool* hasCredentials, bool* verified)
{
    if (!parseSubscribeData(request().url(), data))
        return false;
    readCredentials(request().fullUri().toUtf8(), hasCredentials, verified);
    return true;
}

bool EventResponder::parseDataPost(SubscribeData* data, bool* hasCredentials, bool* verified)
{
    const QByteArray contentType = request().requestContentType();
    if (m_configuration->strictRequests() && contentType != "application/json") {
        dbglog_error(webserverLog(), "Invalid request content type: " << contentType);
        return false;
    }
    QVariantHash fields;
    if (!readPostData(&fields) || !parseSubscribeData(fields, data))
        return false;
    readCredentials(request().fullUri().toUtf8() + '.' + request().requestBody(), hasCredentials, verified);
    return true;
}

// All keys are optional, so a body of a type that nobody can read asks for nothing, like an empty one. A body that
// claims to be JSON must be a JSON object.
bool EventResponder::readPostData(QVariantHash* fields) const
{
    const QVariant posted = request().postData();
    *fields = posted.toHash();
    return posted.userType() == QMetaType::QVariantHash || request().requestContentType() != "application/json"
        || request().requestBody().isEmpty();
}

void EventResponder::readCredentials(const QByteArray& signedData, bool* hasCredentials, bool* verified) const
{
    const auto fields = ResponderCrypto::splitAuthorizationHeader(request().header(QStringLiteral("Authorization")));
    *hasCredentials = !fields.scheme.isEmpty();
    *verified = *hasCredentials && authenticate(fields, signedData);
}

bool EventResponder::authenticate(
    const ResponderCrypto::AuthorizationHeaderFields& fields, const QByteArray& signedData) const
{
    return ResponderCrypto::create(fields, m_userDatabase->user(fields.user))->authenticate(signedData);
}

bool EventResponder::isAuthorized(
    bool hasCredentials, bool verified, bool modify, const ZarkList<ZarkEventSubscribe>& paths) const
{
    dbglog_debug(webserverLog(),
        "cred=" << hasCredentials << ", verified=" << verified << ", modify=" << modify
                << ", subscribe=" << toText(paths));
    if (hasCredentials && !verified)
        return false;
    if (request().isFromLocalhost())
        return true;
    switch (m_configuration->authMode()) {
    case ZarkWebserverAuthMode::Off:
    case ZarkWebserverAuthMode::Writes:
        return true; // Modifying a queue writes nothing to the tree.
    case ZarkWebserverAuthMode::WritesAndEvents:
    case ZarkWebserverAuthMode::Everything:
        break;
    }
    return verified || m_shared->eventQueues()->checkPermissions(paths, { ZarkPermission::Open });
}

bool EventResponder::admit(bool modify, const ZarkList<ZarkEventSubscribe>& paths)
{
    if (!isAuthorized(m_hasCredentials, m_verified, modify, paths)) {
        finishRespond(m_verified ? SOUP_STATUS_FORBIDDEN : SOUP_STATUS_UNAUTHORIZED, QStringLiteral("Forbidden"),
            m_hasCredentials);
        return false;
    }
    if (m_hasCredentials && m_verified)
        m_configuration->authFailReset();
    return true;
}

bool EventResponder::mayReadNow(const CMPath& path) const
{
    dbglog_scopedFunction(webserverLog());
    ZarkEventSubscribe subscription;
    subscription.setPath(path);
    if (!isAuthorized(m_hasCredentials, m_verified, false, { subscription }))
        return false;
    const CMUINode* node = CMRoot()->tree()->node(path);
    return !node || node->permission() != ZarkPermission::Internal || request().isFromLocalhost();
}

bool EventResponder::isMethod(const char* method) const
{
    return std::strcmp(request().data().message->method, method) == 0;
}

void EventResponder::watchDelivery(CMEventQueue* queue, quint64 token)
{
    dbglog_scopedFunction(webserverLog());
    m_shared->delivery()->watch(request(), queue, token);
}

void EventResponder::queueRequestDone(const ZarkList<ZarkEvent>& events)
{
    dbglog_scopedFunction(webserverLog());
    respondWithJson(events.toVariant());
}

void EventResponder::respondWithJson(const QVariant& value)
{
    request().setEncoding(Message::PlainContentLength);
    request().setStatus(SOUP_STATUS_OK, QString());
    request().setResponseBody(ZarkJson::serializeTranslate(value), MimeTypes::Application::json());
    Q_EMIT finished(m_requestId);
}

void EventResponder::finishRespond(int status, const QString& text, bool hasCredentials)
{
    request().setEncoding(Message::PlainContentLength);
    request().setStatus(status, QString());
    if (status == SOUP_STATUS_UNAUTHORIZED)
        request().setHeader(QByteArrayLiteral("WWW-Authenticate"), QByteArray(ResponderCrypto::AdvertisedSchemes));
    request().setResponseBody(text, MimeTypes::Text::plain());
    if (hasCredentials && (status == SOUP_STATUS_UNAUTHORIZED || status == SOUP_STATUS_FORBIDDEN))
        m_configuration->authFailBlock(this, m_requestId);
    else
        Q_EMIT finished(m_requestId);
}
