#pragma once

#include <QList>
#include <QStringList>
#include <QVector>

#include "CMPath.h"
#include "ZarkRowEvent.h"

class CMStore;
class CMUINode;

/// What a node knows of the tree that it stands in; the tree says more about each.
class CMNodeHome {
public:
    virtual ~CMNodeHome() = default;

    virtual CMStore* store() const = 0;
    virtual CMUINode* node(const CMPath& path) const = 0;
    virtual const QVector<CMUINode*>& children(const CMUINode* node) const = 0;
    virtual qint64 rowsVersion(const CMUINode* node) const = 0;
    virtual bool isListenedTo(const CMPath& path) const = 0;

    /// The node calls it at its end.
    virtual void remove(CMUINode* node) = 0;
    virtual void notifyChanged(CMUINode* node, const QStringList& roles) = 0;
    virtual void changeRows(CMUINode* node, QList<ZarkRowEvent> events) = 0;
};
