#pragma once

#include <QHash>
#include <QVector>

#include <vector>

#include "Handler.h"

class Request;
class Responder;
class ResponderFactory;

/// Makes one responder for each exchange, and finishes the exchange exactly once: when the responder says so or when
/// the client has gone, whichever comes first. Deletes the responder then, which its request owns; not the factory.
class ResponderHandler : public Handler {
    Q_OBJECT
public:
    ResponderHandler(ResponderFactory* factory, const QString& documentRoot, QObject* parent)
        : Handler(documentRoot, parent), m_factory(factory)
    {
    }

    /// Pauses the exchange, a Request as the Server makes them, and starts the responder from the event loop.
    void handle(Message* message) override;

private:
    struct ResponderInfo {
        Responder* responder; ///< Null until the event loop has turned.
        Request* request;
    };

    void startPending();
    void on_handleRequest(void* message);
    void finalizeRequest(int requestId);
    void finalizeRequest();
    void deleteSoon(Responder* responder);
    void deleteDone();

    ResponderFactory* m_factory;
    qint32 m_requestCounter = 0;
    QVector<int> m_pending; ///< Handed over in this turn of the event loop.
    QHash<int, ResponderInfo> m_responders;
    std::vector<Responder*> m_done; ///< In this turn of the event loop.
};
