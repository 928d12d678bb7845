#include "ResponderHandler.h"

#include <QBuffer>

#include <utility>

#include "Request.h"
#include "Responder.h"
#include "ResponderFactory.h"
#include "ServerMessageDevice.h"
#include "WebserverLog.h"

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

    auto* input = new QBuffer;
    input->open(QIODevice::ReadOnly);
    auto* output = new ServerMessageDevice(request, nullptr);
    output->open(QIODevice::WriteOnly);
    responder->setIODevices(input, output);
    m_responders.insert(id, { responder, request, input, output });

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
    info.input->close();
    info.output->close();
    if (info.responder->respondWillBlock()) {
        auto* buffer = qobject_cast<QBuffer*>(info.output);
        if (!buffer)
            qFatal("buffer");
        info.request->setResponseBody(buffer->data(), QString());
    }
    dbglog_debug(webserverLog(),
        "Responder finished request " << requestId << ": status: " << info.request->status()
                                      << " data size: " << info.request->data().message->response_body->length);
    // All four go together with the request, the responder first (its factory saw to that): each deleteLater() of its
    // own would wake the event loop once more.
    info.input->setParent(info.request);
    info.output->setParent(info.request);
    info.request->deleteLater();
}

void ResponderHandler::finalizeRequest()
{
    const auto* request = qobject_cast<Request*>(sender());
    if (!request)
        qFatal("request");
    finalizeRequest(request->requestId());
}
