#include "WorkerStatus.h"

#include "CMNodeTree.h"
#include "CMNodesWorker.h"
#include "CMValueNode.h"

namespace {

CMValueNode* statusNode(CMNodesWorker* worker, const QString& name)
{
    const CMPath path = CMPath::fromSegments(worker->name(), { QStringLiteral("status"), name });
    return dynamic_cast<CMValueNode*>(worker->nodes()->tree()->node(path));
}

} // namespace

WorkerStatus WorkerStatus::of(CMNodesWorker* worker)
{
    WorkerStatus status;
    if (const CMValueNode* addresses = statusNode(worker, QStringLiteral("addresses"))) {
        status.serves = true;
        status.addresses = addresses->value().stringList();
    }
    if (const CMValueNode* errors = statusNode(worker, QStringLiteral("errors")))
        status.errors = errors->value().stringList();
    if (const CMValueNode* pending = statusNode(worker, QStringLiteral("pending")))
        status.pending = pending->value().stringList();
    return status;
}
