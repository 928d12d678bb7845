#include "CMRowChanges.h"

namespace {
// Far enough back for the handful of rows that change all the time, near enough to cost nothing.
constexpr int LookBack = 16;
} // namespace

bool CMRowChanges::isReset() const
{
    return !m_events.isEmpty() && m_events.first().type() == ZarkRowEventType::Reset;
}

ZarkList<ZarkRowEvent> CMRowChanges::events() const
{
    ZarkList<ZarkRowEvent> list;
    list.reserve(m_events.count());
    for (const ZarkRowEvent& event : m_events)
        list.append(event);
    return list;
}

void CMRowChanges::append(const ZarkRowEvent& event)
{
    if (isReset() || mergeUpdate(event))
        return;
    if (event.type() == ZarkRowEventType::Reset || m_events.count() == Maximum)
        reset();
    else
        m_events.append(event);
}

void CMRowChanges::prepend(const CMRowChanges& older)
{
    if (isReset() || older.isEmpty())
        return;
    if (older.isReset() || older.count() + count() > Maximum)
        reset();
    else
        m_events = older.m_events + m_events;
}

void CMRowChanges::reset()
{
    m_events = { ZarkRowEvent(ZarkRowEventType::Reset, 0) };
}

bool CMRowChanges::mergeUpdate(const ZarkRowEvent& update)
{
    if (update.type() != ZarkRowEventType::Updated)
        return false;
    const int oldest = qMax(0, m_events.count() - LookBack);
    for (int i = m_events.count() - 1; i >= oldest; --i) {
        if (m_events.at(i).type() != ZarkRowEventType::Updated)
            return false; // Before it, the row had another index.
        if (m_events.at(i).index() == update.index()) {
            m_events[i].setVersion(update.version());
            return true;
        }
    }
    return false;
}
