#include "Nodes.h"

#include <QRegularExpression>

#include "ApiClient.h"
#include "Failure.h"

namespace {

const int DeepestTree = 100;
const char* const Root = ":";

QRegularExpression expressionOf(const QString& pattern)
{
    QString text = QRegularExpression::escape(pattern);
    text.replace(QStringLiteral("\\*\\*"), QStringLiteral(".*"));
    text.replace(QStringLiteral("\\*"), QStringLiteral("[^/]*"));
    return QRegularExpression(QRegularExpression::anchoredPattern(text));
}

/// The container that everything lies in that the pattern can fit.
QString beginningOf(const QString& pattern)
{
    const int slash = pattern.lastIndexOf(QLatin1Char('/'), pattern.indexOf(QLatin1Char('*')));
    return slash < 0 ? QLatin1String(Root) : pattern.left(slash);
}

} // namespace

QVariant NodeEntry::shown(const QString& role) const
{
    return isSecret() && role == QLatin1String("value") ? QVariant(QStringLiteral("(secret)")) : roles.value(role);
}

Nodes::Nodes(ApiClient* api, const QStringList& roles)
    : m_api(api), m_roles(QStringList{ QStringLiteral("path"), QStringLiteral("type"), QStringLiteral("permission") })
{
    for (const QString& role : roles) {
        if (!m_roles.contains(role))
            m_roles.append(role);
    }
}

NodeEntry Nodes::entryOf(const QVariantList& row) const
{
    NodeEntry node;
    for (int i = 0; i < m_roles.size(); ++i)
        node.roles.insert(m_roles.at(i), row.value(i));
    node.path = node.roles.value(QStringLiteral("path")).toString();
    node.type = node.roles.value(QStringLiteral("type")).toString();
    node.permission = node.roles.value(QStringLiteral("permission")).toString();
    return node;
}

QList<NodeEntry> Nodes::children(const QString& path)
{
    QList<NodeEntry> nodes;
    const bool isWorker = path.endsWith(QLatin1Char(':')); // The tree has no node for it.
    const QVariantList rows = m_api->allRows(isWorker ? QLatin1String(Root) : path, m_roles);
    for (const QVariant& row : rows) {
        const NodeEntry node = entryOf(row.toList());
        m_hidden += node.path.isEmpty() ? 1 : 0; // What this user may not see keeps its place in the rows.
        if (!node.path.isEmpty() && (!isWorker || path == QLatin1String(Root) || node.path.startsWith(path)))
            nodes.append(node);
    }
    if (isWorker && nodes.isEmpty())
        throw Failure{ ExitNotFound, path + QStringLiteral(": there is no such node") };
    return nodes;
}

void Nodes::walk(const QString& path, int depth, const Visit& visit)
{
    QList<bool> lasts;
    if (path.endsWith(QLatin1Char(':'))
        || m_api->getData(path, { QStringLiteral("type") }).first() == QStringLiteral("container"))
        return walkChildren(path, depth < 0 ? DeepestTree : depth, &lasts, visit);
    visit(entryOf(m_api->getData(path, m_roles)), {});
}

void Nodes::walkChildren(const QString& path, int depth, QList<bool>* lasts, const Visit& visit)
{
    if (depth == 0)
        return;
    const QList<NodeEntry> nodes = children(path);
    for (int i = 0; i < nodes.size(); ++i) {
        lasts->append(i == nodes.size() - 1);
        visit(nodes.at(i), *lasts);
        if (nodes.at(i).type == QLatin1String("container"))
            walkChildren(nodes.at(i).path, depth - 1, lasts, visit);
        lasts->removeLast();
    }
}

QList<NodeEntry> Nodes::matching(const QString& pattern)
{
    const QRegularExpression expression = expressionOf(pattern);
    const QString beginning = beginningOf(pattern);
    const int levels = pattern.contains(QLatin1String("**")) ? -1
        : beginning == QLatin1String(Root)                   ? pattern.count(QLatin1Char('/')) + 1
                                           : pattern.count(QLatin1Char('/')) - beginning.count(QLatin1Char('/'));
    QList<NodeEntry> found;
    walk(beginning, levels, [&](const NodeEntry& node, const QList<bool>&) {
        if (expression.match(node.path).hasMatch())
            found.append(node);
    });
    if (found.isEmpty())
        throw Failure{ ExitNotFound, pattern + QStringLiteral(": fits no node") };
    return found;
}

QString Nodes::plainPath(const QString& path)
{
    return path.endsWith(QLatin1Char('/')) ? path.chopped(1) : path;
}

QStringList Nodes::expanded(const QStringList& patterns)
{
    QStringList paths;
    for (const QString& pattern : patterns) {
        if (!isPattern(pattern))
            paths.append(plainPath(pattern));
        for (const NodeEntry& node : isPattern(pattern) ? matching(pattern) : QList<NodeEntry>())
            paths.append(node.path);
    }
    return paths;
}
