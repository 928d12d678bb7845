#pragma once

#include <QHash>
#include <QPointer>
#include <QVector>

#include "Handler.h"
#include "Message.h"

class Request;
class Responder;
class ResponderFactory;

/// Makes one responder for each exchange, and finishes the exchange exactly once: when the responder says so or when
/// the client has gone, whichever comes first. Owns responder and request meanwhile; not the factory.
class ResponderHandler : public Handler {
    Q_OBJECT
public:
    ResponderHandler(ResponderFactory* factory, const QString& documentRoot, QObject* parent)
        : Handler(documentRoot, parent), m_factory(factory)
    {
    }

    /// Pauses the exchange and starts the responder from the event loop.
    void handle(Message* message) override;

private:
    struct ResponderInfo {
        Responder* responder;
        Request* request;
    };

    void startPending();
    void on_handleRequest(void* message);
    void finalizeRequest(int requestId);
    void finalizeRequest();

    ResponderFactory* m_factory;
    qint32 m_requestCounter = 0;
    QVector<QPointer<Message>> m_pending; ///< Handed over in this turn of the event loop.
    QHash<int, ResponderInfo> m_responders;
};
