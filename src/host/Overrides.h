#pragma once

#include <QVector>

#include "HostOptions.h"

class CMNodeTree;

/// The values of --set. A node of the tree file gets its value before any module reads it; a node that a module makes,
/// as soon as it exists. Nothing of it is stored.
class Overrides {
public:
    explicit Overrides(const QVector<HostOptions::Override>& overrides) : m_pending(overrides) { }

    /// Applies those whose node exists and keeps the others. False, with a sentence in `error`, when a node refuses.
    bool applyFound(CMNodeTree* tree, QString* error);
    /// True when nothing is left; otherwise names the first path that has no node in `error`.
    bool allApplied(QString* error) const;

private:
    QVector<HostOptions::Override> m_pending;
};
