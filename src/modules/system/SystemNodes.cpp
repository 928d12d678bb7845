#include "SystemNodes.h"

#include <algorithm>

#include "CMNodes.h"
#include "CMValueNode.h"

namespace {

constexpr int PeriodMs = 1000;

} // namespace

SystemNodes::SystemNodes(CMNodes* nodes, QObject* parent) : QObject(parent)
{
    addLoad(nodes);
    addMemory(nodes);
    addMachine(nodes);
    m_timer.setInterval(PeriodMs);
    connect(&m_timer, &QTimer::timeout, this, &SystemNodes::sample);
}

SystemNodes::~SystemNodes()
{
    for (const Entry& entry : qAsConst(m_entries))
        entry.node->setDemandHook({});
}

void SystemNodes::addLoad(CMNodes* nodes)
{
    add(nodes, "system:load/one", "Load of the last minute", "",
        [](const SystemSample& now) { return ZarkValue::fromDouble(now.loadOne); });
    add(nodes, "system:load/five", "Load of the last five minutes", "",
        [](const SystemSample& now) { return ZarkValue::fromDouble(now.loadFive); });
    add(nodes, "system:load/fifteen", "Load of the last fifteen minutes", "",
        [](const SystemSample& now) { return ZarkValue::fromDouble(now.loadFifteen); });
    add(nodes, "system:load/cpu", "Processor use since the last sample", "%",
        [this](const SystemSample&) { return ZarkValue::fromDouble(m_processorPercent); });
}

void SystemNodes::addMemory(CMNodes* nodes)
{
    add(nodes, "system:memory/total", "Memory", "B",
        [](const SystemSample& now) { return ZarkValue::fromI64(now.memoryTotal); });
    add(nodes, "system:memory/available", "Available memory", "B",
        [](const SystemSample& now) { return ZarkValue::fromI64(now.memoryAvailable); });
    add(nodes, "system:memory/process", "Memory of this process", "B",
        [](const SystemSample& now) { return ZarkValue::fromI64(now.memoryProcess); });
}

void SystemNodes::addMachine(CMNodes* nodes)
{
    add(nodes, "system:uptime/seconds", "Time since the start", "s",
        [](const SystemSample& now) { return ZarkValue::fromI64(now.uptimeSeconds); });
    add(nodes, "system:host/name", "Host name", "",
        [](const SystemSample& now) { return ZarkValue::fromString(now.hostName); });
    add(nodes, "system:time/now", "Time of this machine", "ms",
        [](const SystemSample& now) { return ZarkValue::fromI64(now.nowMs); });
}

void SystemNodes::add(CMNodes* nodes, const char* path, const char* title, const char* unit, const Reader& read)
{
    const CMPath where = CMPath::fromEncoded(QString::fromLatin1(path));
    CMValueNode* node = CMValueNode::create(nodes, where, read(SystemSample()));
    if (!node)
        return; // Logged; the tree declares something else there.
    node->setTitle(title);
    if (*unit)
        node->setEdit({ { QStringLiteral("unit"), QString::fromLatin1(unit) } });
    node->setDemandHook([this] { onDemand(); });
    m_entries.append({ node, read });
}

void SystemNodes::onDemand()
{
    if (!m_age.isValid() || m_age.hasExpired(PeriodMs))
        sample();
    if (!isWatched())
        m_timer.stop();
    else if (!m_timer.isActive())
        m_timer.start();
}

bool SystemNodes::isWatched() const
{
    return std::any_of(m_entries.begin(), m_entries.end(), [](const Entry& entry) { return entry.node->isWatched(); });
}

void SystemNodes::sample()
{
    // First of all: telling the new values makes listeners read, which demands again.
    m_age.start();
    ++m_sampleCount;
    const SystemSample now = SystemSample::take();
    const double percent = now.processor.percentSince(m_processor);
    if (percent >= 0) {
        m_processorPercent = percent;
        m_processor = now.processor;
    }
    if (m_timer.isActive())
        m_timer.start(); // A second from now, not sooner.
    for (const Entry& entry : qAsConst(m_entries))
        entry.node->setMeasured(entry.read(now));
}
