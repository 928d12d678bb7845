#include "LoopWatch.h"

#include <algorithm>

namespace {

constexpr gint64 SlotMicroseconds = 5 * 1000 * 1000;

// The function that waits is given no data.
LoopWatch* running = nullptr;

} // namespace

LoopWatch::LoopWatch()
    : m_context(g_main_context_get_thread_default()), m_previous(g_main_context_get_poll_func(m_context)),
      m_begin(g_get_monotonic_time())
{
    running = this;
    g_main_context_set_poll_func(m_context, wait);
}

LoopWatch::~LoopWatch()
{
    g_main_context_set_poll_func(m_context, m_previous);
    running = nullptr;
}

gint LoopWatch::wait(GPollFD* descriptors, guint count, gint milliseconds)
{
    running->turned();
    const gint ready = running->m_previous(descriptors, count, milliseconds);
    running->m_begin = g_get_monotonic_time();
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
