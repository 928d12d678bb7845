#pragma once

#include <memory>

#include <log4cplus/appender.h>

#include "CMNodesWorker.h"

class NetworkNode;
class SystemNodes;
class UpdateNodes;

/// The worker "system": real data of this machine as nodes.
///
/// Arguments: "accessPoints" (a list of texts), names of interfaces that are soft access points besides those named
/// "ap..." or "uap..."; "state" (a text), the directory below which firmware images are kept.
class SystemWorker : public CMNodesWorker {
    Q_OBJECT
public:
    explicit SystemWorker(const QVariantHash& arguments, QObject* parent = nullptr);
    ~SystemWorker() override;

    void reload() override;

private:
    void createLogNode();

    log4cplus::SharedAppenderPtr m_logStream;
    // Gone before the nodes that they write to.
    std::unique_ptr<SystemNodes> m_systemNodes;
    std::unique_ptr<NetworkNode> m_networkNode;
    std::unique_ptr<UpdateNodes> m_updateNodes;
};
