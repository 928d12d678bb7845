#include "NetworkNode.h"

#include <QSocketNotifier>

#include <cerrno>
#include <cstring>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>
#include <unistd.h>

#include "CMNodes.h"
#include "CMValueNode.h"
#include "SystemLog.h"
#include "ZarkPaths.h"

namespace {

constexpr int TogetherMs = 200;
constexpr int RetryMs = 1000;

QStringList addressesOf(const ZarkNetworkInfo& info)
{
    QStringList addresses;
    const QVariantList all = info.wired().addresses() + info.wireless().addresses();
    for (const QVariant& address : all)
        addresses.append(ZarkNetworkAddress(address).ip());
    return addresses;
}

} // namespace

NetworkNode::NetworkNode(CMNodes* nodes, const InterfaceClassifier& classifier, QObject* parent)
    : QObject(parent), m_classifier(classifier),
      m_node(CMValueNode::create(nodes, ZarkNetworkInfoPath(), ZarkValue::fromNetworkInfo({}))),
      m_addresses(CMValueNode::create(
          nodes, CMPath::fromEncoded(QStringLiteral("system:network/addresses")), ZarkValue::fromStringList({})))
{
    if (!m_node)
        return; // Logged; the tree declares something else there.
    m_node->setTitle("Network");
    if (m_addresses)
        m_addresses->setTitle("Addresses");
    m_delay.setSingleShot(true);
    connect(&m_delay, &QTimer::timeout, this, &NetworkNode::refresh);
    // Followed first and read then, so that no change falls between.
    if (!follow())
        dbglog_error(systemLog(), "Network changes cannot be followed: " << strerror(errno));
    refresh();
}

NetworkNode::~NetworkNode()
{
    if (m_reports >= 0)
        close(m_reports);
}

bool NetworkNode::follow()
{
    m_reports = socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK, NETLINK_ROUTE);
    sockaddr_nl address{};
    address.nl_family = AF_NETLINK;
    address.nl_groups = RTMGRP_LINK | RTMGRP_IPV4_IFADDR | RTMGRP_IPV6_IFADDR;
    if (m_reports < 0 || bind(m_reports, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
        return false;
    auto* notifier = new QSocketNotifier(m_reports, QSocketNotifier::Read, this);
    connect(notifier, &QSocketNotifier::activated, this, &NetworkNode::onReport);
    return true;
}

void NetworkNode::onReport()
{
    char buffer[256]; // The rest of a longer message is cut off, which does not matter here.
    // ENOBUFS says that messages were lost, once; those that are left follow it.
    while (recv(m_reports, buffer, sizeof buffer, 0) >= 0 || errno == EINTR || errno == ENOBUFS) { }
    if (!m_delay.isActive())
        m_delay.start(TogetherMs);
}

void NetworkNode::refresh()
{
    const QVariantHash info = readNetworkInfo(m_classifier);
    if (!info.isEmpty()) {
        m_node->setMeasured(ZarkValue::fromNetworkInfo(info));
        if (m_addresses)
            m_addresses->setMeasured(ZarkValue::fromStringList(addressesOf(ZarkNetworkInfo(info))));
        return;
    }
    dbglog_warn(systemLog(), "The network interfaces cannot be read now.");
    m_delay.start(RetryMs);
}
