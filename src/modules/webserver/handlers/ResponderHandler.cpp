#include "ResponderHandler.h"

#include <memory>
#include <utility>

#include "Request.h"
#include "Responder.h"
#include "ResponderFactory.h"
#include "WebserverLog.h"

namespace {

/// What is left of an exchange, deleted from the event loop: the responder while it still has its request. One object,
/// as each deleteLater() of its own would wake the event loop once more.
class FinishedExchange : public QObject {
public:
    FinishedExchange(Responder* responder, Request* request) : m_request(request), m_responder(responder) { }

private:
    std::unique_ptr<Request> m_request;
    std::unique_ptr<Responder> m_responder;
};

} // namespace

void ResponderHandler::handle(Message* message)
{
    dbglog_scopedFunction(webserverLog());
    dbglog_trace(webserverLog(), "message: " << message->fullUri());
    // One event for all that come in one turn of the event loop: each event wakes it by a system call.
    if (m_pending.isEmpty())
        QMetaObject::invokeMethod(
            this, [this] { startPending(); }, Qt::QueuedConnection);
    m_pending.append(message);
    message->pause();
}

void ResponderHandler::startPending()
{
    const auto pending = std::exchange(m_pending, {});
    for (const QPointer<Message>& message : pending) {
        // The client may have gone, and the message with it.
        if (message && message->isValid())
            on_handleRequest(message.data());
    }
}

void ResponderHandler::on_handleRequest(void* message)
{
    auto* exchange = static_cast<Message*>(message);
    dbglog_debug(webserverLog(), "ResponderHandler::handle: " << exchange->fullUri());
    const int id = ++m_requestCounter;
    auto* request = new Request(exchange->data(), id);
    dbglog_debug(webserverLog(), "New request with id " << id);
    Responder* responder = m_factory->create(*request, documentRoot());
    responder->setRequestId(id);
    if (responder->respondWillBlock())
        qFatal("!blockingResponder");

    m_responders.insert(id, { responder, request });

    const bool connected =
        connect(responder, &Responder::finished, this, qOverload<int>(&ResponderHandler::finalizeRequest))
        && connect(request, &Message::finished, this, qOverload<>(&ResponderHandler::finalizeRequest));
    if (!connected)
        qFatal("connection");

    exchange->pause();
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
    info.responder->complete();
    dbglog_debug(webserverLog(),
        "Responder finished request " << requestId << ": status: " << info.request->status()
                                      << " data size: " << info.request->data().message->response_body->length);
    (new FinishedExchange(info.responder, info.request))->deleteLater();
}

void ResponderHandler::finalizeRequest()
{
    const auto* request = qobject_cast<Request*>(sender());
    if (!request)
        qFatal("request");
    finalizeRequest(request->requestId());
}
