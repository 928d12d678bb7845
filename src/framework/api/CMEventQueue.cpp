#include "CMEventQueue.h"

#include <QMetaObject>
#include <QSet>
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

bool wantsRows(const ZarkEventSubscribe& subscription)
{
    return subscription.type() == QLatin1String("rows");
}

} // namespace

CMEventQueue::CMEventQueue(CMNodeTree* tree, int expiryMs, QObject* parent)
    : QObject(parent), m_tree(tree), m_expiryMs(expiryMs)
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
    settleBefore(received);

    const std::unique_ptr<CMEventQueueRequest> earlier = std::move(m_waiting);
    m_waiting.reset(request);
    m_waitingCounts = received != NotCounted;
    m_timeoutMs = qBound(0, timeout, MaximumTimeout) * 1000;
    if (earlier)
        earlier->done(m_id, {});

    const ZarkList<ZarkEvent> events = takeEvents();
    if (!events.isEmpty() || m_timeoutMs == 0 || m_closed)
        answer(events);
    else
        startTimer();
    return token;
}

void CMEventQueue::confirm(quint64 token)
{
    if (!isHeld(token))
        return;
    if (m_held.counted)
        m_held.arrived = true;
    else
        m_held = {};
    startTimer();
}

void CMEventQueue::restore(quint64 token)
{
    if (m_waiting && m_waiting->token() == token) {
        m_waiting.reset();
    } else if (isHeld(token)) {
        if (!m_held.counted)
            putBack();
    } else {
        return;
    }
    startTimer();
}

bool CMEventQueue::isHeld(quint64 token) const
{
    return token != 0 && token == m_held.token;
}

void CMEventQueue::close()
{
    m_closed = true;
    if (m_waiting)
        answer(takeEvents());
}

// What a poll says of the answer before it.
void CMEventQueue::settleBefore(qint64 received)
{
    const bool answerIsHeld = m_held.token != 0;
    if (received == NotCounted) {
        if (answerIsHeld && !m_held.arrived)
            putBack();
    } else if (answerIsHeld && received == m_answers - 1) {
        putBack();
    } else if (received != m_answers) {
        m_answers = received;
        for (const ZarkEventSubscribe& subscription : qAsConst(m_subscribtions))
            touchAll(subscription.path(), m_paths[subscription.path()], m_tree->node(subscription.path()));
    }
    m_held = {};
}

// The held changes are older than all that came since, whatever path they are of.
void CMEventQueue::putBack()
{
    const HeldAnswer held = std::exchange(m_held, {});
    const QVector<CMPath> newer = std::exchange(m_touched, {});
    --m_answers;
    for (const auto& [path, changes] : held.changes) {
        if (changes.isEmpty())
            continue; // Its row events were unsubscribed meanwhile.
        Subscription& subscription = m_paths[path];
        subscription.changes.roles |= changes.roles;
        CMRowChanges& rows = subscription.changes.rows;
        const int before = rows.count();
        rows.prepend(changes.rows);
        countRows(rows, before);
        m_touched.append(path);
    }
    const QSet<CMPath> older(m_touched.cbegin(), m_touched.cend());
    for (const CMPath& path : newer) {
        if (!older.contains(path))
            m_touched.append(path);
    }
    answerSoon();
}

void CMEventQueue::setSubscribtions(const ZarkList<ZarkEventSubscribe>& subscribtions)
{
    QHash<CMPath, bool> wanted;
    for (const ZarkEventSubscribe& subscription : subscribtions)
        wanted[subscription.path()] |= wantsRows(subscription);

    const QList<CMPath> known = m_paths.keys();
    for (const CMPath& path : known) {
        if (!wanted.contains(path))
            unsubscribe(path);
        else if (!wanted.value(path))
            unsubscribeRows(path);
    }
    for (auto it = wanted.cbegin(); it != wanted.cend(); ++it) {
        const bool isNew = !m_paths.contains(it.key());
        m_paths[it.key()].rows = it.value();
        if (isNew)
            m_tree->addListener(it.key(), this);
    }
    m_subscribtions = subscribtions;
    if (!m_waiting)
        startTimer();
}

void CMEventQueue::unsubscribe(const CMPath& path)
{
    m_tree->removeListener(path, this);
    unsubscribeRows(path);
    m_paths.remove(path);
    m_touched.removeOne(path);
    const auto isOfPath = [&path](const HeldChanges& held) {
        return held.path == path;
    };
    m_held.changes.erase(std::remove_if(m_held.changes.begin(), m_held.changes.end(), isOfPath), m_held.changes.end());
}

// Row events from before a gap in the subscription must not meet those from after it.
void CMEventQueue::unsubscribeRows(const CMPath& path)
{
    Subscription& subscription = m_paths[path];
    if (!subscription.rows)
        return;
    subscription.rows = false;
    dropRows(subscription.changes.rows);
    if (subscription.changes.isEmpty())
        m_touched.removeOne(path);
    for (HeldChanges& held : m_held.changes) {
        if (held.path == path)
            held.changes.rows.clear();
    }
}

void CMEventQueue::nodeChanged(CMUINode* node, const QStringList& roles)
{
    const auto it = m_paths.find(node->path());
    const quint32 bits = roleBits(roles);
    if (it != m_paths.end() && bits)
        touched(it.key(), it.value()).roles |= bits;
    answerSoon();
}

void CMEventQueue::rowsChanged(CMUINode* node, const QList<ZarkRowEvent>& events)
{
    const auto it = m_paths.find(node->path());
    if (it == m_paths.end() || !it->rows || events.isEmpty())
        return;
    CMRowChanges& rows = touched(it.key(), it.value()).rows;
    const int before = rows.count();
    for (const ZarkRowEvent& event : events)
        rows.append(event);
    countRows(rows, before);
    answerSoon();
}

void CMEventQueue::nodeAppeared(CMUINode* node)
{
    const auto it = m_paths.find(node->path());
    if (it != m_paths.end())
        touchAll(it.key(), it.value(), true);
    answerSoon();
}

void CMEventQueue::nodeVanished(const CMPath& path)
{
    const auto it = m_paths.find(path);
    if (it != m_paths.end())
        touchAll(it.key(), it.value(), false);
    answerSoon();
}

CMEventQueue::Changes& CMEventQueue::touched(const CMPath& path, Subscription& subscription)
{
    if (subscription.changes.isEmpty())
        m_touched.append(path);
    return subscription.changes;
}

void CMEventQueue::touchAll(const CMPath& path, Subscription& subscription, bool exists)
{
    Changes& changes = touched(path, subscription);
    changes.roles = allRoles();
    dropRows(changes.rows);
    if (exists && subscription.rows) {
        changes.rows.reset();
        ++m_rowEvents;
    }
}

void CMEventQueue::countRows(CMRowChanges& rows, int before)
{
    m_rowEvents += rows.count() - before;
    if (m_rowEvents <= MaximumRowEvents)
        return;
    dropRows(rows);
    rows.reset();
    ++m_rowEvents;
}

void CMEventQueue::dropRows(CMRowChanges& rows)
{
    m_rowEvents -= rows.count();
    rows.clear();
}

void CMEventQueue::answerSoon()
{
    if (!m_waiting || m_answersSoon || m_touched.isEmpty())
        return;
    m_answersSoon = true;
    QMetaObject::invokeMethod(this, &CMEventQueue::answerChanges, Qt::QueuedConnection);
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
    const std::unique_ptr<CMEventQueueRequest> request = std::move(m_waiting);
    if (!events.isEmpty()) {
        ++m_answers;
        m_held.token = request->token();
        m_held.counted = m_waitingCounts;
        m_held.arrived = !request->settles();
        if (m_held.arrived && !m_held.counted)
            m_held = {};
    }
    startTimer();
    request->done(m_id, events);
}

ZarkList<ZarkEvent> CMEventQueue::takeEvents()
{
    ZarkList<ZarkEvent> events;
    const QVector<CMPath> paths = std::exchange(m_touched, {});
    for (const CMPath& path : paths) {
        if (!m_waiting->mayRead(path)) {
            m_touched.append(path);
            continue;
        }
        const Changes changes = std::exchange(m_paths[path].changes, {});
        m_rowEvents -= changes.rows.count();
        events.append(eventOf(path, changes));
        m_held.changes.append({ path, changes });
    }
    return events;
}

ZarkEvent CMEventQueue::eventOf(const CMPath& path, const Changes& changes) const
{
    const CMUINode* node = m_tree->node(path);
    QVariantHash roles;
    for (int i = 0; i < CMAllRoles().count(); ++i) {
        if (!(changes.roles & 1u << i))
            continue;
        bool known = false;
        const QString& name = CMAllRoles().at(i);
        roles.insert(name, node ? node->role(name, &known) : QVariant());
    }
    ZarkEvent event(path);
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
        Q_EMIT expired();
}
