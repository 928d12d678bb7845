#pragma once

#include <QJsonArray>
#include <QJsonObject>
#include <QUrl>

#include "Device.h"

/// A client of the event API on loopback, one connection a request unless a test keeps its own.
class EventClient {
public:
    EventClient() = default;
    explicit EventClient(const Device* device) : m_device(device) { }

    /// A new queue for a JSON list of subscriptions.
    QByteArray subscribe(const QByteArray& list) const
    {
        return idOf(m_device->postJson("/api/event/modifyQueue", "{\"subscribe\":" + list + '}'));
    }
    QByteArray subscribeItem(const QByteArray& path) const { return subscribe("[{\"path\":\"" + path + "\"}]"); }

    static QByteArray pollTarget(const QByteArray& queue, int timeout)
    {
        return "/api/event/pollQueue?queueId=" + queue + "&timeout=" + QByteArray::number(timeout);
    }
    QJsonArray poll(const QByteArray& queue, int timeout = 0, const QByteArray& more = {}) const
    {
        return m_device->get(pollTarget(queue, timeout) + more).json().array();
    }
    /// Asks and does not wait.
    static void startPoll(HttpConnection* connection, const QByteArray& queue, int timeout = 30)
    {
        connection->send(httpRequest("GET", pollTarget(queue, timeout), { "Host: localhost" }));
    }

    bool setCounter(int value) const
    {
        return m_device->set("demo:volatile/counter", QByteArray::number(value)) == 200;
    }

    /// Empty unless the reply is the id of a queue.
    static QByteArray idOf(const HttpReply& reply)
    {
        const QByteArray id = reply.body.mid(1, reply.body.size() - 2);
        return reply.status == 200 && id.size() == 36 ? id : QByteArray();
    }

private:
    const Device* m_device = nullptr;
};

constexpr const char* Counter = "demo:volatile/counter";

/// The value that an answer tells of the counter; -1 when it tells none.
inline int counterIn(const QJsonArray& events)
{
    for (const QJsonValue event : events) {
        if (event.toObject().value("path").toString() == QLatin1String(Counter))
            return event.toObject().value("roles").toObject().value("value").toObject().value("value").toInt(-1);
    }
    return -1;
}
