#include "SocketWatch.h"

#include <glib-unix.h>

#include <array>
#include <cerrno>
#include <sys/epoll.h>
#include <unistd.h>

#include "WebserverLog.h"

namespace {

bool control(int epollFd, int operation, int fd, quint64 number, quint32 events)
{
    epoll_event event{};
    event.events = events | EPOLLRDHUP | EPOLLET;
    event.data.u64 = number;
    return epoll_ctl(epollFd, operation, fd, &event) == 0;
}

} // namespace

SocketWatch::SocketWatch(const Happened& happened) : m_happened(happened), m_epollFd(epoll_create1(EPOLL_CLOEXEC))
{
    if (m_epollFd >= 0)
        m_source = g_unix_fd_add(m_epollFd, G_IO_IN, onEvents, this);
    else
        dbglog_error(webserverLog(), "Clients that leave early will not be noticed: epoll_create1: errno " << errno);
}

SocketWatch::~SocketWatch()
{
    if (m_source)
        g_source_remove(m_source);
    if (m_epollFd >= 0)
        ::close(m_epollFd);
}

bool SocketWatch::add(int fd, quint64 number)
{
    dbglog_scopedFunction(webserverLog());
    return control(m_epollFd, EPOLL_CTL_ADD, fd, number, 0);
}

bool SocketWatch::setInputWanted(int fd, quint64 number, bool wanted)
{
    dbglog_scopedFunction(webserverLog());
    return control(m_epollFd, EPOLL_CTL_MOD, fd, number, wanted ? quint32(EPOLLIN) : 0);
}

gboolean SocketWatch::onEvents(gint fd, GIOCondition, gpointer self)
{
    std::array<epoll_event, 64> events{};
    const int count = epoll_wait(fd, events.data(), static_cast<int>(events.size()), 0);
    for (int i = 0; i < count; ++i) {
        const auto& event = events.at(static_cast<size_t>(i));
        static_cast<SocketWatch*>(self)->m_happened(event.data.u64, event.events);
    }
    return G_SOURCE_CONTINUE;
}
