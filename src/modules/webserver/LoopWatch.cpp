#include "LoopWatch.h"

#include <algorithm>
#include <vector>

namespace {

constexpr gint64 SlotMicroseconds = 5 * 1000 * 1000;

// Those of this thread: the function that waits is given no data.
thread_local std::vector<LoopWatch*> watches;
thread_local GPollFunc waitUnwatched = nullptr;

} // namespace

LoopWatch::LoopWatch() : m_context(g_main_context_get_thread_default()), m_begin(g_get_monotonic_time())
{
    if (watches.empty()) {
        waitUnwatched = g_main_context_get_poll_func(m_context);
        g_main_context_set_poll_func(m_context, wait);
    }
    watches.push_back(this);
}

LoopWatch::~LoopWatch()
{
    watches.erase(std::find(watches.begin(), watches.end(), this));
    if (watches.empty())
        g_main_context_set_poll_func(m_context, waitUnwatched);
}

gint LoopWatch::wait(GPollFD* descriptors, guint count, gint milliseconds)
{
    for (LoopWatch* watch : watches)
        watch->turned();
    const gint ready = waitUnwatched(descriptors, count, milliseconds);
    for (LoopWatch* watch : watches)
        watch->m_begin = g_get_monotonic_time();
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
