#include "NetlinkSocket.h"

#include <cerrno>
#include <cstdint>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

namespace {

/// The kernel fills at most this much at once in a dump (NLMSG_GOODSIZE is below).
constexpr int MessageBuffer = 32 * 1024;

} // namespace

NetlinkSocket::~NetlinkSocket()
{
    if (m_descriptor >= 0)
        close(m_descriptor);
}

bool NetlinkSocket::open(unsigned groups)
{
    m_descriptor = socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC | (groups ? SOCK_NONBLOCK : 0), NETLINK_ROUTE);
    if (m_descriptor < 0)
        return false;
    const timeval second{ 1, 0 };
    setsockopt(m_descriptor, SOL_SOCKET, SO_RCVTIMEO, &second, sizeof second);
    sockaddr_nl address{};
    address.nl_family = AF_NETLINK;
    address.nl_groups = groups;
    return bind(m_descriptor, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
}

void NetlinkSocket::drain()
{
    char buffer[256]; // The rest of a longer message is cut off, which does not matter here.
    // ENOBUFS says that messages were lost, once; those that are left follow it.
    while (recv(m_descriptor, buffer, sizeof buffer, 0) >= 0 || errno == EINTR || errno == ENOBUFS) { }
}

bool NetlinkSocket::dump(int request, const std::function<void(const nlmsghdr*)>& handle)
{
    if (!send(request))
        return false;
    Progress progress = More;
    while (progress == More)
        progress = receive(handle);
    return progress == Done;
}

bool NetlinkSocket::send(int request)
{
    struct {
        nlmsghdr header;
        rtgenmsg body;
    } message{};
    message.header.nlmsg_len = sizeof message;
    message.header.nlmsg_type = uint16_t(request);
    message.header.nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
    message.body.rtgen_family = AF_UNSPEC;
    return ::send(m_descriptor, &message, sizeof message, 0) == ssize_t(sizeof message);
}

NetlinkSocket::Progress NetlinkSocket::receive(const std::function<void(const nlmsghdr*)>& handle)
{
    alignas(nlmsghdr) char buffer[MessageBuffer];
    ssize_t size = 0;
    do {
        size = recv(m_descriptor, buffer, sizeof buffer, 0);
    } while (size < 0 && errno == EINTR);
    if (size <= 0)
        return Failed;
    unsigned left = unsigned(size);
    for (auto* message = reinterpret_cast<nlmsghdr*>(buffer); NLMSG_OK(message, left);
         message = NLMSG_NEXT(message, left)) {
        if ((message->nlmsg_flags & NLM_F_DUMP_INTR) || message->nlmsg_type == NLMSG_ERROR)
            return Failed;
        if (message->nlmsg_type == NLMSG_DONE)
            return Done;
        handle(message);
    }
    return More;
}
