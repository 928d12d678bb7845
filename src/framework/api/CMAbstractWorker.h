#pragma once

#include <QList>
#include <QObject>
#include <QStringList>
#include <QVariant>

#include "CMPath.h"
#include "CMReply.h"
#include "ZarkRowsRoles.h"
#include "ZarkValue.h"

/// Something that answers requests on nodes. Requests are asynchronous: the answer comes through the reply, with
/// CMError::NotFound for a path that has no node.
class CMAbstractWorker : public QObject {
    Q_OBJECT
public:
    explicit CMAbstractWorker(const QString& name, QObject* parent = nullptr) : QObject(parent), m_name(name) { }

    const QString& name() const { return m_name; }

    /// One value a role, in the order of `roles`; a role that the node leaves out is null. CMError::UnknownRole for a
    /// role that does not exist.
    virtual void getData(const CMPath& path, const QStringList& roles, CMReply<QList<QVariant>> reply) = 0;
    /// Rows `from` to `to`, both inclusive, of a list (or the children of a container). `to` beyond the last row is cut
    /// to it. CMError::InvalidRange when from < 0, to < from or from is beyond the last row of a list that has rows;
    /// an empty list answers no rows. CMError::OutdatedVersion when `version` is neither 0 nor the list's version.
    virtual void getRows(const CMPath& path, int from, int to, qint64 version, const QStringList& roles,
        CMReply<ZarkRowsRoles> reply) = 0;
    /// Writes a value node's value past its modifiability, as the device itself does.
    virtual void setValue(const CMPath& path, const ZarkValue& value, CMVoidReply reply) = 0;
    /// Writes role `role` of a node as a client does: "value" of a value node, "value" or "activate" of a command node.
    /// `value` is JSON, typed or plain. Answers what the node holds afterwards, or what the command returns.
    virtual void invoke(const CMPath& path, const QVariant& value, const QString& role, CMReply<QVariant> reply) = 0;
    /// The value of a value node at once, as a hash that converts to a ZarkValue; invalid when there is none.
    virtual QVariant getValue(const CMPath& path) = 0;

private:
    QString m_name;
};
