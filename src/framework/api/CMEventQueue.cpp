#include "CMEventQueue.h"

#include <QTimerEvent>

#include <algorithm>
#include <utility>

#include "CMUINode.h"
#include "ZarkRoles.h"

namespace {

quint32 allRoles()
{
    return (1u << CMAllRoles().count()) - 1;
}

quint32 roleBits(const QStringList& roles)
{
    quint32 bits = 0;
    for (const QString& role : roles) {
        const int index = CMAllRoles().indexOf(role);
        if (index >= 0)
            bits |= 1u << index;
    }
    return bits;
}

} // namespace

CMEventQueue::Type CMEventQueue::typeOf(const ZarkEventSubscribe& subscription)
{
    return subscription.type() == QLatin1String("rows") ? Rows : Item;
}

CMEventQueue::CMEventQueue(CMNodeTree* tree, int expiryMs, CMEventQueueKeeper* keeper, QObject* parent)
    : QObject(parent), m_keeper(keeper), m_tree(tree), m_expiryMs(expiryMs)
{
    startTimer();
}

CMEventQueue::~CMEventQueue()
{
    for (auto it = m_paths.cbegin(); it != m_paths.cend(); ++it)
        m_tree->removeListener(it.key(), this);
}

quint64 CMEventQueue::poll(CMEventQueueRequest* request, int timeout, qint64 received)
{
    const quint64 token = ++m_lastToken;
    request->m_token = token;
    // First, so that what was lost stands in front of what has changed since, and this answer tells both.
    const CMSentAnswers::Settlement earlierAnswers = m_sent.settle(received);
    m_pending.putBack(earlierAnswers.lost);
    if (earlierAnswers.outOfStep) {
        for (const ZarkEventSubscribe& subscription : qAsConst(m_subscribtions))
            tellAll(subscription.path());
    }

    const std::unique_ptr<CMEventQueueRequest> earlier = std::move(m_waiting);
    m_waiting.reset(request);
    m_waitingCounts = received != NotCounted;
    m_timeoutMs = qBound(0, timeout, MaximumTimeout) * 1000;
    // With nothing: two answers on two connections may arrive in either order.
    if (earlier)
        earlier->done(m_id, {});

    const ZarkList<ZarkEvent> events = takeEvents();
    if (!events.isEmpty() || m_timeoutMs == 0 || m_closed)
        answer(events);
    else
        startTimer();
    return token;
}

void CMEventQueue::giveUp(quint64 token)
{
    if (!m_waiting || m_waiting->token() != token)
        return;
    m_waiting.reset();
    startTimer();
}

void CMEventQueue::confirm(quint64 token)
{
    m_sent.confirm(token);
}

void CMEventQueue::restore(quint64 token)
{
    m_pending.putBack(m_sent.restore(token));
    // Another poll may wait already, on another connection.
    answerSoon();
}

void CMEventQueue::close()
{
    m_closed = true;
    if (m_waiting)
        answer(takeEvents());
}

bool CMEventQueue::isSubscribed(const ZarkEventSubscribe& subscription) const
{
    return m_paths.value(subscription.path()) & typeOf(subscription);
}

void CMEventQueue::change(const ZarkList<ZarkEventSubscribe>& added, const ZarkList<ZarkEventSubscribe>& removed)
{
    for (const ZarkEventSubscribe& subscription : added)
        subscribe(subscription);
    for (const ZarkEventSubscribe& subscription : removed)
        unsubscribe(subscription);
    if (!removed.isEmpty()) {
        const auto isRemoved = [this](const ZarkEventSubscribe& subscription) {
            return !isSubscribed(subscription);
        };
        m_subscribtions.erase(
            std::remove_if(m_subscribtions.begin(), m_subscribtions.end(), isRemoved), m_subscribtions.end());
    }
    if (!m_waiting)
        startTimer();
}

void CMEventQueue::subscribe(const ZarkEventSubscribe& subscription)
{
    const bool isNew = !m_paths.contains(subscription.path());
    // Before the tree knows: a node that nobody listened to may change on being listened to.
    m_paths[subscription.path()] |= typeOf(subscription);
    if (isNew)
        m_tree->addListener(subscription.path(), this);
    m_subscribtions.append(subscription);
}

void CMEventQueue::unsubscribe(const ZarkEventSubscribe& subscription)
{
    const CMPath& path = subscription.path();
    const int types = m_paths.value(path) & ~typeOf(subscription);
    if (!types) {
        m_tree->removeListener(path, this);
        m_paths.remove(path);
        m_pending.drop(path);
        m_sent.drop(path);
        return;
    }
    m_paths.insert(path, types);
    // Row events from before a gap in the subscription must not meet those from after it.
    if (types == Item) {
        m_pending.dropRows(path);
        m_sent.dropRows(path);
    }
}

void CMEventQueue::nodeChanged(CMUINode* node, const QStringList& roles)
{
    m_pending.addRoles(node->path(), roleBits(roles));
    answerSoon();
}

void CMEventQueue::rowsChanged(CMUINode* node, const QList<ZarkRowEvent>& events)
{
    if (!(m_paths.value(node->path()) & Rows))
        return;
    m_pending.addRows(node->path(), events);
    answerSoon();
}

// What was told of another node at this path means nothing any more.
void CMEventQueue::nodeAppeared(CMUINode* node)
{
    m_pending.replace(node->path(), allRoles(), m_paths.value(node->path()) & Rows);
    answerSoon();
}

void CMEventQueue::nodeVanished(const CMPath& path)
{
    m_pending.replace(path, allRoles(), false);
    answerSoon();
}

void CMEventQueue::tellAll(const CMPath& path)
{
    m_pending.replace(path, allRoles(), (m_paths.value(path) & Rows) && m_tree->node(path));
}

void CMEventQueue::answerSoon()
{
    if (!m_waiting || m_answersSoon || m_pending.isEmpty())
        return;
    // Not now: a change is often one of several, and this may be in the middle of a node's.
    m_answersSoon = true;
    m_keeper->answerSoon(this);
}

void CMEventQueue::answerChanges()
{
    m_answersSoon = false;
    // In between, the poll may have been answered or given up, and another one may wait.
    const ZarkList<ZarkEvent> events = m_waiting ? takeEvents() : ZarkList<ZarkEvent>();
    if (!events.isEmpty())
        answer(events);
}

void CMEventQueue::answer(const ZarkList<ZarkEvent>& events)
{
    // Before done(), which may poll again at once.
    const std::unique_ptr<CMEventQueueRequest> request = std::move(m_waiting);
    if (!events.isEmpty() && !request->settles())
        m_sent.confirm(request->token());
    startTimer();
    request->done(m_id, events);
}

ZarkList<ZarkEvent> CMEventQueue::takeEvents()
{
    const QVector<CMPathChanges> told = m_pending.take([this](const CMPath& path) { return m_waiting->mayRead(path); });
    ZarkList<ZarkEvent> events;
    for (const CMPathChanges& changes : told)
        events.append(eventOf(changes));
    if (!told.isEmpty())
        m_sent.sent(m_waiting->token(), m_waitingCounts, told);
    return events;
}

ZarkEvent CMEventQueue::eventOf(const CMPathChanges& changes) const
{
    static const quint32 value = roleBits({ ZarkRoles::Value() });
    static const quint32 timestamp = roleBits({ ZarkRoles::Timestamp() });
    const CMUINode* node = m_tree->node(changes.path);
    const bool isDated = (changes.roles & value) || !changes.rows.isEmpty();
    const quint32 told = changes.roles | (isDated ? timestamp : 0);
    QVariantHash roles;
    for (int i = 0; i < CMAllRoles().count(); ++i) {
        if (!(told & 1u << i))
            continue;
        bool known = false;
        const QString& name = CMAllRoles().at(i);
        roles.insert(name, node ? node->role(name, &known) : QVariant());
    }
    ZarkEvent event(changes.path);
    event.setRoles(roles);
    if (node && !changes.rows.isEmpty()) {
        ZarkList<ZarkRowEvent> rows = changes.rows.events();
        // Whoever reads the list now has all that the reset stands for.
        if (changes.rows.isReset())
            rows.first().setVersion(node->rowsVersion());
        event.setRowsEvents(rows);
        event.setRowsVersion(node->rowsVersion());
    }
    return event;
}

void CMEventQueue::startTimer()
{
    if (m_waiting)
        m_timer.start(m_timeoutMs, Qt::PreciseTimer, this);
    else
        m_timer.start(m_expiryMs, this);
}

void CMEventQueue::timerEvent(QTimerEvent* event)
{
    if (event->timerId() != m_timer.timerId())
        return QObject::timerEvent(event);
    m_timer.stop();
    if (m_waiting)
        answer(takeEvents());
    else
        m_keeper->remove(this);
}
