#include "SignalWatch.h"

#include <QSocketNotifier>

#include <atomic>
#include <cerrno>
#include <csignal>

#include <fcntl.h>
#include <unistd.h>

namespace {

const int watchedSignals[] = { SIGTERM, SIGINT, SIGHUP };

// What a signal handler may touch: lock-free atomics only.
std::atomic<int> writeEnd{ -1 };
std::atomic<bool> stopping{ false };

void handle(int number)
{
    if (number != SIGHUP && stopping.exchange(true))
        _exit(128 + number);
    const int savedErrno = errno;
    const char byte = char(number);
    // A full pipe loses nothing: as many signals wait in it already.
    [[maybe_unused]] const ssize_t written = write(writeEnd, &byte, 1);
    errno = savedErrno;
}

void setHandler(int number, void (*handler)(int))
{
    struct sigaction action = {};
    action.sa_handler = handler;
    action.sa_flags = SA_RESTART;
    sigemptyset(&action.sa_mask);
    sigaction(number, &action, nullptr);
}

} // namespace

SignalWatch::SignalWatch()
{
    int ends[2] = { -1, -1 };
    if (pipe2(ends, O_CLOEXEC | O_NONBLOCK) != 0)
        qFatal("zark-host: no pipe for signals");
    m_readEnd = ends[0];
    writeEnd = ends[1];
    m_notifier = new QSocketNotifier(m_readEnd, QSocketNotifier::Read, this);
    connect(m_notifier, &QSocketNotifier::activated, this, &SignalWatch::read);
    setHandler(SIGPIPE, SIG_IGN);
    for (int number : watchedSignals)
        setHandler(number, handle);
}

SignalWatch::~SignalWatch()
{
    for (int number : watchedSignals)
        setHandler(number, SIG_DFL);
    m_notifier->setEnabled(false);
    close(m_readEnd);
    close(writeEnd.exchange(-1));
}

void SignalWatch::read()
{
    char numbers[64];
    const ssize_t count = ::read(m_readEnd, numbers, sizeof numbers);
    bool stop = false;
    bool reload = false;
    for (ssize_t i = 0; i < count; ++i)
        (numbers[i] == SIGHUP ? reload : stop) = true;
    if (stop)
        Q_EMIT stopRequested();
    else if (reload)
        Q_EMIT reloadRequested();
}
