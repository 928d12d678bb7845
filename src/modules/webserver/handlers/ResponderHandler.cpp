#include "ResponderHandler.h"

#include <utility>

#include "Request.h"
#include "Responder.h"
#include "ResponderFactory.h"
#include "WebserverLog.h"

void ResponderHandler::handle(Message* message)
{
    dbglog_scopedFunction(webserverLog());
    dbglog_trace(webserverLog(), "message: " << message->fullUri());
    auto* request = qobject_cast<Request*>(message);
    if (!request)
        qFatal("request");
    request->setRequestId(++m_requestCounter);
    m_responders.insert(request->requestId(), { nullptr, request });
    if (!connect(request, &Message::finished, this, qOverload<>(&ResponderHandler::finalizeRequest)))
        qFatal("connection");
    // One event for all that come in one turn of the event loop: each event wakes it by a system call.
    if (m_pending.isEmpty())
        QMetaObject::invokeMethod(
            this, [this] { startPending(); }, Qt::QueuedConnection);
    m_pending.append(request->requestId());
    message->pause();
}

void ResponderHandler::startPending()
{
    const auto pending = std::exchange(m_pending, {});
    for (const int id : pending) {
        // The client may have gone, and the request with it.
        const auto found = m_responders.constFind(id);
        if (found != m_responders.constEnd())
            on_handleRequest(found->request);
    }
}

void ResponderHandler::on_handleRequest(void* message)
{
    auto* request = static_cast<Request*>(message);
    const int id = request->requestId();
    dbglog_debug(webserverLog(), "ResponderHandler::handle: " << request->fullUri());
    dbglog_debug(webserverLog(), "New request with id " << id);
    Responder* responder = m_factory->create(*request, documentRoot());
    responder->setRequestId(id);
    if (responder->respondWillBlock())
        qFatal("!blockingResponder");

    m_responders[id].responder = responder;
    if (!connect(responder, &Responder::finished, this, qOverload<int>(&ResponderHandler::finalizeRequest)))
        qFatal("connection");

    request->pause();
    dbglog_debug(webserverLog(), "Calling respond for request " << id);
    responder->respond();
}

void ResponderHandler::finalizeRequest(int requestId)
{
    const auto found = m_responders.constFind(requestId);
    if (found == m_responders.constEnd()) {
        dbglog_debug(webserverLog(), "Request " << requestId << " allready finalized");
        return;
    }
    const ResponderInfo info = m_responders.take(requestId);
    if (!info.responder)
        return;
    info.responder->complete();
    dbglog_debug(webserverLog(),
        "Responder finished request " << requestId << ": status: " << info.request->status()
                                      << " data size: " << info.request->data().message->response_body->length);
    deleteSoon(info.responder);
}

void ResponderHandler::finalizeRequest()
{
    const auto* request = qobject_cast<Request*>(sender());
    if (!request)
        qFatal("request");
    finalizeRequest(request->requestId());
}

// One event for all that are done in one turn, before the first of their requests is deleted: that takes another event,
// which comes after this one.
void ResponderHandler::deleteSoon(Responder* responder)
{
    if (m_done.empty())
        QMetaObject::invokeMethod(
            this, [this] { deleteDone(); }, Qt::QueuedConnection);
    m_done.push_back(responder);
}

void ResponderHandler::deleteDone()
{
    for (Responder* responder : std::exchange(m_done, {}))
        delete responder;
}
