#pragma once

#include <QMap>
#include <QVariant>

class ApiClient;

/// The values of a subtree that can be written back: path to typed value. Sorted, so that its text is the same for the
/// same device.
class Snapshot {
public:
    /// What `zarkctl dump` wrote; "-" is standard input. Throws a Failure of status ExitUsage.
    static Snapshot fromFile(const QString& fileName);
    /// Below each path, the path itself included, without read-only nodes, secrets and the certificate that belongs to
    /// one. `shown`: a progress bar.
    static Snapshot fromDevice(ApiClient* api, const QStringList& paths, bool shown);
    /// Of just these nodes; those that the device does not have are left out.
    static Snapshot ofNodes(ApiClient* api, const QStringList& paths);

    /// One line a node.
    QByteArray toJson() const;
    const QMap<QString, QVariant>& values() const { return m_values; }
    int hidden() const { return m_hidden; } ///< Nodes that this user may not see.

private:
    QMap<QString, QVariant> m_values;
    int m_hidden = 0;
};
