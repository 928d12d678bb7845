#pragma once

#include <functional>

#include "CMSetDataRequest.h"
#include "CMUINode.h"

class CMNodes;

/// A command: a value in, a value out. Shows no value when it is read. Modifiable from the start.
class CMActivateNode : public CMUINode {
public:
    using Invoke = std::function<void(const CMSetDataRequest&)>;

    static CMActivateNode* create(CMNodes* nodes, const CMPath& path);

    /// What runs when a client invokes the command; it ends the request now or later. Without one: NotSupported.
    void doSetInvoke(const Invoke& invoke) { m_invoke = invoke; }
    /// The type that an argument must have (checked before `invoke` runs). Invalid, the default, takes anything.
    void setArgumentType(ZarkValueType::Enum type) { m_argumentType = type; }

    QString nodeType() const override;
    void invoke(const QVariant& value, const QString& role, CMReply<QVariant> reply) override;

private:
    CMActivateNode(CMNodeHome* tree, const CMPath& path) : CMUINode(tree, path) { setModifiable(true); }

    Invoke m_invoke;
    ZarkValueType::Enum m_argumentType = ZarkValueType::Invalid;
};
