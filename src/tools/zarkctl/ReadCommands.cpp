#include "Commands.h"
#include "Nodes.h"
#include "Session.h"
#include "ValueText.h"

namespace {

const QString PathRole = QStringLiteral("path");
const QString ValueRole = QStringLiteral("value");

QStringList rolesOf(const Session& session, const QString& otherwise)
{
    const QString roles = session.invocation.value("roles", otherwise);
    if (roles == QLatin1String("@all"))
        return QStringLiteral("path title description type value permission modifiable edit icon timestamp").split(' ');
    return roles.split(QLatin1Char(','), Qt::SkipEmptyParts);
}

Record recordOf(const NodeEntry& node, const QStringList& roles)
{
    Record record{ { PathRole, node.path } };
    for (const QString& role : roles) {
        if (role != PathRole)
            record.append({ role, node.shown(role) });
    }
    return record;
}

/// As it is for a program; a terminal is not to be steered by a device.
QByteArray bareLine(const Output& output, const QVariant& value)
{
    const QByteArray bare = ValueText::bare(value);
    return output.isTerminal() ? ValueText::printable(QString::fromUtf8(bare), true).toUtf8() : bare;
}

QString leafOf(const QString& path)
{
    return path.section(QLatin1Char('/'), -1);
}

QByteArray branch(const QList<bool>& lasts)
{
    QByteArray text;
    for (int i = 0; i < lasts.size(); ++i) {
        const bool end = i == lasts.size() - 1;
        text += end ? (lasts.at(i) ? "└── " : "├── ") : (lasts.at(i) ? "    " : "│   ");
    }
    return text;
}

QList<NodeEntry> found(const Session& session, const QString& argument, const QStringList& roles)
{
    if (Nodes::isPattern(argument))
        return Nodes(session.api, roles).matching(argument);
    NodeEntry node;
    node.path = Nodes::plainPath(argument);
    const QVariantList values = session.api->getData(node.path, roles);
    for (int i = 0; i < roles.size(); ++i)
        node.roles.insert(roles.at(i), values.at(i));
    return { node };
}

} // namespace

ExitStatus runGet(Session& session)
{
    const bool bare = session.invocation.has("raw");
    // "value" last: it ends the line, and devices are compared by it.
    const QStringList roles = rolesOf(session, bare ? ValueRole : QStringLiteral("title,value"));
    session.report.bare = bare;
    ExitStatus status = ExitOk;
    for (const QString& argument : session.arguments()) {
        try {
            for (const NodeEntry& node : found(session, argument, roles)) {
                session.report.records.append(recordOf(node, roles));
                for (const QString& role : bare ? roles : QStringList())
                    session.report.lines.append(bareLine(*session.output, node.shown(role)));
            }
        } catch (const Failure& failure) {
            if (failure.status == ExitUnreachable)
                throw;
            session.note(failure.text); // The others are answered all the same.
            status = qMax(status, failure.status);
        }
    }
    return status;
}

ExitStatus runLs(Session& session)
{
    const QStringList roles = rolesOf(session, QStringLiteral("type,title,value"));
    Nodes nodes(session.api, roles);
    const QStringList paths = session.arguments().isEmpty() ? QStringList{ QStringLiteral(":") } : session.arguments();
    for (const QString& path : nodes.expanded(paths)) {
        nodes.walk(path, 1, [&session, &roles](const NodeEntry& node, const QList<bool>&) {
            session.report.records.append(recordOf(node, roles));
        });
    }
    return ExitOk;
}

ExitStatus runTree(Session& session)
{
    const QStringList roles{ QStringLiteral("type"), QStringLiteral("title"), ValueRole };
    Nodes nodes(session.api, roles);
    const int depth = int(session.invocation.number("depth", -1));
    const QString start = Nodes::plainPath(session.arguments().value(0, QStringLiteral(":")));
    nodes.walk(start, depth, [&session, &roles](const NodeEntry& node, const QList<bool>& lasts) {
        session.report.records.append(recordOf(node, roles));
        const QString value = ValueText::cell(node.shown(ValueRole));
        const QString name = lasts.size() == 1 ? node.path : leafOf(node.path);
        const QString kind = node.type == QLatin1String("value") ? QStringLiteral(" = ") + value
            : node.type == QLatin1String("container")            ? QString()
                                                                 : QStringLiteral(" (%1)").arg(node.type);
        session.report.lines.append(branch(lasts) + ValueText::printable(name + kind).toUtf8());
    });
    session.report.lines.prepend(start.toUtf8());
    return ExitOk;
}

ExitStatus runRows(Session& session)
{
    const QStringList roles = rolesOf(session, QStringLiteral("title,value"));
    const qint64 from = session.invocation.number("from", 0);
    const qint64 to = session.invocation.number("to", -1);
    if (to >= 0 && to < from)
        throw Failure{ ExitUsage, QStringLiteral("--to is below --from") };
    qint64 index = from;
    for (const QVariant& row : session.api->allRows(session.arguments().first(), roles, from, to)) {
        Record record{ { QStringLiteral("index"), index++ } };
        for (int i = 0; i < roles.size(); ++i)
            record.append({ roles.at(i), row.toList().value(i) });
        session.report.records.append(record);
    }
    return ExitOk;
}
