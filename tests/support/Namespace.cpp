#include "Namespace.h"

#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <sched.h>
#include <string>
#include <unistd.h>

namespace {

bool writeFile(const char* name, const std::string& text)
{
    const int fd = open(name, O_WRONLY | O_CLOEXEC);
    const bool written = fd >= 0 && write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
    if (fd >= 0)
        close(fd);
    return written;
}

bool unshareNetwork()
{
    if (unshare(CLONE_NEWNET) == 0)
        return true;
    const auto user = std::to_string(getuid());
    const auto group = std::to_string(getgid());
    return unshare(CLONE_NEWUSER | CLONE_NEWNET) == 0 && writeFile("/proc/self/setgroups", "deny")
        && writeFile("/proc/self/uid_map", "0 " + user + " 1") && writeFile("/proc/self/gid_map", "0 " + group + " 1");
}

} // namespace

bool enterNetworkNamespace()
{
    if (!unshareNetwork()) {
        std::perror("unshare");
        return false;
    }
    const int status =
        std::system("ip link set lo up && ip link add zark0 type veth peer name zark1 && ip link set zark0 up"
                    " && ip address add 192.0.2.1/24 dev zark0");
    if (status != 0)
        std::fprintf(stderr, "ip (package iproute2) failed\n");
    return status == 0;
}
