#include "SystemWorker.h"

#include "NetworkNode.h"
#include "SystemLog.h"
#include "SystemNodes.h"
#include "UpdateNodes.h"

const DbgLogger& systemLog()
{
    static const DbgLogger logger("system");
    return logger;
}

namespace {

QString imagesIn(const QString& stateDirectory)
{
    return stateDirectory.isEmpty() ? QString() : stateDirectory + QStringLiteral("/update");
}

} // namespace

SystemWorker::SystemWorker(const QVariantHash& arguments, QObject* parent)
    : CMNodesWorker(QStringLiteral("system"), arguments, parent), m_systemNodes(std::make_unique<SystemNodes>(nodes())),
      m_networkNode(std::make_unique<NetworkNode>(
          nodes(), InterfaceClassifier(arguments.value(QStringLiteral("accessPoints")).toStringList()))),
      m_updateNodes(
          std::make_unique<UpdateNodes>(nodes(), imagesIn(arguments.value(QStringLiteral("state")).toString())))
{
}

SystemWorker::~SystemWorker() = default;

extern "C" Q_DECL_EXPORT CMNodesWorker* worker_create(const QVariantHash& arguments)
{
    return new SystemWorker(arguments);
}
