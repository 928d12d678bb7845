#pragma once

#include <QObject>

#include "CMNodeTree.h"
#include "CMPath.h"
#include "ZarkValue.h"

/// Watches the value of the node at a path: changed() comes once for the value found at the start (from the event
/// loop, so that there is time to connect), then for every change, also when the node appears later.
class CMValueItem : public QObject, private CMNodeListener {
    Q_OBJECT
public:
    CMValueItem(QObject* parent, const CMPath& path);
    ~CMValueItem() override;

    const CMPath& path() const { return m_path; }
    const ZarkValue& value() const { return m_value; } ///< The value last told by changed(); invalid before.

Q_SIGNALS:
    void changed(const ZarkValue& value, const ZarkValue& previous);

private:
    void nodeChanged(CMUINode* node, const QStringList& roles) override;
    void nodeAppeared(CMUINode* node) override;
    void refreshLater(); ///< Several changes in a row are told as one.
    void refresh();

    CMPath m_path;
    ZarkValue m_value;
    bool m_waiting = false; ///< A refresh() is queued.
};
