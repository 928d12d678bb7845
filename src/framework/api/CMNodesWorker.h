#pragma once

#include <QVariantHash>

#include <memory>

#include "CMAbstractWorker.h"
#include "CMNodes.h"

class CMValueNode;

/// A worker that makes nodes. Requests on any path go to the root.
///
/// What a worker wants its host to tell the user it writes to nodes of its own, all stringList values:
/// "<name>:status/addresses" (where it can be reached, ready to print), "<name>:status/errors" (what it failed to
/// start) and "<name>:status/pending" (what it is still starting: the host waits a while before it says ready).
///
/// A worker that cannot work says so in fault() and does nothing; the host then ends.
class CMNodesWorker : public CMAbstractWorker {
    Q_OBJECT
public:
    CMNodesWorker(const QString& name, const QVariantHash& arguments, QObject* parent = nullptr);
    ~CMNodesWorker() override;

    CMNodes* nodes() { return m_nodes.get(); }
    const QVariantHash& arguments() const { return m_arguments; }
    /// Why this worker cannot work, in a sentence; empty when it can. Known once it is constructed.
    const QString& fault() const { return m_fault; }

    void getData(const CMPath& path, const QStringList& roles, CMReply<QList<QVariant>> reply) override;
    void getRows(const CMPath& path, int from, int to, qint64 version, const QStringList& roles,
        CMReply<ZarkRowsRoles> reply) override;
    void setValue(const CMPath& path, const ZarkValue& value, CMVoidReply reply) override;
    void invoke(const CMPath& path, const QVariant& value, const QString& role, CMReply<QVariant> reply) override;
    QVariant getValue(const CMPath& path) override;

public Q_SLOTS:
    /// SIGHUP reached the host: read again what stands in files. Does nothing here.
    virtual void reload();
    /// The host stops: answer what waits, stop listening. Does nothing here; destruction follows a moment later.
    virtual void shutDown();

protected:
    /// Makes "<name>:status/<what>", a list of texts. Null, and a fault, when the path is taken: by the tree file, or
    /// by another worker of this name.
    CMValueNode* makeStatusNode(const QString& what);

private:
    QVariantHash m_arguments;
    QString m_fault;
    std::unique_ptr<CMNodes> m_nodes;
};

/// The C function by which a host makes a module's worker, exported as "worker_create". The caller owns the result.
using CMWorkerCreate = CMNodesWorker* (*)(const QVariantHash& arguments);
