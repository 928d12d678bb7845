#pragma once

#include <QHash>
#include <QObject>
#include <QPointer>
#include <QSet>
#include <QUuid>
#include <QVector>

#include "CMEventQueue.h"
#include "ZarkEvent.h"
#include "ZarkList.h"
#include "ZarkPermission.h"

/// The event queues of one server, by id. Lives on the event loop's thread and no longer than CMRoot().
class CMEventQueueManager : public QObject, private CMEventQueueKeeper {
    Q_OBJECT
public:
    static constexpr int MaximumQueues = 1000;
    static constexpr int MaximumSubscribtions = 50000; ///< Of all queues together.
    static constexpr int MaximumPathLength = 1024; ///< Characters of the encoded text.
    static constexpr int DefaultExpiryMs = 60000;

    explicit CMEventQueueManager(QObject* parent = nullptr);
    ~CMEventQueueManager() override; ///< As shutDown().

    /// How long a queue lives without a poll or a change of it, for the queues made from now on.
    void setExpiry(int ms) { m_expiryMs = ms; }

    /// The queue `queueId`, or a new one when that is empty, after `unsubscribe` and then `subscribe`. A subscription
    /// may name a path that has no node (yet), or a path of the old form, which never has one; one that is there
    /// already stays as it is, and one that is not there is not missed. Null, with nothing changed, for an unknown
    /// queue, an invalid subscription in either list, more than a limit allows (with a warning in the log), without
    /// CMRoot() and after shutDown(). The manager keeps ownership.
    CMEventQueue* modifyQueue(
        const QString& queueId, ZarkList<ZarkEventSubscribe>& subscribe, ZarkList<ZarkEventSubscribe>& unsubscribe);
    /// Null when unknown or expired. The id is its UUID, with or without braces.
    CMEventQueue* getQueue(const QString& queueId) const;

    /// Those of all queues; looks at each of them.
    int pendingChanges() const;

    /// Whether each path has a node now, with a permission out of `permissions`.
    bool checkPermissions(
        const ZarkList<ZarkEventSubscribe>& subscribtions, const QSet<ZarkPermission::Enum>& permissions) const;

    /// Answers every waiting poll with what there is, mostly no events, and all later polls at once.
    void shutDown();

Q_SIGNALS:
    /// The queue is gone; the id is its UUID without braces, as clients see it.
    void expired(const QString& queueId);

private:
    struct Change {
        ZarkList<ZarkEventSubscribe> added; ///< Each once, and not subscribed yet.
        ZarkList<ZarkEventSubscribe> removed; ///< Each once, and subscribed.
    };

    /// What is in both lists stays or is added. Null: a queue without subscriptions.
    static Change changeOf(const CMEventQueue* queue, const ZarkList<ZarkEventSubscribe>& subscribe,
        const ZarkList<ZarkEventSubscribe>& unsubscribe);
    bool isAcceptable(const ZarkList<ZarkEventSubscribe>& list) const;
    bool isWithinLimits(int current, const Change& change) const;
    CMEventQueue* createQueue();
    void remove(CMEventQueue* queue) override;
    void answerSoon(CMEventQueue* queue) override;
    void answerDue();

    QHash<QUuid, CMEventQueue*> m_queues;
    QVector<QPointer<CMEventQueue>> m_due; ///< To be answered.
    int m_expiryMs = DefaultExpiryMs;
    bool m_shutDown = false;
};
