#pragma once

#include <QVariant>

#include "CMReply.h"
#include "ZarkValue.h"

/// One invocation of a command node: its argument, and the reply that ends it. Copies share the reply.
class CMSetDataRequest {
public:
    CMSetDataRequest(const QVariant& json, const ZarkValue& value, CMReply<QVariant> reply)
        : m_json(json), m_value(value), m_reply(reply)
    {
    }

    const QVariant& json() const { return m_json; } ///< The argument as the client sent it.
    const ZarkValue& value() const { return m_value; } ///< The argument as the node's type; invalid if it takes any.

    void finish(const QVariant& result = {}) { m_reply.finish(result); }
    void fail(const CMError& error) { m_reply.fail(error); }

private:
    QVariant m_json;
    ZarkValue m_value;
    CMReply<QVariant> m_reply;
};
