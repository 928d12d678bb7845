#include "ClockWatch.h"

#include <chrono>
#include <limits>

#include <sys/timerfd.h>
#include <unistd.h>

namespace {

/// A timer that never ends, but for the kernel's notice that the clock was set; -1 without one.
int makeClockTimer()
{
    const int fd = timerfd_create(CLOCK_REALTIME, TFD_NONBLOCK | TFD_CLOEXEC);
    itimerspec never = {};
    never.it_value.tv_sec = std::numeric_limits<time_t>::max();
    if (fd >= 0)
        timerfd_settime(fd, TFD_TIMER_ABSTIME | TFD_TIMER_CANCEL_ON_SET, &never, nullptr);
    return fd;
}

} // namespace

ClockWatch::ClockWatch(const std::function<void()>& look, QObject* parent)
    : QObject(parent), m_fd(makeClockTimer()), m_notifier(m_fd, QSocketNotifier::Read)
{
    m_notifier.setEnabled(m_fd >= 0);
    connect(&m_notifier, &QSocketNotifier::activated, this, [this, look] {
        quint64 expirations = 0;
        // Takes the notice (ECANCELED), and is ready for the next.
        if (::read(m_fd, &expirations, sizeof expirations) < 0)
            look();
    });
    connect(&m_hourly, &QTimer::timeout, this, look);
    m_hourly.start(std::chrono::hours(1));
}

ClockWatch::~ClockWatch()
{
    m_notifier.setEnabled(false);
    if (m_fd >= 0)
        ::close(m_fd);
}
