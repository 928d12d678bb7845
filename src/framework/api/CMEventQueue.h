#pragma once

#include <QBasicTimer>
#include <QHash>
#include <QObject>
#include <QUuid>
#include <QVector>

#include <memory>

#include "CMEventQueueRequest.h"
#include "CMNodeTree.h"
#include "CMRowChanges.h"
#include "ZarkEvent.h"
#include "ZarkList.h"

/// What changed since one client's last poll. Made by CMEventQueueManager, which deletes it from the event loop when it
/// expires: hold a QPointer, or ask the manager by id. Everything happens on the event loop's thread.
///
/// **What a client gets.** One event a path, in the order of the first change:
/// - "item" and "rows": the roles that changed, with the values that they have when the poll is answered.
/// - "rows" of a list or a container: also the row events, in order, and the version that the rows have after them. A
///   container's rows are its children; nothing below them is told.
/// - A path that gets a node: all roles, and for "rows" a reset. A path that loses its node: all roles, each null; the
///   role `type` is null then and only then. There are no row events of a node that is gone.
/// - More than CMRowChanges::Maximum row events of a list, or MaximumRowEvents of a queue, make one reset of a list.
/// - Nothing at first: a client subscribes, then reads. Every change after the subscription is told.
/// - Nothing of a path that the request may not read. Its changes wait until one may; they answer no poll.
///
/// To mirror a list a client subscribes, reads all rows at some version R, and from then on takes each answer's row
/// events:
/// - There is a reset: read all rows again.
/// - Otherwise apply those whose own version is greater than R, in order (the others had happened when the rows were
///   read); R becomes the version after all of them, if that is greater. Then read the rows that were inserted or
///   updated, asking for version R. When that is outdated, more events wait: apply those first, or read all rows again.
///
/// **Life of a poll.** poll() hands a request over. It waits until something changes and is answered from the next turn
/// of the event loop, so that the changes of one turn make one answer; or at its timeout with no events. A second poll
/// answers the first at once with no events. What an answer told is *held* until it is known to have arrived:
///
/// | the request        | held until           | then                                                     |
/// | ------------------ | -------------------- | -------------------------------------------------------- |
/// | does not settle    | done() returns       | forgotten                                                |
/// | settles            | confirm()            | forgotten                                                |
/// |                    | restore(), or a poll | put back in front of newer changes                       |
/// | counts its answers | the next poll        | forgotten if that one counts this answer, else put back  |
///
/// A poll that comes while an answer is unsettled tells that it was cut off: whoever has read an answer to its end asks
/// after it was sent. No sender can know that the last bytes were read, though, so a client that must miss nothing and
/// hear nothing twice, whatever happens to its connection, counts the answers with at least one event that it received
/// and sends that count with each poll. What a count says goes before confirm() and restore(). A count that is neither
/// the queue's nor one less makes the queue tell everything: all roles of each path, a reset of each list.
class CMEventQueue : public QObject, private CMNodeListener {
    Q_OBJECT
public:
    static constexpr int MaximumSubscribtions = 1000;
    static constexpr int MaximumRowEvents = 4096; ///< Of all lists together.
    static constexpr int MaximumTimeout = 300; ///< Seconds.
    static constexpr qint64 NotCounted = -1;

    ~CMEventQueue() override;

    const QUuid& id() const { return m_id; }
    QString textId() const { return m_id.toString(QUuid::WithoutBraces); } ///< As clients see it.
    const ZarkList<ZarkEventSubscribe>& subscribtions() const { return m_subscribtions; }

    /// Takes over `request` and answers it once, now or later. `timeout` is in seconds, cut to 0 to MaximumTimeout; 0
    /// answers what waits at once. `received` is the client's count of answers with events, from 0, or NotCounted.
    /// Returns the token for confirm() and restore(), never 0.
    quint64 poll(CMEventQueueRequest* request, int timeout, qint64 received = NotCounted);

    /// Whether the answer to that poll told something and has not been settled.
    bool isHeld(quint64 token) const;
    /// The answer to that poll arrived. No effect for a token that is settled already or whose answer had no events.
    void confirm(quint64 token);
    /// The answer to that poll did not arrive; the next poll gets its changes. For a poll that still waits: its client
    /// is gone, and the request is deleted unanswered. Otherwise no effect, as confirm().
    void restore(quint64 token);

Q_SIGNALS:
    void expired();

private:
    friend class CMEventQueueManager;

    struct Changes {
        quint32 roles = 0; // A bit for each of CMAllRoles().
        CMRowChanges rows;

        bool isEmpty() const { return !roles && rows.isEmpty(); }
    };
    struct Subscription {
        bool rows = false;
        Changes changes;
    };
    struct HeldChanges {
        CMPath path;
        Changes changes;
    };
    struct HeldAnswer {
        quint64 token = 0; // 0: none is held.
        bool counted = false;
        bool arrived = false;
        QVector<HeldChanges> changes;
    };

    CMEventQueue(CMNodeTree* tree, int expiryMs, QObject* parent);

    void setSubscribtions(const ZarkList<ZarkEventSubscribe>& subscribtions);
    void unsubscribe(const CMPath& path);
    void unsubscribeRows(const CMPath& path);
    /// Answers a waiting poll with what there is, and from now on every poll at once.
    void close();

    void nodeChanged(CMUINode* node, const QStringList& roles) override;
    void rowsChanged(CMUINode* node, const QList<ZarkRowEvent>& events) override;
    void nodeAppeared(CMUINode* node) override;
    void nodeVanished(const CMPath& path) override;

    /// The changes of a subscribed path, which the caller adds to.
    Changes& touched(const CMPath& path, Subscription& subscription);
    void touchAll(const CMPath& path, Subscription& subscription, bool exists);
    void countRows(CMRowChanges& rows, int before);
    void dropRows(CMRowChanges& rows);

    void answerSoon();
    void answerChanges();
    void answer(const ZarkList<ZarkEvent>& events);
    /// What the waiting request may read, held from now on.
    ZarkList<ZarkEvent> takeEvents();
    ZarkEvent eventOf(const CMPath& path, const Changes& changes) const;

    void settleBefore(qint64 received);
    void putBack();

    void startTimer();
    void timerEvent(QTimerEvent* event) override;

    QUuid m_id = QUuid::createUuid();
    CMNodeTree* m_tree;
    int m_expiryMs;
    int m_timeoutMs = 0;
    QBasicTimer m_timer; // Of the waiting poll, or of the queue's end.
    bool m_closed = false;
    bool m_answersSoon = false;

    ZarkList<ZarkEventSubscribe> m_subscribtions;
    QHash<CMPath, Subscription> m_paths;
    QVector<CMPath> m_touched; // The paths with changes, the first changed first.
    int m_rowEvents = 0; // Of all m_paths.

    std::unique_ptr<CMEventQueueRequest> m_waiting;
    bool m_waitingCounts = false;
    quint64 m_lastToken = 0;
    qint64 m_answers = 0; // With events, and not put back.
    HeldAnswer m_held;
};
