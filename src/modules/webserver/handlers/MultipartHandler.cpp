#include "MultipartHandler.h"

#include "MultipartParser.h"
#include "MultipartResponder.h"
#include "MultipartResponderFactory.h"
#include "Request.h"
#include "WebserverLog.h"

namespace {

constexpr int DelimiterPrefixLength = 4; ///< Of CR LF "--".

} // namespace

struct MultipartHandler::Exchange {
    Exchange(Request* theRequest, MultipartResponder* theResponder)
        : request(theRequest), responder(theResponder),
          parser(MultipartParser::boundaryOf(theRequest->getDelimiterFromHeader().mid(DelimiterPrefixLength)),
              MultipartParser::Limits(), theResponder),
          language(soup_message_headers_get_one(theRequest->data().message->response_headers, "Content-Language"))
    {
    }

    Request* request;
    MultipartResponder* responder;
    MultipartParser parser;
    QByteArray language; ///< What the server announced; empty: nothing.
};

void MultipartHandler::handle(Message* message)
{
    dbglog_scopedFunction(webserverLog());
    if (m_factory->wants(*message))
        start(message);
}

void MultipartHandler::start(Message* message)
{
    dbglog_debug(webserverLog(), "MultipartHandler: request: '" << message->fullUri() << "'");
    const int id = ++m_requestCounter;
    auto* request = new Request(message->data(), id);
    request->setAccumulate(false);
    request->take();
    MultipartResponder* responder = m_factory->create(*request, documentRoot());
    responder->setRequestId(id);
    m_exchanges.insert(id, std::make_shared<Exchange>(request, responder));
    connect(responder, &Responder::finished, this, &MultipartHandler::finalize);
    connect(responder, &MultipartResponder::ready, request, [request] { request->unpause(); });
    connect(request, &Message::finished, this, [this, id] { finalize(id); });
    connect(request, &Message::gotBody, this, [this, id] { gotBody(id); });
    connect(request, &Message::gotChunk, this,
        [this, id](const char* data, unsigned int length) { gotChunk(id, data, length); });
    responder->respond();
}

void MultipartHandler::gotChunk(int requestId, const char* data, unsigned int length)
{
    const std::shared_ptr<Exchange> exchange = m_exchanges.value(requestId);
    if (!exchange)
        return;
    // A malformed body is reported at once; what follows of it is of no interest.
    if (!exchange->parser.feed(data, length))
        exchange->responder->bodyEnded(exchange->parser.error());
    else if (m_exchanges.contains(requestId) && exchange->responder->isFull())
        exchange->request->pause();
}

// With a status the library looks for no other answer; paused, it waits for the real one.
void MultipartHandler::gotBody(int requestId)
{
    const std::shared_ptr<Exchange> exchange = m_exchanges.value(requestId);
    if (!exchange)
        return;
    Request* request = exchange->request;
    request->setStatus(SOUP_STATUS_OK, QString());
    // "100 Continue" took with it what was set before.
    request->setHeader(QByteArrayLiteral("X-Robots-Tag"), QByteArrayLiteral("noindex"));
    if (!exchange->language.isEmpty())
        request->setHeader(QByteArrayLiteral("Content-Language"), exchange->language);
    request->pause();
    exchange->parser.finish();
    exchange->responder->bodyEnded(exchange->parser.error());
}

void MultipartHandler::finalize(int requestId)
{
    const std::shared_ptr<Exchange> exchange = m_exchanges.take(requestId);
    if (!exchange) {
        dbglog_debug(webserverLog(), "Request " << requestId << " allready finalized");
        return;
    }
    Request* request = exchange->request;
    dbglog_debug(webserverLog(), "Responder finished request " << requestId << ": status: " << request->status());
    if (request->isValid())
        request->responseBodyComplete();
    // The responder first: it may look at its request to its end.
    exchange->responder->deleteLater();
    request->deleteLater();
}
