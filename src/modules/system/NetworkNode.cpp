#include "NetworkNode.h"

#include <QSocketNotifier>

#include <cerrno>
#include <cstring>
#include <linux/rtnetlink.h>

#include "CMNodes.h"
#include "CMValueNode.h"
#include "SystemLog.h"
#include "ZarkPaths.h"

namespace {

constexpr int TogetherMs = 200;
constexpr int RetryMs = 1000;
constexpr int Attempts = 3;

} // namespace

NetworkNode::NetworkNode(CMNodes* nodes, const NetworkTable::Classifier& classifier, QObject* parent)
    : QObject(parent), m_classifier(classifier),
      m_node(CMValueNode::create(
          nodes, ZarkNetworkInfoPath(), ZarkValue::fromNetworkInfo(NetworkTable().toNetworkInfo(classifier))))
{
    if (!m_node)
        return; // Logged; the tree declares something else there.
    m_node->setTitle("Network");
    m_delay.setSingleShot(true);
    connect(&m_delay, &QTimer::timeout, this, &NetworkNode::refresh);
    // Followed first and read then, so that no change falls between.
    if (!follow())
        dbglog_error(systemLog(), "Network changes cannot be followed: " << strerror(errno));
    refresh();
}

NetworkNode::~NetworkNode() = default;

bool NetworkNode::follow()
{
    if (!m_reports.open(RTMGRP_LINK | RTMGRP_IPV4_IFADDR | RTMGRP_IPV6_IFADDR))
        return false;
    m_notifier = std::make_unique<QSocketNotifier>(m_reports.descriptor(), QSocketNotifier::Read);
    connect(m_notifier.get(), &QSocketNotifier::activated, this, &NetworkNode::onReport);
    return true;
}

void NetworkNode::onReport()
{
    m_reports.drain();
    if (!m_delay.isActive())
        m_delay.start(TogetherMs);
}

void NetworkNode::refresh()
{
    for (int attempt = 0; attempt < Attempts; ++attempt) {
        NetworkTable table;
        if (read(&table)) {
            m_node->setMeasured(ZarkValue::fromNetworkInfo(table.toNetworkInfo(m_classifier)));
            return;
        }
    }
    dbglog_warn(systemLog(), "The network interfaces cannot be read now: " << strerror(errno));
    m_delay.start(RetryMs);
}

bool NetworkNode::read(NetworkTable* table) const
{
    NetlinkSocket socket;
    const auto add = [table](const nlmsghdr* message) {
        table->add(message);
    };
    return socket.open(0) && socket.dump(RTM_GETLINK, add) && socket.dump(RTM_GETADDR, add);
}
