#pragma once

#include <functional>

struct nlmsghdr;

/// A NETLINK_ROUTE socket: one that waits for changes, or one that asks.
class NetlinkSocket {
public:
    NetlinkSocket() = default;
    ~NetlinkSocket();
    NetlinkSocket(const NetlinkSocket&) = delete;
    NetlinkSocket& operator=(const NetlinkSocket&) = delete;

    /// Does not block when `groups` (RTMGRP_...) are followed; blocks for a second at most otherwise. False, with
    /// errno, when there is no socket to be had.
    bool open(unsigned groups);
    int descriptor() const { return m_descriptor; }

    /// Reads whatever waits, what it says notwithstanding.
    void drain();
    /// Asks for everything of `request` (RTM_GETLINK, RTM_GETADDR) and hands over each message. False when the answer
    /// failed, or is inconsistent because something changed meanwhile.
    bool dump(int request, const std::function<void(const nlmsghdr*)>& handle);

private:
    enum Progress { More, Done, Failed };

    bool send(int request);
    Progress receive(const std::function<void(const nlmsghdr*)>& handle);

    int m_descriptor = -1;
};
