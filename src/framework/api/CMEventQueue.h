#pragma once

#include <QBasicTimer>
#include <QHash>
#include <QObject>
#include <QUuid>

#include <memory>

#include "CMEventQueueRequest.h"
#include "CMNodeTree.h"
#include "CMPendingChanges.h"
#include "CMSentAnswers.h"
#include "ZarkEvent.h"
#include "ZarkList.h"

class CMEventQueue;

/// Whoever keeps the queues, as a queue sees it.
class CMEventQueueKeeper {
public:
    /// The queue has expired.
    virtual void remove(CMEventQueue* queue) = 0;
    /// Has CMEventQueue::answerChanges() called from the next turn of the event loop.
    virtual void answerSoon(CMEventQueue* queue) = 0;

protected:
    ~CMEventQueueKeeper() = default;
};

/// What changed since one client's last poll. Made by CMEventQueueManager, which deletes it from the event loop when it
/// expires: hold a QPointer, or ask the manager by id. Everything happens on the event loop's thread.
///
/// **What a client gets.** One event a path, in the order of the first change:
/// - "item" and "rows": the roles that changed, with the values that they have when the poll is answered; with `value`
///   and with row events also `timestamp`.
/// - "rows" of a list or a container: also the row events, in order, and the version that the rows have after them. A
///   container's rows are its children; nothing below them is told.
/// - A path that gets a node: all roles, and for "rows" a reset. A path that loses its node: all roles, each null; the
///   role `type` is null then and only then. There are no row events of a node that is gone.
/// - More than CMRowChanges::Maximum row events of a list, or CMPendingChanges::MaximumRowEvents of a queue, make one
///   reset of a list.
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
/// answers the first at once with no events. What an answer told is *held* until it is known to have arrived
/// (CMSentAnswers):
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
    static constexpr int MaximumTimeout = 300; ///< Seconds.
    static constexpr qint64 NotCounted = CMSentAnswers::NotCounted;

    ~CMEventQueue() override;

    const QUuid& id() const { return m_id; }
    QString textId() const { return m_id.toString(QUuid::WithoutBraces); } ///< As clients see it.
    const ZarkList<ZarkEventSubscribe>& subscribtions() const { return m_subscribtions; }

    /// Of changes that no answer has told yet: one for each path and one for each row event.
    int pendingChanges() const { return m_pending.count(); }

    /// Takes over `request` and answers it once, now or later. `timeout` is in seconds, cut to 0 to MaximumTimeout; 0
    /// answers what waits at once. `received` is the client's count of answers with events, from 0, or NotCounted.
    /// Returns the token for confirm() and restore(), never 0.
    quint64 poll(CMEventQueueRequest* request, int timeout, qint64 received = NotCounted);

    /// The client of that poll is gone: its request is deleted unanswered. No effect when it does not wait any more.
    void giveUp(quint64 token);

    /// Whether the answer to that poll told something and has not been settled.
    bool isHeld(quint64 token) const { return m_sent.isHeld(token); }
    /// Whether there is such an answer, and nobody has confirmed it.
    bool isSettlingOpen() const { return m_sent.isOpen(); }
    /// The answer to that poll arrived. No effect for a token that is settled already or whose answer had no events.
    void confirm(quint64 token);
    /// The answer to that poll did not arrive; the next poll gets its changes. Otherwise no effect, as confirm().
    void restore(quint64 token);

private:
    friend class CMEventQueueManager;

    CMEventQueue(CMNodeTree* tree, int expiryMs, CMEventQueueKeeper* keeper, QObject* parent);

    enum Type { Item = 1, Rows = 2 };

    static Type typeOf(const ZarkEventSubscribe& subscription);
    bool isSubscribed(const ZarkEventSubscribe& subscription) const;
    /// `added` is not subscribed yet, `removed` is; each once. A path that has one of both goes on without a gap.
    void change(const ZarkList<ZarkEventSubscribe>& added, const ZarkList<ZarkEventSubscribe>& removed);
    void subscribe(const ZarkEventSubscribe& subscription);
    void unsubscribe(const ZarkEventSubscribe& subscription);
    /// Answers a waiting poll with what there is, and from now on every poll at once.
    void close();

    void nodeChanged(CMUINode* node, const QStringList& roles) override;
    void rowsChanged(CMUINode* node, const QList<ZarkRowEvent>& events) override;
    void nodeAppeared(CMUINode* node) override;
    void nodeVanished(const CMPath& path) override;

    /// All roles, in place of what there is of the path; with a node also a reset of its rows.
    void tellAll(const CMPath& path);

    void answerSoon();
    void answerChanges();
    void answer(const ZarkList<ZarkEvent>& events);
    /// What the waiting request may read, held from now on.
    ZarkList<ZarkEvent> takeEvents();
    ZarkEvent eventOf(const CMPathChanges& changes) const;

    void startTimer();
    void timerEvent(QTimerEvent* event) override;

    QUuid m_id = QUuid::createUuid();
    CMEventQueueKeeper* m_keeper; ///< Outlives this.
    CMNodeTree* m_tree;
    int m_expiryMs;
    int m_timeoutMs = 0;
    QBasicTimer m_timer; // Of the waiting poll, or of the queue's end.
    bool m_closed = false;
    bool m_answersSoon = false;

    ZarkList<ZarkEventSubscribe> m_subscribtions;
    QHash<CMPath, int> m_paths; // Of which types, together.
    CMPendingChanges m_pending;
    CMSentAnswers m_sent;

    std::unique_ptr<CMEventQueueRequest> m_waiting;
    bool m_waitingCounts = false;
    quint64 m_lastToken = 0;
};
