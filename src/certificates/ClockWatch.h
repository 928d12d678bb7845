#pragma once

#include <QObject>
#include <QSocketNotifier>
#include <QTimer>

#include <functional>

/// Calls a function from the event loop whenever the machine's clock was set, by hand or by a time service, and once an
/// hour. A clock that is only slewed is not reported; where the system cannot tell, the hour remains.
class ClockWatch : public QObject {
public:
    explicit ClockWatch(const std::function<void()>& look, QObject* parent = nullptr);
    ~ClockWatch() override;
    ClockWatch(const ClockWatch&) = delete;
    ClockWatch& operator=(const ClockWatch&) = delete;

private:
    int m_fd;
    QSocketNotifier m_notifier;
    QTimer m_hourly;
};
