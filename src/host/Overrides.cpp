#include "Overrides.h"

#include "CMNodeTree.h"
#include "CMValueNode.h"

namespace {

/// Why the node does not take the text; empty when it has taken it.
QString overrideNode(CMUINode* node, const QString& text)
{
    auto* valueNode = dynamic_cast<CMValueNode*>(node);
    if (!valueNode)
        return QStringLiteral("the node holds no value");
    QString error;
    const ZarkValue value = ZarkValue::fromText(text, valueNode->value().type(), &error);
    return value.isValid() ? valueNode->override_(value).message().toString() : error;
}

// The text is not shown: it may be a secret.
QString fault(const CMPath& path, const QString& reason)
{
    return QStringLiteral("--set %1: %2").arg(path.toEncoded(), reason);
}

} // namespace

bool Overrides::applyFound(CMNodeTree* tree, QString* error)
{
    QVector<HostOptions::Override> missing;
    for (const HostOptions::Override& override_ : qAsConst(m_pending)) {
        CMUINode* node = tree->node(override_.path);
        if (!node) {
            missing.append(override_);
            continue;
        }
        const QString reason = overrideNode(node, override_.text);
        if (!reason.isEmpty()) {
            *error = fault(override_.path, reason);
            return false;
        }
    }
    m_pending = missing;
    return true;
}

bool Overrides::allApplied(QString* error) const
{
    if (!m_pending.isEmpty())
        *error = fault(m_pending.constFirst().path, QStringLiteral("no such node"));
    return m_pending.isEmpty();
}
