#include "Snapshot.h"

#include "ApiClient.h"
#include "Failure.h"
#include "Input.h"
#include "Nodes.h"
#include "Progress.h"
#include "ZarkJson.h"

namespace {

/// Belongs to a secret key, without which no device takes it.
const QString Certificate = QStringLiteral("settings:webserver/httpsCert");

/// Whether another device, or this one another day, could be given the node's value.
bool canBeSet(const NodeEntry& node)
{
    return node.type == QLatin1String("value") && node.roles.value(QStringLiteral("modifiable")).toBool()
        && !node.isSecret() && node.path != Certificate;
}

} // namespace

Snapshot Snapshot::fromFile(const QString& fileName)
{
    ZarkError error;
    const QVariant json = ZarkJson::parse(inputOf(fileName), &error);
    if (!error.isEmpty() || json.userType() != QMetaType::QVariantHash)
        throw Failure{ ExitUsage,
            fileName + QStringLiteral(": not what `zarkctl dump` writes")
                + (error.isEmpty() ? QString() : QStringLiteral(", ") + error.toString()) };
    Snapshot snapshot;
    const QVariantHash nodes = json.toHash();
    for (auto it = nodes.cbegin(); it != nodes.cend(); ++it) {
        const QVariantHash value = it.value().toHash();
        if (!value.contains(QStringLiteral("type")) || !value.contains(QStringLiteral("value")))
            throw Failure{ ExitUsage, QStringLiteral("%1: %2 has no type and value").arg(fileName, it.key()) };
        snapshot.m_values.insert(it.key(), it.value());
    }
    return snapshot;
}

Snapshot Snapshot::fromDevice(ApiClient* api, const QStringList& paths, bool shown)
{
    Snapshot snapshot;
    Nodes nodes(api, { QStringLiteral("value"), QStringLiteral("modifiable") });
    Progress progress(QStringLiteral("reading"), shown);
    QStringList starts;
    for (const QString& path : nodes.expanded(paths)) {
        if (!path.endsWith(QLatin1Char(':')))
            starts.append(path);
        for (const NodeEntry& node : path.endsWith(QLatin1Char(':')) ? nodes.children(path) : QList<NodeEntry>())
            starts.append(node.path);
    }
    for (int i = 0; i < starts.size(); ++i) {
        nodes.walk(starts.at(i), -1, [&snapshot](const NodeEntry& node, const QList<bool>&) {
            const QVariant value = node.roles.value(QStringLiteral("value"));
            if (canBeSet(node) && !value.isNull())
                snapshot.m_values.insert(node.path, value);
        });
        progress.show(i + 1, starts.size(), "subtrees");
    }
    snapshot.m_hidden = nodes.hidden();
    return snapshot;
}

Snapshot Snapshot::ofNodes(ApiClient* api, const QStringList& paths)
{
    Snapshot snapshot;
    for (const QString& path : paths) {
        try {
            snapshot.m_values.insert(path, api->getData(path, { QStringLiteral("value") }).first());
        } catch (const Failure& failure) {
            if (failure.status != ExitNotFound || failure.name.isEmpty())
                throw;
        }
    }
    return snapshot;
}

QByteArray Snapshot::toJson() const
{
    QByteArrayList lines;
    for (auto it = m_values.cbegin(); it != m_values.cend(); ++it) {
        const QByteArray pair = ZarkJson::serialize(QVariantMap{ { it.key(), it.value() } });
        lines.append(pair.mid(1, pair.size() - 2));
    }
    return lines.isEmpty() ? QByteArrayLiteral("{}\n") : "{\n" + lines.join(",\n") + "\n}\n";
}
