#include "SystemWorker.h"

#include "CMStreamNode.h"
#include "LogStream.h"
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
    createLogNode();
}

SystemWorker::~SystemWorker()
{
    LogStream::detach(m_logStream);
    m_logStream->close(); // Whoever reads along comes to the end.
}

void SystemWorker::reload()
{
    LogStream::attach(m_logStream);
}

void SystemWorker::createLogNode()
{
    auto* stream = new LogStream;
    m_logStream = log4cplus::SharedAppenderPtr(stream);
    LogStream::attach(m_logStream);
    auto* node = CMStreamNode::create(
        nodes(), CMPath::fromEncoded(QStringLiteral("system:log/lines")), QStringLiteral("text/plain; charset=utf-8"));
    if (!node)
        return; // Logged; the tree declares something else there.
    node->setTitle("Log");
    node->setDescription("What this device logs at level info and above, as it comes.");
    node->setPermission(ZarkPermission::Protected);
    // The worker's own, like the stream: both are there as long as the node.
    node->setOpen([stream] { return stream->open(); });
}

extern "C" Q_DECL_EXPORT CMNodesWorker* worker_create(const QVariantHash& arguments)
{
    return new SystemWorker(arguments);
}
