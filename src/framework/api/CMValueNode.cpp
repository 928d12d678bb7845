#include "CMValueNode.h"

#include "ApiLogger.h"
#include "CMNodeTree.h"
#include "CMNodes.h"
#include "CMStore.h"
#include "CMValueBounds.h"

namespace {

// The value itself may be a secret.
void warnOfDefault(const CMPath& path, const QString& reason)
{
    dbglog_warn(apiLogger(), "The stored value of " << path.toEncoded() << " gives way to the default: " << reason);
}

} // namespace

CMValueNode* CMValueNode::create(CMNodes* nodes, const CMPath& path, const ZarkValue& initial, Persistence persistence)
{
    auto* const node = new CMValueNode(nodes->tree(), path, initial, persistence);
    return nodes->enter(node) ? node : nullptr;
}

CMValueNode::CMValueNode(CMNodeHome* tree, const CMPath& path, const ZarkValue& initial, Persistence persistence)
    : CMUINode(tree, path), m_value(initial), m_persistence(persistence)
{
    if (m_persistence == Persistent && tree->store())
        takeStored();
}

CMValueNode::~CMValueNode() = default;

void CMValueNode::takeStored()
{
    const ZarkValue stored = tree()->store()->value(path());
    if (!stored.isValid())
        return;
    if (stored.type() != m_value.type())
        return warnOfDefault(path(), QStringLiteral("it is of another type."));
    m_default = std::make_unique<const ZarkValue>(m_value);
    m_value = stored;
}

void CMValueNode::setEdit(const QVariantHash& edit)
{
    QString fault;
    auto bounds = std::make_unique<const CMValueBounds>(CMValueBounds::read(edit, m_value.type(), &fault));
    m_bounds = edit.isEmpty() ? nullptr : std::move(bounds);
    if (!fault.isEmpty())
        dbglog_error(apiLogger(), "The bounds of " << path().toEncoded() << " are wrong: " << fault);
    CMUINode::setEdit(edit);
    const CMError error = m_default && m_bounds ? m_bounds->check(m_value) : CMError();
    if (error.isEmpty())
        return;
    warnOfDefault(path(), error.message().source());
    apply(ZarkValue(*m_default));
}

QString CMValueNode::nodeType() const
{
    return QStringLiteral("value");
}

QVariant CMValueNode::valueRole() const
{
    return QVariant::fromValue(m_value);
}

CMError CMValueNode::check(const ZarkValue& value) const
{
    if (value.type() != m_value.type()) {
        const QString type = ZarkValueType::toString(m_value.type());
        return CMError(CMError::InvalidType, QStringLiteral("The value must be of type %1.").arg(type));
    }
    CMError error = m_bounds ? m_bounds->check(value) : CMValueBounds().check(value);
    if (error.isEmpty() && m_validator)
        error = m_validator(value);
    return error;
}

void CMValueNode::apply(const ZarkValue& value)
{
    if (value == m_value)
        return;
    m_value = value;
    m_default.reset();
    touch();
    changed({ ZarkRoles::Value() });
}

bool CMValueNode::setMeasured(const ZarkValue& value)
{
    if (value.type() != m_value.type())
        return false;
    apply(value);
    return true;
}

CMError CMValueNode::override_(const ZarkValue& value)
{
    const CMError error = check(value);
    if (error.isEmpty())
        apply(value);
    return error;
}

void CMValueNode::set(const ZarkValue& value, CMVoidReply reply)
{
    write(value, [reply](const CMError& error, const ZarkValue&) mutable {
        if (error.isEmpty())
            reply.finish();
        else
            reply.fail(error);
    });
}

void CMValueNode::invoke(const QVariant& value, const QString& role, CMReply<QVariant> reply)
{
    if (role != ZarkRoles::Value()) {
        CMUINode::invoke(value, role, reply);
        return;
    }
    if (!isModifiable()) {
        reply.fail(CMError(CMError::NotModifiable, "The value cannot be modified."));
        return;
    }
    QString sentence;
    const ZarkValue typed = ZarkValue::fromJson(value, m_value.type(), &sentence);
    if (!typed.isValid()) {
        reply.fail(CMError(CMError::InvalidType, sentence));
        return;
    }
    write(typed, [reply](const CMError& error, const ZarkValue& held) mutable {
        if (error.isEmpty())
            reply.finish(QVariant::fromValue(held));
        else
            reply.fail(error);
    });
}

void CMValueNode::write(const ZarkValue& value, const Written& written)
{
    const CMError error = check(value);
    if (!error.isEmpty()) {
        written(error, m_value);
        return;
    }
    CMStore* const store = m_persistence == Persistent && tree() ? tree()->store() : nullptr;
    if (!store) {
        written({}, accept(value));
        return;
    }
    if (!m_alive)
        m_alive = std::make_shared<bool>(true);
    CMVoidReply stored;
    // The node may be deleted while the disk is busy; the value is durable all the same.
    stored.onFinished(store, [this, alive = std::weak_ptr<bool>(m_alive), value, written](const CMError& failure) {
        if (failure.isEmpty() && !alive.expired())
            written({}, accept(value));
        else
            written(failure, value);
    });
    store->write(path(), value, stored);
}

ZarkValue CMValueNode::accept(const ZarkValue& value)
{
    if (value == m_value)
        return value;
    // Listeners and the hook may delete the node: from here on only what is at hand.
    CMNodeHome* const home = tree();
    const CMPath place = path();
    const auto hook = m_changeHook;
    apply(value);
    if (hook)
        hook(value);
    return home && home->node(place) == this ? m_value : value;
}
