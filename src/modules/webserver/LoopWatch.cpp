#include "LoopWatch.h"

#include <algorithm>

namespace {

constexpr gint64 SlotMicroseconds = 5 * 1000 * 1000;

// The first of this thread's: the function that waits is given no data. Plain pointers outlive whatever ends last.
thread_local LoopWatch* first = nullptr;
thread_local GPollFunc waitUnwatched = nullptr;

} // namespace

LoopWatch::LoopWatch() : m_context(g_main_context_get_thread_default()), m_next(first), m_begin(g_get_monotonic_time())
{
    if (!first) {
        waitUnwatched = g_main_context_get_poll_func(m_context);
        g_main_context_set_poll_func(m_context, wait);
    }
    first = this;
}

LoopWatch::~LoopWatch()
{
    LoopWatch** place = &first;
    while (*place != this)
        place = &(*place)->m_next;
    *place = m_next;
    if (!first)
        g_main_context_set_poll_func(m_context, waitUnwatched);
}

gint LoopWatch::wait(GPollFD* descriptors, guint count, gint milliseconds)
{
    for (LoopWatch* watch = first; watch; watch = watch->m_next)
        watch->turned();
    const gint ready = waitUnwatched(descriptors, count, milliseconds);
    const gint64 now = g_get_monotonic_time();
    for (LoopWatch* watch = first; watch; watch = watch->m_next)
        watch->m_begin = now;
    return ready;
}

void LoopWatch::turned()
{
    const gint64 now = g_get_monotonic_time();
    const gint64 busy = now - m_begin;
    if (busy <= m_slotLongest && now < m_slotEnd)
        return;
    const gint64 number = now / SlotMicroseconds;
    if (now >= m_slotEnd)
        m_slotLongest = 0;
    m_slotEnd = (number + 1) * SlotMicroseconds;
    m_slotLongest = std::max(m_slotLongest, busy);
    m_slots[static_cast<size_t>(number) % m_slots.size()] = { number, m_slotLongest };
}

qint64 LoopWatch::longestStall() const
{
    const gint64 oldest = g_get_monotonic_time() / SlotMicroseconds - static_cast<gint64>(m_slots.size());
    gint64 longest = 0;
    for (const Slot& slot : m_slots) {
        if (slot.number > oldest)
            longest = std::max(longest, slot.longest);
    }
    return longest;
}
