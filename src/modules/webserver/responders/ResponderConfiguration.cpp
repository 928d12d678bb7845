#include "ResponderConfiguration.h"

#include <QElapsedTimer>
#include <QTimer>

#include <algorithm>
#include <cstdlib>
#include <limits>

#include "Request.h"
#include "Responder.h"
#include "WebserverLog.h"

namespace {

constexpr qint32 MinimumStep = 1000;
constexpr qint32 RandomStep = 3000;
constexpr qint32 MaximumDelay = 10000;
constexpr qint64 Minute = 60000;
constexpr int MaximumClockWarnings = 100;

qint64 monotonicMilliseconds()
{
    QElapsedTimer timer;
    timer.start();
    return timer.msecsSinceReference();
}

} // namespace

void ResponderConfiguration::authFailBlock(Responder* responder, int requestId)
{
    dbglog_scopedFunction(webserverLog());
    const qint64 now = monotonicMilliseconds();
    const qint64 remaining = std::max<qint64>(m_blockedUntil - now, 0);
    const qint64 delay = remaining + m_nextDelay;
    dbglog_trace(webserverLog(), "blocking caller for " << delay << "ms");
    // Writing the body resumed the exchange.
    responder->request().pause();
    // A child of the responder: when the client leaves, both go before the time is up. What a timer can measure ends
    // after 24 days; behind so many failures nobody waits any more.
    auto* timer = new QTimer(responder);
    timer->setSingleShot(true);
    timer->setTimerType(Qt::PreciseTimer);
    QObject::connect(timer, &QTimer::timeout, responder, [responder, requestId] {
        dbglog_trace(webserverLog(), "done blocking");
        Q_EMIT responder->finished(requestId);
    });
    ++m_failures;
    ++*m_heldAnswers;
    QObject::connect(timer, &QObject::destroyed, [held = m_heldAnswers] { --*held; });
    timer->start(static_cast<int>(std::min<qint64>(delay, std::numeric_limits<int>::max())));
    m_blockedUntil = now + delay;
    // The delay need not be secret, only spread out.
    m_nextDelay += MinimumStep + std::rand() % RandomStep;
    if (m_nextDelay > MaximumDelay - 1)
        m_nextDelay = MaximumDelay;
    dbglog_trace(webserverLog(), "blocking in background, next delay " << m_nextDelay << "ms");
}

void ResponderConfiguration::authFailReset()
{
    dbglog_scopedFunction(webserverLog());
    m_nextDelay = 0;
    m_blockedUntil = 0;
    dbglog_trace(webserverLog(), "reset blocking");
}

bool ResponderConfiguration::warnsOfClock(const QString& client)
{
    dbglog_scopedFunction(webserverLog());
    const qint64 minute = monotonicMilliseconds() / Minute;
    if (minute != m_warnedMinute)
        m_warnedOfClock.clear();
    m_warnedMinute = minute;
    if (m_warnedOfClock.contains(client) || m_warnedOfClock.size() >= MaximumClockWarnings)
        return false;
    m_warnedOfClock.insert(client);
    return true;
}
