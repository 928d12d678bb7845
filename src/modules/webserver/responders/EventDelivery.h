#pragma once

#include <QBasicTimer>
#include <QObject>
#include <QPointer>

#include <libsoup/soup.h>

#include <memory>
#include <unordered_map>
#include <vector>

#include "CMEventQueue.h"
#include "TcpCounters.h"

class Message;

/// Finds out what became of the answers to polls, and tells their queues; one for all connections of the worker. It
/// goes by what the kernel counts on each connection, and never by time:
///
/// | the answer's last byte is | and then                                             | so the answer  |
/// | ------------------------- | ---------------------------------------------------- | -------------- |
/// | acknowledged              | the client sends anything, or closes in order        | has arrived    |
/// | acknowledged              | the queue is polled otherwise, or the server closes  | has arrived    |
/// | acknowledged              | the client resets the connection                     | is lost        |
/// | not acknowledged          | the connection ends, or the queue is polled again    | is lost        |
///
/// A client's system resets a connection that is closed with bytes in it that nobody has read. What was read and then
/// not looked at, nobody can see; against that a client can count (CMEventQueue). Over HTTPS, bytes of the encryption
/// count as sent by the client, and an answer that ends its connection has arrived when it is sent.
///
/// The library must not close a connection before it has been looked at, since its counters go with it. So they are
/// read between the wait for events and the library's turn; and where the library would close at once, because either
/// side has said that no request follows, the exchange is kept open until the answer's fate is known.
class EventDelivery : public QObject {
    Q_OBJECT
public:
    EventDelivery();
    ~EventDelivery() override;

    /// Whether the connection of `message` is over already, as that of a client which asked again elsewhere may be when
    /// its first request is read. Such a poll would take the newer one's answer for lost: it is not to be made.
    static bool isOver(const Message& message);
    /// Before the answer to that poll is written to `message`, which is not owned.
    void watch(const Message& message, CMEventQueue* queue, quint64 token);
    /// Before another poll of the queue: decides about the answer that was sent, if that is open.
    void settle(CMEventQueue* queue);

private:
    struct Answer {
        QPointer<CMEventQueue> queue;
        quint64 token = 0;
        TcpCounters sent; ///< When the answer had been written; `received` from before its first byte.
    };
    /// A connection on which some answer's fate is open. More than one is, when a client sends its polls in a row.
    struct Connection {
        EventDelivery* delivery = nullptr;
        int fd = -1; ///< The key; the library's.
        SoupSocket* socket = nullptr; ///< Not owned, like all of the library.
        SoupServer* server = nullptr;
        bool isEncrypted = false;
        SoupMessage* writing = nullptr; ///< The exchange whose answer is `next`, until that is written.
        SoupMessage* kept = nullptr; ///< The exchange that is kept open.
        Answer next;
        std::vector<Answer> answers;
    };
    enum Occasion {
        Heard, ///< Something came from the client.
        GivenUp, ///< There will be no more to go by.
        Ended, ///< The connection is over.
    };

    static gboolean onEvents(GSource* source);
    static void onWroteBody(SoupMessage* message, gpointer connection);
    static void onFinished(SoupMessage* message, gpointer connection);
    static void onDisconnected(SoupSocket* socket, gpointer connection);

    Connection* connectionOf(const Message& message, int fd);
    void startWatching(Connection* connection, SoupMessage* message);
    void hear();
    void look(Connection* connection, const TcpCounters& now, Occasion occasion);
    void settleAnswer(const Answer& answer, bool arrived);
    void forgetIfSettled(Connection* connection);
    void stopWriting(Connection* connection);
    void lookOut(Connection* connection);
    void endLookout();
    void closeLookout();
    void lookAtKept();
    void timerEvent(QTimerEvent* event) override;

    int m_epollFd;
    GSource* m_source;
    std::unordered_map<int, std::unique_ptr<Connection>> m_connections;
    QBasicTimer m_acknowledgements; ///< No event tells of one; runs while an exchange is kept open for it.
    Connection* m_lookoutOver = nullptr;
    int m_lookoutFd = -1;
};
