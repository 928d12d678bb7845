#pragma once

#include <QObject>
#include <QTimer>

#include <memory>

#include "NetlinkSocket.h"
#include "NetworkTable.h"

class CMNodes;
class CMValueNode;
class QSocketNotifier;

/// The node "system:network/info": this machine's interfaces and addresses, followed as the kernel reports them.
///
/// A report only says that something changed; a moment later everything is read afresh. So changes that come together
/// are told together, and a lost report (the socket overflows when thousands come at once) costs nothing.
class NetworkNode : public QObject {
    Q_OBJECT
public:
    /// Reads the present state before it returns. The node belongs to `nodes`, which outlives this object. Without
    /// netlink the node says so in the log and stays empty.
    NetworkNode(CMNodes* nodes, const NetworkTable::Classifier& classifier, QObject* parent = nullptr);
    ~NetworkNode() override;

private:
    bool follow();
    void onReport();
    void refresh();
    bool read(NetworkTable* table) const;

    NetworkTable::Classifier m_classifier;
    CMValueNode* m_node;
    NetlinkSocket m_reports;
    std::unique_ptr<QSocketNotifier> m_notifier;
    QTimer m_delay;
};
