#pragma once

#include <QObject>
#include <QTimer>

#include "NetworkInterfaces.h"

class CMNodes;
class CMValueNode;

/// The nodes "system:network/info" and "system:network/addresses": this machine's interfaces and addresses, and the
/// addresses alone for people to read, followed as the kernel reports them.
///
/// A report only says that something changed; a moment later everything is read afresh. So changes that come together
/// are told together, and a lost report (the socket overflows when thousands come at once) costs nothing.
class NetworkNode : public QObject {
    Q_OBJECT
public:
    /// Reads the present state before it returns. The nodes belong to `nodes`, which outlives this object. Without
    /// netlink the node says so in the log and stays as it is.
    NetworkNode(CMNodes* nodes, const InterfaceClassifier& classifier, QObject* parent = nullptr);
    ~NetworkNode() override;

private:
    bool follow();
    void onReport();
    void refresh();

    InterfaceClassifier m_classifier;
    CMValueNode* m_node;
    CMValueNode* m_addresses;
    int m_reports = -1; ///< A netlink socket that is told of changes.
    QTimer m_delay;
};
