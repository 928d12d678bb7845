#pragma once

#include <QHash>

#include <memory>

#include "Handler.h"

class MultipartResponder;
class MultipartResponderFactory;
class Request;

/// An early handler: takes the multipart/form-data requests that its factory wants, parses their bodies as they arrive
/// and hands the parts to a responder. A body that its responder has no room for waits in the socket. Every other
/// request goes on to its normal handler as it is.
class MultipartHandler : public Handler {
    Q_OBJECT
public:
    /// The factory is not owned.
    MultipartHandler(MultipartResponderFactory* factory, const QString& documentRoot, QObject* parent)
        : Handler(documentRoot, parent), m_factory(factory)
    {
    }

    /// Called when the head has been read and the body has not.
    void handle(Message* message) override;

private:
    struct Exchange;

    void start(Message* message);
    void gotChunk(int requestId, const char* data, unsigned int length);
    void gotBody(int requestId);
    void finalize(int requestId);

    MultipartResponderFactory* m_factory;
    int m_requestCounter = 0;
    /// Shared: an answer may end an exchange from inside its parser.
    QHash<int, std::shared_ptr<Exchange>> m_exchanges;
};
