#pragma once

#include <QByteArray>
#include <QTimer>

/// Tells the service manager how the service is, by its datagram protocol (sd_notify(3)): ready, reloading, stopping,
/// and that the event loop still turns, at half of the watchdog's interval. Silent where no manager asks.
class ServiceNotifier {
public:
    /// Takes NOTIFY_SOCKET, WATCHDOG_USEC and WATCHDOG_PID out of the environment, so that no child process speaks for
    /// this service.
    ServiceNotifier();

    void ready();
    void reloading(); ///< Followed by ready() when done.
    void stopping(); ///< No watchdog looks after a service that stops.

private:
    void send(const QByteArray& state, int flags = 0) const;

    QByteArray m_socket; ///< Empty: nobody listens.
    QTimer m_watchdog;
};
