#pragma once

#include <functional>
#include <memory>

#include "CMUINode.h"

class CMNodes;
class CMValueBounds;

/// A node that holds one value of a fixed type, within the bounds of edit(). A persistent one takes its value from the
/// store when it is made, and a write is on disk before it is answered and before anybody sees it. A stored value of
/// another type, or out of the bounds, gives way to the default, with a line in the log: an older version wrote it.
class CMValueNode : public CMUINode {
public:
    enum Persistence { Volatile, Persistent };

    ~CMValueNode() override;

    /// `initial` gives the type and the default. Null as CMContainerNode::create().
    static CMValueNode* create(
        CMNodes* nodes, const CMPath& path, const ZarkValue& initial, Persistence persistence = Volatile);

    const ZarkValue& value() const { return m_value; }
    /// Sets the value at once and in memory alone, for values that the device measures. False when the type differs.
    bool setMeasured(const ZarkValue& value);
    /// Sets the value for this run, checked like a client's write but not stored; the error is empty on success.
    CMError override_(const ZarkValue& value);
    /// Checks, stores if persistent, applies, answers.
    void set(const ZarkValue& value, CMVoidReply reply);
    /// Runs before a client's or a worker's write is accepted, after the type and range checks; an error refuses it.
    void setValidator(const std::function<CMError(const ZarkValue&)>& validator) { m_validator = validator; }
    /// Runs after the value has changed through set() or invoke(), for nodes that act on the device.
    void setChangeHook(const std::function<void(const ZarkValue&)>& hook) { m_changeHook = hook; }

    /// A bound that the value's type cannot have is logged and does not count.
    void setEdit(const QVariantHash& edit) override;
    QString nodeType() const override;
    QVariant valueRole() const override;
    void invoke(const QVariant& value, const QString& role, CMReply<QVariant> reply) override;

private:
    CMValueNode(CMNodeHome* tree, const CMPath& path, const ZarkValue& initial, Persistence persistence);

    void takeStored();
    CMError check(const ZarkValue& value) const; ///< Type, range, step, options, validator.
    void apply(const ZarkValue& value); ///< Into memory, and tells the listeners.
    /// Applies a written value, runs the change hook, and returns what the node holds then.
    ZarkValue accept(const ZarkValue& value);

    /// How a write ended, and what the node holds then.
    using Written = std::function<void(const CMError& error, const ZarkValue& held)>;
    void write(const ZarkValue& value, const Written& written);

    ZarkValue m_value;
    Persistence m_persistence;
    std::unique_ptr<const CMValueBounds> m_bounds; ///< Null: none.
    std::unique_ptr<const ZarkValue> m_default; ///< As long as the value is the store's.
    std::function<CMError(const ZarkValue&)> m_validator;
    std::function<void(const ZarkValue&)> m_changeHook;
    std::shared_ptr<bool> m_alive; ///< Made with the first write that waits for the store.
};
