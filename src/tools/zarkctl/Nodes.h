#pragma once

#include <QVariant>

#include <functional>

class ApiClient;

/// A node as a container's rows tell it.
struct NodeEntry {
    QString path;
    QString type; ///< "container", "value", ...; empty where the device does not tell.
    QString permission;
    QVariantHash roles; ///< Those that were asked for.

    /// What only its owner should see: shown when it is asked for by name, never in a listing.
    bool isSecret() const { return permission == QLatin1String("internal"); }
    QVariant shown(const QString& role) const;
};

/// The tree of one device, found by the rows of its containers.
class Nodes {
public:
    /// `roles`: read of each node, besides path, type and permission.
    Nodes(ApiClient* api, const QStringList& roles);

    /// Of a container; of ":" all roots, of "demo:" those of one worker.
    QList<NodeEntry> children(const QString& path);
    /// Depth first, in the device's order; the nodes below `path`, or itself when it is no container. `depth` -1: all.
    using Visit = std::function<void(const NodeEntry& node, const QList<bool>& lasts)>;
    void walk(const QString& path, int depth, const Visit& visit);
    /// The paths that arguments mean: "*" stands for a part of a name, "**" for any number of levels. Throws a Failure
    /// of status ExitNotFound when such a pattern fits nothing; other paths are taken as they are.
    QStringList expanded(const QStringList& patterns);
    QList<NodeEntry> matching(const QString& pattern); ///< The same with the nodes' roles, of one pattern.
    /// Without the "/" that completion leaves behind a container.
    static QString plainPath(const QString& path);
    static bool isPattern(const QString& path) { return path.contains(QLatin1Char('*')); }

    /// Rows so far that this user may not see.
    int hidden() const { return m_hidden; }

private:
    void walkChildren(const QString& path, int depth, QList<bool>* lasts, const Visit& visit);
    NodeEntry entryOf(const QVariantList& row) const;

    ApiClient* m_api;
    QStringList m_roles;
    int m_hidden = 0;
};
