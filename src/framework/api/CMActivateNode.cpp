#include "CMActivateNode.h"

#include "CMNodeTree.h"
#include "CMNodes.h"

CMActivateNode* CMActivateNode::create(CMNodes* nodes, const CMPath& path)
{
    auto* const node = new CMActivateNode(nodes->tree(), path);
    return nodes->enter(node) ? node : nullptr;
}

QString CMActivateNode::nodeType() const
{
    return QStringLiteral("action");
}

void CMActivateNode::invoke(const QVariant& value, const QString& role, CMReply<QVariant> reply)
{
    if (role != ZarkRoles::Value() && role != QLatin1String("activate")) {
        CMUINode::invoke(value, role, reply);
        return;
    }
    if (!isModifiable()) {
        reply.fail(CMError(CMError::NotModifiable, "The command cannot be invoked."));
        return;
    }
    if (!m_invoke) {
        reply.fail(CMError(CMError::NotSupported, "The device does not implement this command."));
        return;
    }
    ZarkValue typed;
    if (m_argumentType != ZarkValueType::Invalid) {
        QString sentence;
        typed = ZarkValue::fromJson(value, m_argumentType, &sentence);
        if (!typed.isValid()) {
            reply.fail(CMError(CMError::InvalidType, sentence));
            return;
        }
    }
    const Invoke run = m_invoke; // The command may delete its node.
    run(CMSetDataRequest(value, typed, reply));
}
