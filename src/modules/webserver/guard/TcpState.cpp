#include "TcpState.h"

#include <linux/tcp.h> // With the byte counts that the C library's tcp_info lacks.
#include <netinet/in.h>
#include <sys/socket.h>

#include "ServerLimits.h"

TcpState TcpState::of(GSocket* socket)
{
    tcp_info info{};
    socklen_t size = sizeof info;
    getsockopt(g_socket_get_fd(socket), IPPROTO_TCP, TCP_INFO, &info, &size);
    return { info.tcpi_unacked > 0 || info.tcpi_notsent_bytes > 0, info.tcpi_bytes_acked, info.tcpi_bytes_received };
}

void setTcpTimeouts(GSocket* socket, const ServerLimits& limits)
{
    const int fd = g_socket_get_fd(socket);
    const int on = 1;
    const unsigned int milliseconds = static_cast<unsigned int>(limits.stalledSeconds) * 1000;
    setsockopt(fd, SOL_SOCKET, SO_KEEPALIVE, &on, sizeof on);
    setsockopt(fd, IPPROTO_TCP, TCP_KEEPIDLE, &limits.idleSeconds, sizeof limits.idleSeconds);
    setsockopt(fd, IPPROTO_TCP, TCP_USER_TIMEOUT, &milliseconds, sizeof milliseconds);
}
