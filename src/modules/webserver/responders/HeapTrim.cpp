#include "HeapTrim.h"

#include <malloc.h>

#include "WebserverLog.h"

namespace {

constexpr int LookMilliseconds = 50;
constexpr int Many = 32; // Fewer leave less behind than a trim is worth.

} // namespace

void HeapTrim::pollEnded()
{
    dbglog_scopedFunction(webserverLog());
    ++m_ended;
    if (!m_timer.isActive())
        m_timer.start(LookMilliseconds, this);
}

void HeapTrim::timerEvent(QTimerEvent*)
{
    const bool isQuiet = m_ended == m_endedAtLook;
    const bool areMany = m_ended >= Many;
    if (areMany || (isQuiet && m_trimsOnceQuiet)) {
        malloc_trim(0);
        m_ended = 0;
        m_trimsOnceQuiet = areMany;
    }
    if (isQuiet)
        m_timer.stop();
    m_endedAtLook = m_ended;
}
