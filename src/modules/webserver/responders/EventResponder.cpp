#include "EventResponder.h"

#include "CMEventQueueHttpRequest.h"
#include "CMNodeTree.h"
#include "CMRoot.h"
#include "CMUINode.h"
#include "EventResponderShared.h"
#include "EventRewriting.h"
#include "MimeTypes.h"
#include "Request.h"
#include "WebserverLog.h"

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
    : PollResponder(request, path, userDatabase, configuration, parent), m_shared(shared)
{
}

EventResponder::~EventResponder()
{
    if (m_pollToken)
        m_shared->pollEnded();
    if (m_polled)
        m_polled->giveUp(m_pollToken);
    if (m_pollToken)
        m_shared->heapTrim()->pollEnded();
}

void EventResponder::respond()
{
    dbglog_scopedFunction(webserverLog());
    dbglog_debug(webserverLog(), "EventResponder: request " << requestId() << ' ' << request().fullUri());
    const QByteArray operation = request().path().mid(PrefixLength);
    if (operation == "modifyQueue")
        modifyQueue();
    else if (operation == "pollQueue")
        pollQueue();
    else
        finishRespond(SOUP_STATUS_NOT_IMPLEMENTED, QStringLiteral("Not implemented!"));
}

void EventResponder::modifyQueue()
{
    if (!isPost() && (!isGet() || configuration().strictRequests()))
        return finishRespond(SOUP_STATUS_NOT_IMPLEMENTED, QStringLiteral("Invalid method"));
    SubscribeData data;
    if (!parseData(&data))
        return finishRespond(SOUP_STATUS_BAD_REQUEST, QStringLiteral("Unable to parse data!"));

    // Giving up a legacy path makes nobody a legacy client.
    const bool legacy = addCurrentPaths(&data.subscribe);
    addCurrentPaths(&data.unsubscribe);
    if (!admit(true, data.subscribe))
        return;
    const QString client = request().isFromLocalhost() ? QString() : request().sender();
    if (data.queueId.isEmpty() && !m_shared->hasRoomFor(client))
        return finishRespond(TooManyRequests, QStringLiteral("Too many queues!"));
    const CMEventQueue* queue = m_shared->eventQueues()->modifyQueue(data.queueId, data.subscribe, data.unsubscribe);
    if (!queue)
        return finishRespond(SOUP_STATUS_BAD_REQUEST, QStringLiteral("Unable to subscribe or unsubscribe paths!"));
    if (data.queueId.isEmpty())
        m_shared->addQueue(queue->textId(), client);
    if (legacy)
        m_shared->addLegacyQueue(queue->textId());
    respondWithJson(queue->textId());
}

void EventResponder::pollQueue()
{
    if (!isPost() && !isGet())
        return finishRespond(SOUP_STATUS_NOT_IMPLEMENTED, QStringLiteral("Not implemented!"));
    SubscribeData data;
    if (!parseData(&data))
        return finishRespond(SOUP_STATUS_BAD_REQUEST, QStringLiteral("Unable to parse subscribe/unsubscribe list!"));

    CMEventQueue* queue = m_shared->eventQueues()->getQueue(data.queueId);
    if (!queue)
        return finishRespond(SOUP_STATUS_BAD_REQUEST, QStringLiteral("Unknown queue id!"));
    if (!admit(false, queue->subscribtions()))
        return;
    if (EventDelivery::isOver(request()))
        return queueRequestDone({}); // To nobody.
    m_shared->delivery()->settle(queue);
    const int timeout = data.timeout < 0 ? DefaultTimeout : data.timeout;
    m_polled = queue;
    m_shared->pollBegan();
    m_pollToken = queue->poll(new CMEventQueueHttpRequest(this, queue), timeout, data.received);
}

bool EventResponder::parseData(SubscribeData* data)
{
    const QByteArray contentType = request().requestContentType();
    if (isPost() && configuration().strictRequests() && contentType != "application/json") {
        dbglog_error(webserverLog(), "Invalid request content type: " << contentType);
        return false;
    }
    identify();
    RequestParameters parameters;
    return takeParameters(&parameters) && parseSubscribeData(parameters, data);
}

bool EventResponder::isAuthorized(bool modify, const ZarkList<ZarkEventSubscribe>& paths) const
{
    dbglog_debug(webserverLog(),
        "cred=" << caller().hasCredentials() << ", verified=" << caller().isVerified() << ", modify=" << modify
                << ", subscribe=" << toText(paths));
    if (caller().isWrong())
        return false;
    if (caller().local)
        return true;
    switch (configuration().authMode()) {
    case ZarkWebserverAuthMode::Off:
    case ZarkWebserverAuthMode::Writes:
        return true; // Modifying a queue writes nothing to the tree.
    case ZarkWebserverAuthMode::WritesAndEvents:
    case ZarkWebserverAuthMode::Everything:
        break;
    }
    return caller().isVerified() || m_shared->eventQueues()->checkPermissions(paths, { ZarkPermission::Open });
}

bool EventResponder::admit(bool modify, const ZarkList<ZarkEventSubscribe>& paths)
{
    if (isAuthorized(modify, paths)) {
        releaseBrake();
        return true;
    }
    finishRespond(
        caller().isVerified() ? SOUP_STATUS_FORBIDDEN : SOUP_STATUS_UNAUTHORIZED, QStringLiteral("Forbidden"));
    return false;
}

bool EventResponder::mayReadNow(const CMPath& path) const
{
    dbglog_scopedFunction(webserverLog());
    ZarkEventSubscribe subscription;
    subscription.setPath(path);
    if (!isAuthorized(false, { subscription }))
        return false;
    const CMUINode* node = CMRoot()->tree()->node(path);
    return !node || node->permission() != ZarkPermission::Internal || caller().local;
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

void EventResponder::finishRespond(int status, const QString& text)
{
    answer(status, text.toUtf8(), MimeTypes::Text::plain(), caller().hasCredentials());
}
