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
    if (isReset() || isToldAlready(event))
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

bool CMRowChanges::isToldAlready(const ZarkRowEvent& update) const
{
    if (update.type() != ZarkRowEventType::Updated)
        return false;
    const int oldest = qMax(0, m_events.count() - LookBack);
    for (int i = m_events.count() - 1; i >= oldest; --i) {
        const ZarkRowEvent& event = m_events.at(i);
        const bool insertion = event.type() == ZarkRowEventType::Inserted;
        if (!insertion && event.type() != ZarkRowEventType::Updated)
            return false; // Before it, the row had another index.
        if (event.index() == update.index())
            return true;
        if (insertion)
            return false;
    }
    return false;
}
