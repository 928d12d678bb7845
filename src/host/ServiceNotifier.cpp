#include "ServiceNotifier.h"

#include <QCoreApplication>

#include <chrono>
#include <cstddef>
#include <cstring>

#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

QByteArray takeEnvironment(const char* name)
{
    const QByteArray value = qgetenv(name);
    qunsetenv(name);
    return value;
}

} // namespace

ServiceNotifier::ServiceNotifier() : m_socket(takeEnvironment("NOTIFY_SOCKET"))
{
    const qint64 watchdogMicroseconds = takeEnvironment("WATCHDOG_USEC").toLongLong();
    const QByteArray watchdogPid = takeEnvironment("WATCHDOG_PID");
    const bool isOurs = watchdogPid.isEmpty() || watchdogPid.toLongLong() == QCoreApplication::applicationPid();
    if (watchdogMicroseconds > 0 && isOurs && !m_socket.isEmpty())
        m_watchdog.setInterval(std::chrono::milliseconds(qMax<qint64>(1, watchdogMicroseconds / 2000)));
    QObject::connect(&m_watchdog, &QTimer::timeout, &m_watchdog, [this] { send("WATCHDOG=1", MSG_DONTWAIT); });
}

void ServiceNotifier::ready()
{
    send("READY=1");
    if (m_watchdog.interval() > 0 && !m_watchdog.isActive())
        m_watchdog.start();
}

void ServiceNotifier::reloading()
{
    using namespace std::chrono;
    const qint64 now = duration_cast<microseconds>(steady_clock::now().time_since_epoch()).count();
    send("RELOADING=1\nMONOTONIC_USEC=" + QByteArray::number(now));
}

void ServiceNotifier::stopping()
{
    m_watchdog.stop();
    send("STOPPING=1");
}

void ServiceNotifier::send(const QByteArray& state, int flags) const
{
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    if (m_socket.isEmpty() || m_socket.size() >= int(sizeof address.sun_path))
        return;
    memcpy(address.sun_path, m_socket.constData(), size_t(m_socket.size()));
    // "@" stands for the NUL in front of an abstract name, which has no NUL behind it: the length ends it.
    if (address.sun_path[0] == '@')
        address.sun_path[0] = '\0';
    const auto length = socklen_t(offsetof(sockaddr_un, sun_path) + size_t(m_socket.size()));
    const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd < 0)
        return;
    // A manager that reads nothing must not hold up the device.
    const timeval patience = { 0, 200000 };
    setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &patience, sizeof patience);
    sendto(fd, state.constData(), size_t(state.size()), MSG_NOSIGNAL | flags, reinterpret_cast<sockaddr*>(&address),
        length);
    close(fd);
}
