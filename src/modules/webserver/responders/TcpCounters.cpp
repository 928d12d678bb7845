#include "TcpCounters.h"

#include <cstddef>
#include <linux/tcp.h> // With the counters that the C library's tcp_info lacks.
#include <netinet/in.h>
#include <sys/socket.h>

namespace {

// The state's numbers are part of the system's interface, but in no header that goes with the one above.
enum State { TimeWait = 6, Close = 7, CloseWait = 8, LastAck = 9, Closing = 11 };

} // namespace

TcpCounters TcpCounters::of(int fd)
{
    tcp_info info{};
    socklen_t size = sizeof info;
    TcpCounters counters;
    if (getsockopt(fd, IPPROTO_TCP, TCP_INFO, &info, &size) != 0
        || size < offsetof(tcp_info, tcpi_bytes_retrans) + sizeof info.tcpi_bytes_retrans)
        return counters;
    counters.isKnown = true;
    counters.written = info.tcpi_bytes_sent - info.tcpi_bytes_retrans + info.tcpi_notsent_bytes;
    counters.acknowledged = info.tcpi_bytes_acked;
    counters.received = info.tcpi_bytes_received;
    counters.isOver = info.tcpi_state == Close || info.tcpi_state == TimeWait;
    counters.clientEnded = info.tcpi_state == CloseWait || info.tcpi_state == LastAck || info.tcpi_state == Closing;
    return counters;
}

bool hasArrived(const TcpCounters& sent, const TcpCounters& now)
{
    return now.acknowledged >= sent.written && (sent.clientEnded || now.received > sent.received);
}
