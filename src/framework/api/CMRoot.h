#pragma once

#include <memory>

#include "CMAbstractWorker.h"

class CMNodeTree;
class CMStore;

/// The root of the configuration tree: routes every request to the node of that path, whichever worker made it.
/// getRows() on ":", which is no node's path, answers the nodes of one segment: there a walk through the tree begins.
///
/// One exists at a time in a process; the host (or a test) makes it first and destroys it last, and CMRoot() finds it.
class CMRootWorker : public CMAbstractWorker {
    Q_OBJECT
public:
    /// `store` may be null: then nothing persists. Not owned; it outlives this object.
    explicit CMRootWorker(CMStore* store = nullptr, QObject* parent = nullptr);
    ~CMRootWorker() override;

    CMNodeTree* tree() const { return m_tree.get(); }
    CMStore* store() const { return m_store; }

    void getData(const CMPath& path, const QStringList& roles, CMReply<QList<QVariant>> reply) override;
    void getRows(const CMPath& path, int from, int to, qint64 version, const QStringList& roles,
        CMReply<ZarkRowsRoles> reply) override;
    void setValue(const CMPath& path, const ZarkValue& value, CMVoidReply reply) override;
    void invoke(const CMPath& path, const QVariant& value, const QString& role, CMReply<QVariant> reply) override;
    QVariant getValue(const CMPath& path) override;

private:
    CMStore* m_store;
    std::unique_ptr<CMNodeTree> m_tree;
};

/// The root of this process. Null before the host made one.
CMRootWorker* CMRoot();
